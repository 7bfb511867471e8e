// The polling engine end to end: registered ranges are polled through the
// simulated plug-in, their caches answer com_read, neighbouring ranges share
// one driver read, a silent station is reported and recovers, the register
// data files mirror the reads, and local bit 9923 suspends block polling.
#include <fstream>
#include <gtest/gtest.h>
#include <thread>

#include "itest_util.h"

using namespace std::chrono_literals;
using comclient::Client;
using comclient::RegAddr;
using comclient::ReplyKind;
using itest::Bytes;
using itest::rec;

namespace {

constexpr uint32_t kBus = 0;
constexpr uint32_t kPortStateBit = 9500; // + port 0
constexpr uint32_t kSuspendBit = 9923;

Bytes file_bytes(const std::string& path, size_t from, size_t n)
{
    std::ifstream f(path, std::ios::binary);
    Bytes out(n);
    f.seekg(static_cast<std::streamoff>(from));
    if (!f.read(reinterpret_cast<char*>(out.data()), static_cast<std::streamsize>(n))) {
        return {};
    }
    return out;
}

Bytes le32(uint32_t v) { return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}; }

class Polling : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        rig::Config cfg;
        rig::PortSpec p;
        p.plc_driver_no = 5;
        p.drv_param1 = kBus;
        p.max_words = 64;
        p.word_gap = 4;
        cfg.ports = {p};
        cfg.initial_bits = {9924}; // register data files on
        sim_ = std::make_unique<itest::SimServer>(cfg);
        sim_->server->start();
    }
    static void TearDownTestSuite() { sim_.reset(); }

    static rig::Server& server() { return *sim_->server; }
    static SimControl& ctl() { return *sim_->ctl; }
    // The data file of port 0, the given station and register kind.
    static std::string data_file(uint8_t station, uint8_t kind)
    {
        char name[32];
        std::snprintf(name, sizeof name, "/%x.dat", kind | station << 8);
        return server().dir() + name;
    }

    static std::unique_ptr<itest::SimServer> sim_;
};

std::unique_ptr<itest::SimServer> Polling::sim_;

TEST_F(Polling, RangesArePolledIntoTheirCachesAndDataFiles)
{
    {
        SCOPED_TRACE("cached read and data file");
        for (int i = 0; i < 4; ++i) {
            sim_control_set_value(ctl(), kBus, 1, 3, 2, 10 + i, 0x1100u + i);
        }
        Client c = itest::connect(server());
        const RegAddr r = rec(0, 1, 2, 3, 10, 4);
        const comclient::Reply first = c.com_read(r);
        EXPECT_TRUE(first.pending()) << "the first read registers the range";

        comclient::Reply data = itest::read_until_data(c, r);
        ASSERT_EQ(data.kind, ReplyKind::data);
        EXPECT_EQ(data.command, 3);
        EXPECT_EQ(data.data, itest::le16s({0x1100, 0x1101, 0x1102, 0x1103}));

        // The cache keeps following the station.
        sim_control_set_value(ctl(), kBus, 1, 3, 2, 12, 0xabcd);
        EXPECT_TRUE(rig::eventually([&] {
            return c.com_read(r).data == itest::le16s({0x1100, 0x1101, 0xabcd, 0x1103});
        }));

        // Data file of key 0x103: status 1 at bytes 0..3, word 10 at data byte 20.
        const std::string path = data_file(1, 3);
        EXPECT_TRUE(rig::eventually([&] {
            return file_bytes(path, 0, 4) == le32(1) &&
                   file_bytes(path, 4 + 20, 8) == itest::le16s({0x1100, 0x1101, 0xabcd, 0x1103});
        })) << path;
        EXPECT_EQ(file_bytes(path, 4 + 18, 2), (Bytes{0, 0})); // nothing written before the range
    }
    {
        SCOPED_TRACE("neighbouring ranges");
        for (int i = 0; i < 20; ++i) {
            sim_control_set_value(ctl(), kBus, 2, 3, 2, i, 0x200u + i);
        }
        Client c = itest::connect(server());
        const RegAddr a = rec(0, 2, 2, 3, 0, 10);
        const RegAddr b = rec(0, 2, 2, 3, 12, 8); // gap of 2 words, the port bridges 4
        uint64_t from = sim_control_call_count(ctl());
        c.register_areas(std::span(&a, 1));
        ASSERT_TRUE(itest::wait_reads(ctl(), kBus, 2, from, 1));
        const SimCall alone = itest::reads_of(ctl(), kBus, 2, from).front();
        EXPECT_EQ(alone.start, 0);
        EXPECT_EQ(alone.count, 10);

        c.register_areas(std::span(&b, 1));
        from = sim_control_call_count(ctl());
        uint64_t merged_at = 0;
        ASSERT_TRUE(rig::eventually([&] {
            for (const SimCall& call : itest::reads_of(ctl(), kBus, 2, from)) {
                if (call.count == 20) {
                    merged_at = call.seq;
                    return true;
                }
            }
            return false;
        }));
        // From then on every read of the station is the one block [0, 20).
        ASSERT_TRUE(itest::wait_reads(ctl(), kBus, 2, merged_at, 20));
        for (const SimCall& call : itest::reads_of(ctl(), kBus, 2, merged_at)) {
            EXPECT_EQ(call.reg_id, 3);
            EXPECT_EQ(call.start, 0);
            EXPECT_EQ(call.count, 20);
        }
        // Each range's cache holds its own part of the block.
        EXPECT_EQ(itest::read_until_data(c, a).data,
                  itest::le16s({0x200, 0x201, 0x202, 0x203, 0x204, 0x205, 0x206, 0x207, 0x208, 0x209}));
        EXPECT_EQ(itest::read_until_data(c, b).data,
                  itest::le16s({0x20c, 0x20d, 0x20e, 0x20f, 0x210, 0x211, 0x212, 0x213}));
    }
}

