// Faults that would put wrong data into caches, data files, PLCs or the
// shared segment while the server reports success, each shown end to end
// through the real server and the simulated plug-in.
#include <filesystem>
#include <fstream>
#include <sys/shm.h>
#include <unistd.h>

#include "itest_util.h"

using namespace std::chrono_literals;
using comclient::Client;
using comclient::RegAddr;
using itest::Bytes;
using itest::le16s;
using itest::is_error;
using itest::rec;
using itest::until_done;

namespace {

rig::PortSetup port(int driver, uint32_t bus, int max_words = 64, int max_bits = 256)
{
    return {.plc_driver_no = driver, .drv_param1 = bus, .max_words = max_words, .max_bits = max_bits};
}

Bytes file_bytes(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(f), {});
}

// Two ports whose 300 (port, station, kind) keys outnumber the 256 cached
// descriptors, so entries are recycled all the time while both threads
// write. The plug-in runs without a control file: word r reads r + seconds
// since start, so every range has its own non-zero values at its own place.
TEST(DataIntegrity, DataFilesOfTwoBusyPortsHoldOnlyTheirOwnBytes)
{
    rig::Server server({.ports = {port(5, 0), port(5, 1)}, .initial_bits = {9924},
                        .env = {{"COMSERVER_SIM_LINE_US", "0"}, {"COMSERVER_SWEEP_SECONDS", "86400"}}});
    server.start();
    Client c = itest::connect(server);

    std::map<std::string, int32_t> starts; // file -> word address of its range
    for (uint8_t p = 0; p < 2; ++p) {
        std::vector<RegAddr> recs;
        for (int i = 0; i < 150; ++i) {
            const auto station = static_cast<uint8_t>(1 + i / 10);
            const auto kind = static_cast<uint8_t>(1 + i % 10);
            recs.push_back(rec(p, station, 2, kind, 3 * i, 2));
            char name[32];
            std::snprintf(name, sizeof name, "/%x.dat", kind | station << 8 | p << 16);
            starts[server.dir() + name] = 3 * i;
        }
        ASSERT_EQ(c.register_areas(recs).kind, comclient::ReplyKind::ack);
    }
    // The two words of a file; the seconds they show, or -1 before they are there.
    auto seconds_in = [](const std::string& path, int32_t start) {
        const Bytes b = file_bytes(path);
        const size_t at = 4 + 2 * static_cast<size_t>(start);
        return b.size() < at + 4 ? -1 : (b[at] | b[at + 1] << 8) - start;
    };
    auto all_written_since = [&](int secs) {
        return std::all_of(starts.begin(), starts.end(),
                           [&](const auto& e) { return seconds_in(e.first, e.second) >= secs; });
    };
    ASSERT_TRUE(rig::eventually([&] { return all_written_since(0); }, 30s));
    int secs = 0;
    for (const auto& [path, start] : starts)
        secs = std::max(secs, seconds_in(path, start));
    ASSERT_TRUE(rig::eventually([&] { return all_written_since(secs + 2); }, 30s)) << "every file rewritten";
    server.stop();

    EXPECT_EQ(std::count_if(std::filesystem::directory_iterator(server.dir()), {},
                            [](const auto& e) { return e.path().extension() == ".dat"; }),
              static_cast<long>(starts.size()));
    for (const auto& [path, start] : starts) {
        const Bytes b = file_bytes(path);
        ASSERT_EQ(b.size(), 4 + 2 * static_cast<size_t>(start + 2)) << path;
        EXPECT_EQ(Bytes(b.begin(), b.begin() + 4), (Bytes{1, 0, 0, 0})) << path;
        EXPECT_EQ(std::count(b.begin() + 4, b.end() - 4, 0), 2 * start) << path << ": foreign bytes";
        EXPECT_EQ(comclient::load_le(&b[b.size() - 2], 2) - comclient::load_le(&b[b.size() - 4], 2), 1u) << path;
    }
}

// Bit blocks of batch drivers come back through a 32-bit entry field; a
// 64-bit range on a port whose record allows 64-bit blocks must still read
// every bit.
TEST(DataIntegrity, WideBitRangesOnBatchDriversReadEveryBit)
{
    itest::SimServer sim({.ports = {port(404, 0, 64, 64), port(422, 1, 64, 64), port(106, 2, 64, 64)}});
    const Bytes ones(8, 0xff);
    for (uint32_t bus = 0; bus < 3; ++bus)
        ASSERT_EQ(sim_mem_write(*sim.ctl, bus, 1, 7, 0, 0, 64, ones.data()), SIM_OK);
    sim.server->start();
    Client c = itest::connect(*sim.server);
    for (uint8_t p = 0; p < 3; ++p)
        EXPECT_EQ(itest::read_until_data(c, rec(p, 1, 0, 7, 0, 64)).data, Bytes(8, 0xff)) << int{p};
}

