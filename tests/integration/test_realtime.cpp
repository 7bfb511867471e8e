// Realtime requests end to end through the client library: reads, writes and
// read-modify-writes are queued, served by the port thread through the
// simulated plug-in and collected with their check commands; a write also
// refreshes the caches it overlaps while the suspend bit stops block polling.
// A second server with a one-second sweep shows the sweeper retiring a range
// nobody reads while a read range stays.
#include <utility>

#include "itest_util.h"

using namespace std::chrono_literals;
using comclient::Client;
using comclient::RegAddr;
using comclient::Reply;
using comclient::ReplyKind;
using comclient::RwOper;
using itest::le16s;
using itest::is_status;
using itest::rec;
using itest::until_done;

namespace {

constexpr uint32_t kBus = 0;
constexpr uint8_t kKind = 3;           // PLC register kind used throughout
constexpr uint32_t kSuspendBit = 9923; // suspends block polling

const rig::Config kOnePort{.ports = {{.plc_driver_no = 5, .drv_param1 = kBus}}};

// Driver calls (reads and writes) of one station from seq `from` on, oldest first.
std::vector<std::pair<uint32_t, int32_t>> calls_of(SimControl& ctl, uint16_t station, uint64_t from)
{
    std::vector<std::pair<uint32_t, int32_t>> out;
    for (const SimCall& c : sim_control_calls(ctl, from))
        if (c.bus == kBus && c.plc_id == station && (c.entry == SIM_CALL_READ || c.entry == SIM_CALL_WRITE))
            out.emplace_back(c.entry, c.start);
    return out;
}

TEST(Realtime, RequestsAreQueuedServedAndCollected)
{
    itest::SimServer sim(kOnePort);
    SimControl& ctl = *sim.ctl;
    sim.server->start();
    Client c = itest::connect(*sim.server);
    {
        SCOPED_TRACE("write, writecheck and the cache of an overlapping range while polling is suspended");
        for (int i = 0; i < 4; ++i)
            sim_control_set_value(ctl, kBus, 2, kKind, 2, i, 0x100u + i);
        const RegAddr cached = rec(0, 2, 2, kKind, 0, 4);
        c.register_areas(std::span(&cached, 1));
        ASSERT_EQ(itest::read_until_data(c, cached).data, le16s({0x100, 0x101, 0x102, 0x103}));

        // Suspend block polling and wait until the reads have stopped.
        itest::Segment seg(sim.server->shmid(), true);
        seg.set_bit(kSuspendBit, true);
        uint64_t quiet = UINT64_MAX; // the read under way may still finish; then nothing
        ASSERT_TRUE(rig::eventually([&] {
            const uint64_t now = sim_control_call_count(ctl);
            return std::exchange(quiet, now) == now;
        }, 5s));

        // The station changes a word outside the write: only a poll could show it.
        sim_control_set_value(ctl, kBus, 2, kKind, 2, 3, 0x0bad);
        const RegAddr w = rec(0, 2, 2, kKind, 1, 2);
        EXPECT_TRUE(is_status(c.write(w, le16s({0xaaaa, 0xbbbb})), 5, 1));
        EXPECT_TRUE(is_status(until_done([&] { return c.writecheck(w); }), 7, 0));
        EXPECT_EQ(c.com_read(cached).data, le16s({0x100, 0xaaaa, 0xbbbb, 0x103}));
        EXPECT_TRUE(itest::reads_of(ctl, kBus, 2, quiet).empty()) << "no block reads while suspended";
        seg.set_bit(kSuspendBit, false);
        EXPECT_TRUE(itest::wait_reads(ctl, kBus, 2, quiet, 5)) << "block reads resume";
        c.unregister_areas(std::span(&cached, 1)); // an idle port keeps the call log short
    }
    {
        SCOPED_TRACE("realtime read of a station that does not answer: three tries");
        ASSERT_TRUE(sim_control_set_station(ctl, kBus, 5, SIM_TIMEOUT, 0));
        const RegAddr r = rec(0, 5, 2, kKind, 0, 1);
        const uint64_t from = sim_control_call_count(ctl);
        EXPECT_TRUE(is_status(c.realtime_read(r), 4, 1));
        EXPECT_TRUE(is_status(until_done([&] { return c.realtime_readcheck(r); }), 6, 2));
        EXPECT_EQ(calls_of(ctl, 5, from), (std::vector<std::pair<uint32_t, int32_t>>(3, {SIM_CALL_READ, 0})));
    }
    {
        SCOPED_TRACE("three requests queued for one slow station, served oldest first");
        constexpr uint16_t station = 6;
        ASSERT_TRUE(sim_control_set_station(ctl, kBus, station, SIM_OK, 100));
        sim_control_set_value(ctl, kBus, station, kKind, 2, 0, 0x600);
        sim_control_set_value(ctl, kBus, station, kKind, 2, 30, 30);
        const RegAddr read = rec(0, station, 2, kKind, 0, 1);
        const RegAddr write = rec(0, station, 2, kKind, 20, 1);
        const RegAddr counter = rec(0, station, 2, kKind, 30, 1);
        const RwOper inc{.op = 2, .step = 3, .high = 100, .direction = 1}; // an increment by 3 up to 100
        const uint64_t from = sim_control_call_count(ctl);

        EXPECT_TRUE(is_status(c.realtime_read(read), 4, 1));
        EXPECT_TRUE(is_status(c.write(write, le16s({0x620})), 5, 1));
        EXPECT_TRUE(is_status(c.realtime_rw(counter, inc), 9, 1));
        EXPECT_TRUE(is_status(c.writecheck(write), 7, 1)) << "pending while the station answers";
        EXPECT_EQ(until_done([&] { return c.realtime_readcheck(read); }).data, le16s({0x600}));
        EXPECT_TRUE(is_status(until_done([&] { return c.writecheck(write); }), 7, 0));
        RwOper other_step = inc; // not the queued request: the step is part of its identity
        other_step.step = 4;
        EXPECT_TRUE(is_status(c.realtime_rw_check(counter, other_step), 10, 3));
        EXPECT_TRUE(sim.server->wait_for("REAL_WRITE Don't find the realtime_req 0xa\r\n"));
        const Reply rw = until_done([&] { return c.realtime_rw_check(counter, inc); });
        EXPECT_EQ(rw.kind, ReplyKind::result) << ::testing::PrintToString(rw.packet);
        EXPECT_EQ(rw.result, 2) << "an increment sets direction 2";
        EXPECT_EQ(sim_control_get_value(ctl, kBus, station, kKind, 2, 20), 0x620u);
        EXPECT_EQ(sim_control_get_value(ctl, kBus, station, kKind, 2, 30), 33u);
        const std::vector<std::pair<uint32_t, int32_t>> expected = {
            {SIM_CALL_READ, 0}, {SIM_CALL_WRITE, 20}, {SIM_CALL_READ, 30}, {SIM_CALL_WRITE, 30}};
        EXPECT_EQ(calls_of(ctl, station, from), expected);
    }
}

TEST(Realtime, SweeperRetiresRangesNobodyReads)
{
    rig::Config cfg = kOnePort;
    cfg.env["COMSERVER_SWEEP_SECONDS"] = "1";
    itest::SimServer sim(cfg);
    rig::Server& server = *sim.server;
    SimControl& ctl = *sim.ctl;
    server.start();
    Client c = itest::connect(server);
    const RegAddr forgotten = rec(0, 1, 2, kKind, 0, 4);
    const RegAddr read = rec(0, 2, 2, kKind, 0, 2);
    const RegAddr canary = rec(0, 3, 2, kKind, 0, 1);
    const char* const kDeleted = " service: delete ort";

    // Reads `read` every half second while waiting; once it has answered
    // data, every later answer must be data too (a swept range would be
    // registered anew and answer com_read_err_01).
    bool seen_data = false;
    int lost = 0;
    auto last = std::chrono::steady_clock::now() - 1s;
    auto reading = [&](auto done) {
        return [&, done] {
            if (std::chrono::steady_clock::now() - last >= 500ms) {
                last = std::chrono::steady_clock::now();
                const bool data = c.com_read(read).kind == ReplyKind::data;
                lost += seen_data && !data ? 1 : 0;
                seen_data = seen_data || data;
            }
            return done();
        };
    };

    c.register_areas(std::span(&forgotten, 1));
    ASSERT_TRUE(itest::wait_reads(ctl, kBus, 1, 0, 1)) << "the registered range is polled";
    ASSERT_TRUE(rig::eventually(reading([&] { return server.count(kDeleted) >= 1; }), 15s)) << server.output();
    EXPECT_TRUE(seen_data);

    // The forgotten range's block goes with it: the port keeps reading the
    // other range and never the forgotten one again.
    uint64_t from = sim_control_call_count(ctl);
    ASSERT_TRUE(rig::eventually(reading([&] { return itest::reads_of(ctl, kBus, 2, from).size() >= 10; })));
    from = sim_control_call_count(ctl);
    ASSERT_TRUE(rig::eventually(reading([&] { return itest::reads_of(ctl, kBus, 2, from).size() >= 30; })));
    EXPECT_TRUE(itest::reads_of(ctl, kBus, 1, from).empty());

    // A further unread range takes at least three sweeps to go; all the
    // while the range read every half second stays.
    c.register_areas(std::span(&canary, 1));
    ASSERT_TRUE(rig::eventually(reading([&] { return server.count(kDeleted) >= 2; }), 15s)) << server.output();
    EXPECT_EQ(server.count(kDeleted), 2u);
    EXPECT_EQ(lost, 0);
    EXPECT_EQ(c.com_read(read).kind, ReplyKind::data);
}

} // namespace