TEST_F(Polling, SilentStationIsReportedAndRecovers)
{
    sim_control_set_value(ctl(), kBus, 3, 3, 2, 0, 0x3333);
    Client c = itest::connect(server());
    const RegAddr r = rec(0, 3, 2, 3, 0, 1);
    c.register_areas(std::span(&r, 1));
    ASSERT_EQ(itest::read_until_data(c, r).data, itest::le16s({0x3333}));
    itest::Segment seg(server().shmid(), false);
    EXPECT_FALSE(seg.bit(kPortStateBit));

    const size_t mark = server().output().size();
    sim_control_set_station(ctl(), kBus, 3, SIM_TIMEOUT, 0);
    EXPECT_TRUE(rig::eventually([&] {
        const comclient::Reply rep = c.com_read(r);
        return rep.kind == ReplyKind::status && !rep.ok && rep.err == 2;
    })) << "com_read_err_02 expected";
    EXPECT_TRUE(server().wait_for("Plc(3) NG\n[C", 5s, mark)) << server().output().substr(mark);
    EXPECT_EQ(server().count("Plc(3) NG"), 1u); // printed at the first time-out only
    EXPECT_TRUE(seg.bit(kPortStateBit));
    const std::string path = data_file(3, 3);
    EXPECT_TRUE(rig::eventually([&] { return file_bytes(path, 0, 4) == le32(2); }));
    EXPECT_EQ(file_bytes(path, 4, 2), itest::le16s({0x3333})); // a failed read keeps the data

    const size_t ok_mark = server().output().size();
    sim_control_set_value(ctl(), kBus, 3, 3, 2, 0, 0x3334);
    sim_control_set_station(ctl(), kBus, 3, SIM_OK, 0);
    EXPECT_TRUE(server().wait_for("Plc(3) OK\n[C", 5s, ok_mark)) << server().output().substr(ok_mark);
    EXPECT_TRUE(rig::eventually([&] { return !seg.bit(kPortStateBit); }));
    EXPECT_EQ(itest::read_until_data(c, r).data, itest::le16s({0x3334}));
    EXPECT_TRUE(rig::eventually([&] { return file_bytes(path, 0, 4) == le32(1); }));
}

TEST_F(Polling, SuspendBitStopsAndResumesBlockReads)
{
    Client c = itest::connect(server());
    const RegAddr r = rec(0, 4, 2, 3, 0, 1);
    c.register_areas(std::span(&r, 1));
    ASSERT_TRUE(itest::wait_reads(ctl(), kBus, 4, sim_control_call_count(ctl()), 5));

    itest::Segment seg(server().shmid(), true);
    struct Resume {
        itest::Segment& seg;
        ~Resume() { seg.set_bit(kSuspendBit, false); }
    } resume{seg};
    seg.set_bit(kSuspendBit, true);

    // The read under way when the bit was set may still finish; then nothing.
    uint64_t last = UINT64_MAX; // the first sample only primes the comparison
    ASSERT_TRUE(rig::eventually([&] {
        const uint64_t now = sim_control_call_count(ctl());
        const bool still = now == last;
        last = now;
        return still;
    }, 5s));
    std::this_thread::sleep_for(200ms); // a window in which polling would log hundreds of reads
    EXPECT_EQ(sim_control_call_count(ctl()), last);

    seg.set_bit(kSuspendBit, false);
    EXPECT_TRUE(itest::wait_reads(ctl(), kBus, 4, last, 5));
}

} // namespace