// Clients give byte addresses (addr_unit 1); everything after normalisation
// counts registers: one-register batch refresh, split word and bit writes.
TEST(DataIntegrity, ByteAddressedRangesAndSplitWritesLandInPlace)
{
    itest::SimServer sim({.ports = {port(1002, 0), port(5, 1, 4, 10)}});
    SimControl& ctl = *sim.ctl;
    for (int i = 0; i < 4; ++i)
        sim_control_set_value(ctl, 0, 1, 3, 2, 10 + i, 0x1111u * (i + 1));
    sim.server->start();
    Client c = itest::connect(*sim.server);

    RegAddr batch = rec(0, 1, 2, 3, 20, 4); // byte 20 = word 10
    batch.addr_unit = 1;
    EXPECT_EQ(itest::read_until_data(c, batch).data, le16s({0x1111, 0x2222, 0x3333, 0x4444}));

    // Six words and twenty bits on a port that writes at most four words or ten bits at once.
    RegAddr words = rec(1, 1, 2, 3, 0, 6);
    words.addr_unit = 1;
    for (const auto& [r, data] : {std::pair{words, le16s({1, 2, 3, 4, 5, 6})}, {rec(1, 1, 0, 4, 0, 20), {0xa5, 0x3c, 0x0f}}}) {
        ASSERT_TRUE(c.write(r, data).pending());
        ASSERT_TRUE(until_done([&] { return c.writecheck(r); }).ok);
        Bytes got(data.size());
        sim_mem_read(ctl, 1, 1, r.kind, r.type, 0, r.count, got.data());
        EXPECT_EQ(got, data) << int{r.type};
    }
}

// A word area too short for the station words from 9432 and a bit area too
// short for bits 9500 + port: the port thread's state updates must stay out
// of the bit area and of what lies past the segment.
TEST(DataIntegrity, StateUpdatesStayInsideSmallLocalAreas)
{
    itest::SimServer sim({.ports = {port(5, 0)}, .local_word_count = 9000, .local_bit_count = 9000});
    ASSERT_TRUE(sim_control_set_station(*sim.ctl, 0, 1, SIM_TIMEOUT, 0));
    sim.server->start();
    Client c = itest::connect(*sim.server);
    const RegAddr r = rec(0, 1, 2, 3, 0, 1);
    c.register_areas(std::span(&r, 1));
    ASSERT_TRUE(itest::wait_reads(*sim.ctl, 0, 1, 0, 6)) << "four time-outs set the station word";

    itest::Segment seg(sim.server->shmid(), false);
    EXPECT_FALSE(seg.bit(864 * 8 + 1)) << "word 9432, bit 1 is past the word area: bit area byte 864";
    shmid_ds info{};
    ASSERT_EQ(shmctl(sim.server->shmid(), IPC_STAT, &info), 0);
    const uint8_t* base = seg.base();
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t mapped = (info.shm_segsz + page - 1) / page * page;
    EXPECT_EQ(std::count(base + info.shm_segsz, base + mapped, 0), static_cast<long>(mapped - info.shm_segsz))
        << "nothing written past the segment";
    EXPECT_TRUE(c.com_read(rec(0, 0, 2, 255, 0, 1)).kind == comclient::ReplyKind::data) << "server alive";
}

// A write cut into pieces whose first piece fails is a failed write, and
// nothing after the failing piece is sent.
TEST(DataIntegrity, SplitWriteWithAFailingFirstPieceFails)
{
    itest::SimServer sim(rig::Config{.ports = {port(5, 0)}});
    sim.server->start();
    Client c = itest::connect(*sim.server);
    const RegAddr w = rec(0, 1, 2, 3, -10, 100); // piece (-10, 64) fails, (54, 36) would not
    ASSERT_TRUE(c.write(w, Bytes(200, 0x5a)).pending());
    EXPECT_TRUE(is_error(until_done([&] { return c.writecheck(w); }), 3));
    EXPECT_EQ(sim_control_get_value(*sim.ctl, 0, 1, 3, 2, 54), 0u);
}

// A check collects the newest request of its record that its connection
// queued, never an older, abandoned one; a request left by a closed
// connection is still collected by the next one that checks.
TEST(DataIntegrity, RealtimeChecksNeverCollectAnOlderRequest)
{
    itest::SimServer sim(rig::Config{.ports = {port(5, 0)}});
    SimControl& ctl = *sim.ctl;
    sim_control_set_value(ctl, 0, 1, 3, 2, 7, 111);
    sim.server->start();
    Client c = itest::connect(*sim.server);
    const RegAddr r = rec(0, 1, 2, 3, 7, 1);

    ASSERT_TRUE(c.realtime_read(r).pending()); // abandoned
    ASSERT_TRUE(itest::wait_reads(ctl, 0, 1, 0, 1));
    ASSERT_TRUE(c.write(r, le16s({222})).pending());
    ASSERT_TRUE(until_done([&] { return c.writecheck(r); }).ok);
    ASSERT_TRUE(c.realtime_read(r).pending());
    EXPECT_EQ(until_done([&] { return c.realtime_readcheck(r); }).data, le16s({222}));
    EXPECT_TRUE(is_error(c.realtime_readcheck(r), 3)) << "nothing older left to collect";

    {
        Client gone = itest::connect(*sim.server);
        ASSERT_TRUE(gone.realtime_read(r).pending());
    }
    EXPECT_EQ(until_done([&] { return c.realtime_readcheck(r); }).data, le16s({222}));
}

// Requests nobody will serve are refused at once, and so is a request that
// the full realtime list cannot take.
TEST(DataIntegrity, RequestsThatCannotBeQueuedAreRefused)
{
    itest::SimServer sim(rig::Config{.ports = {port(5, 0), port(65535, 1)}});
    ASSERT_TRUE(sim_control_set_station(*sim.ctl, 0, 1, SIM_OK, 60000));
    sim.server->start();
    Client c = itest::connect(*sim.server);
    EXPECT_TRUE(is_error(c.realtime_read(rec(1, 1, 2, 3, 0, 1)), 3)) << "port 1 has no thread";

    for (int i = 0; i < 2001; ++i)
        ASSERT_TRUE(c.realtime_read(rec(0, 1, 2, 3, i, 1)).pending()) << i;
    const RegAddr w = rec(0, 1, 2, 3, 5000, 1);
    EXPECT_TRUE(is_error(c.write(w, le16s({1})), 3)) << "the list is full";
}

} // namespace
