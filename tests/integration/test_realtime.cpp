// Realtime requests end to end through the client library: reads, writes and
// read-modify-writes are queued, served by the port thread through the
// simulated plug-in and collected with their check commands; a write also
// refreshes the caches it overlaps. A second server with a one-second sweep
// shows the sweeper retiring a range nobody reads while a read range stays.
#include <gtest/gtest.h>

#include "itest_util.h"

using namespace std::chrono_literals;
using comclient::Client;
using comclient::RegAddr;
using comclient::Reply;
using comclient::ReplyKind;
using comclient::RwOper;
using itest::Bytes;
using itest::rec;

namespace {

constexpr uint32_t kBus = 0;
constexpr uint8_t kKind = 3;           // PLC register kind used throughout
constexpr uint32_t kSuspendBit = 9923; // suspends block polling
constexpr uint8_t kLocalWords = 255;   // local word area (reg_type 2)

rig::Config one_port()
{
    rig::PortSpec p;
    p.plc_driver_no = 5;
    p.drv_param1 = kBus;
    rig::Config cfg;
    cfg.ports = {p};
    return cfg;
}

// A status packet [command][0][err][sum].
::testing::AssertionResult is_status(const Reply& r, uint8_t command, uint8_t err)
{
    if (r.kind == ReplyKind::status && r.command == command && !r.ok && r.err == err) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "expected status " << int(command) << "/" << int(err) << ", got "
                                         << ::testing::PrintToString(r.packet);
}

// A success packet [command][1][0][sum].
::testing::AssertionResult is_success(const Reply& r, uint8_t command)
{
    if (r.kind == ReplyKind::status && r.command == command && r.ok && r.err == 0) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "expected success of " << int(command) << ", got "
                                         << ::testing::PrintToString(r.packet);
}

// Repeats check() while it answers "pending"; returns the first other reply.
template <typename Check>
Reply until_done(Check check, std::chrono::milliseconds deadline = 10s)
{
    Reply last;
    rig::eventually([&] {
        last = check();
        return !last.pending();
    }, deadline);
    return last;
}

// Driver calls (reads and writes) of one station from seq `from` on, oldest first.
std::vector<SimCall> calls_of(SimControl& ctl, uint16_t station, uint64_t from)
{
    std::vector<SimCall> out;
    for (const SimCall& c : sim_control_calls(ctl, from)) {
        if (c.bus == kBus && c.plc_id == station && (c.entry == SIM_CALL_READ || c.entry == SIM_CALL_WRITE)) {
            out.push_back(c);
        }
    }
    return out;
}

class RealtimeRig {
public:
    RealtimeRig() : sim_(one_port()) { sim_.server->start(); }

    rig::Server& server() { return *sim_.server; }
    SimControl& ctl() { return *sim_.ctl; }
    Client client() { return itest::connect(server()); }
    size_t mark() { return server().output().size(); }

private:
    itest::SimServer sim_;
};

void realtime_read_of_a_slow_station(RealtimeRig& t)
{
    constexpr uint16_t station = 1;
    sim_control_set_value(t.ctl(), kBus, station, kKind, 2, 40, 0x1234);
    sim_control_set_value(t.ctl(), kBus, station, kKind, 2, 41, 0x5678);
    ASSERT_TRUE(sim_control_set_station(t.ctl(), kBus, station, SIM_OK, 300));
    Client c = t.client();
    const RegAddr r = rec(0, station, 2, kKind, 40, 2);

    EXPECT_TRUE(is_status(c.realtime_read(r), 4, 1)) << "realtime_read_err_01: queued";
    EXPECT_TRUE(is_status(c.realtime_readcheck(r), 6, 1)) << "realtime_readcheck_err_01 while the station answers";

    const Reply data = until_done([&] { return c.realtime_readcheck(r); });
    ASSERT_EQ(data.kind, ReplyKind::data) << ::testing::PrintToString(data.packet);
    EXPECT_EQ(data.command, 6);
    EXPECT_EQ(data.data, itest::le16s({0x1234, 0x5678}));

    // Collecting the result deleted the request.
    const size_t mark = t.mark();
    EXPECT_TRUE(is_status(c.realtime_readcheck(r), 6, 3));
    EXPECT_TRUE(t.server().wait_for("REAL_WRITE Don't find the realtime_req 0x6\r", 5s, mark));
    sim_control_set_station(t.ctl(), kBus, station, SIM_OK, 0);
}

void write_refreshes_overlapping_cache(RealtimeRig& t)
{
    constexpr uint16_t station = 2;
    for (int i = 0; i < 4; ++i) {
        sim_control_set_value(t.ctl(), kBus, station, kKind, 2, i, 0x100u + i);
    }
    Client c = t.client();
    const RegAddr cached = rec(0, station, 2, kKind, 0, 4);
    c.register_areas(std::span(&cached, 1));
    ASSERT_EQ(itest::read_until_data(c, cached).data, itest::le16s({0x100, 0x101, 0x102, 0x103}));

    // Suspend block polling and wait until the reads have stopped.
    itest::Segment seg(t.server().shmid(), true);
    struct Resume {
        itest::Segment& seg;
        ~Resume() { seg.set_bit(kSuspendBit, false); }
    } resume{seg};
    seg.set_bit(kSuspendBit, true);
    uint64_t quiet = UINT64_MAX;
    ASSERT_TRUE(rig::eventually([&] {
        const uint64_t now = sim_control_call_count(t.ctl());
        const bool still = now == quiet;
        quiet = now;
        return still;
    }, 5s));

    // The station changes a word outside the write: only a poll could show it.
    sim_control_set_value(t.ctl(), kBus, station, kKind, 2, 3, 0x0bad);
    ASSERT_TRUE(sim_control_set_station(t.ctl(), kBus, station, SIM_OK, 300));

    const RegAddr w = rec(0, station, 2, kKind, 1, 2);
    size_t mark = t.mark();
    EXPECT_TRUE(is_status(c.write(w, itest::le16s({0xaaaa, 0xbbbb})), 5, 1)) << "write_err_01: queued";
    EXPECT_TRUE(is_status(c.writecheck(w), 7, 1)) << "writecheck_err_01 while the station answers";
    EXPECT_TRUE(t.server().wait_for(" 0x7:status=0\r\n", 5s, mark));

    mark = t.mark();
    EXPECT_TRUE(is_success(until_done([&] { return c.writecheck(w); }), 7)) << "writecheck_success";
    EXPECT_TRUE(t.server().wait_for(" 0x7:status=1\r\n", 5s, mark));
    EXPECT_EQ(sim_control_get_value(t.ctl(), kBus, station, kKind, 2, 1), 0xaaaau);
    EXPECT_EQ(sim_control_get_value(t.ctl(), kBus, station, kKind, 2, 2), 0xbbbbu);

    // The cache of the overlapping range holds the written words, and still
    // the old word 3: no block was read since polling was suspended.
    const Reply after = c.com_read(cached);
    ASSERT_EQ(after.kind, ReplyKind::data) << ::testing::PrintToString(after.packet);
    EXPECT_EQ(after.data, itest::le16s({0x100, 0xaaaa, 0xbbbb, 0x103}));
    EXPECT_TRUE(itest::reads_of(t.ctl(), kBus, station, quiet).empty());

    mark = t.mark();
    EXPECT_TRUE(is_status(c.writecheck(w), 7, 3));
    EXPECT_TRUE(t.server().wait_for("REAL_WRITE Don't find the realtime_req 0x7\r", 5s, mark));
    sim_control_set_station(t.ctl(), kBus, station, SIM_OK, 0);
    // An idle port keeps the call log short for the sections that follow.
    c.unregister_areas(std::span(&cached, 1));
}

void read_modify_writes(RealtimeRig& t)
{
    Client c = t.client();
    {
        SCOPED_TRACE("ping-pong on a local word, answered at once");
        itest::Segment seg(t.server().shmid(), true);
        const RegAddr local = rec(0, 0, 2, kLocalWords, 300, 1);
        RwOper up;
        up.op = 4;
        up.step = 10;
        up.high = 100;
        up.low = 0;
        up.direction = 1;
        seg.set_word(300, 95);
        const Reply top = c.realtime_rw(local, up);
        // [9][1][direction 0: turned at the upper limit][sum]
        EXPECT_EQ(top.packet, (Bytes{1, 0, 0, 0, 0, 0, 0, 0, 4, 0, 9, 1, 0, 10}));
        EXPECT_EQ(seg.word(300), 100);

        RwOper down = up;
        down.direction = 0;
        seg.set_word(300, 5);
        const Reply bottom = c.realtime_rw(local, down);
        EXPECT_EQ(bottom.kind, ReplyKind::result);
        EXPECT_EQ(bottom.command, 9);
        EXPECT_EQ(bottom.result, 1) << "turned at the lower limit";
        EXPECT_EQ(seg.word(300), 0);
    }
    {
        SCOPED_TRACE("increment of a PLC word through the port thread");
        constexpr uint16_t station = 3;
        sim_control_set_value(t.ctl(), kBus, station, kKind, 2, 7, 40);
        const RegAddr r = rec(0, station, 2, kKind, 7, 1);
        RwOper inc;
        inc.op = 2;
        inc.step = 5;
        inc.high = 1000;
        inc.direction = 1;
        EXPECT_TRUE(is_status(c.realtime_rw(r, inc), 9, 1)) << "realtime_rw_err_01: queued";

        // The step is part of the request's identity.
        RwOper other = inc;
        other.step = 6;
        size_t mark = t.mark();
        EXPECT_TRUE(is_status(c.realtime_rw_check(r, other), 10, 3));
        EXPECT_TRUE(t.server().wait_for("REAL_WRITE Don't find the realtime_req 0xa\r", 5s, mark));

        const Reply done = until_done([&] { return c.realtime_rw_check(r, inc); });
        ASSERT_EQ(done.kind, ReplyKind::result) << ::testing::PrintToString(done.packet);
        EXPECT_EQ(done.command, 10);
        EXPECT_EQ(done.result, 2) << "an increment sets direction 2";
        EXPECT_EQ(sim_control_get_value(t.ctl(), kBus, station, kKind, 2, 7), 45u);

        mark = t.mark();
        EXPECT_TRUE(is_status(c.realtime_rw_check(r, inc), 10, 3)) << "collected once";
        EXPECT_TRUE(t.server().wait_for("REAL_WRITE Don't find the realtime_req 0xa\r", 5s, mark));
    }
}

void realtime_read_of_a_silent_station(RealtimeRig& t)
{
    constexpr uint16_t station = 5;
    ASSERT_TRUE(sim_control_set_station(t.ctl(), kBus, station, SIM_TIMEOUT, 0));
    Client c = t.client();
    const RegAddr r = rec(0, station, 2, kKind, 0, 1);
    const uint64_t from = sim_control_call_count(t.ctl());

    EXPECT_TRUE(is_status(c.realtime_read(r), 4, 1));
    EXPECT_TRUE(is_status(until_done([&] { return c.realtime_readcheck(r); }), 6, 2))
        << "realtime_readcheck_err_02";
    const std::vector<SimCall> tries = calls_of(t.ctl(), station, from);
    ASSERT_EQ(tries.size(), 3u);
    for (const SimCall& call : tries) {
        EXPECT_EQ(call.entry, SIM_CALL_READ);
        EXPECT_EQ(call.result, SIM_TIMEOUT);
    }
}

void four_requests_for_one_port(RealtimeRig& t)
{
    constexpr uint16_t station = 6;
    // A slow station lets the requests pile up behind the first one.
    ASSERT_TRUE(sim_control_set_station(t.ctl(), kBus, station, SIM_OK, 100));
    sim_control_set_value(t.ctl(), kBus, station, kKind, 2, 0, 0x600);
    sim_control_set_value(t.ctl(), kBus, station, kKind, 2, 10, 0x610);
    sim_control_set_value(t.ctl(), kBus, station, kKind, 2, 30, 30);
    Client c = t.client();
    const RegAddr read_a = rec(0, station, 2, kKind, 0, 1);
    const RegAddr read_b = rec(0, station, 2, kKind, 10, 1);
    const RegAddr write = rec(0, station, 2, kKind, 20, 1);
    const RegAddr counter = rec(0, station, 2, kKind, 30, 1);
    RwOper add;
    add.op = 8;
    add.step = 3;
    add.high = 100;
    add.direction = 1;
    const uint64_t from = sim_control_call_count(t.ctl());

    EXPECT_TRUE(is_status(c.realtime_read(read_a), 4, 1));
    EXPECT_TRUE(is_status(c.realtime_read(read_b), 4, 1));
    EXPECT_TRUE(is_status(c.write(write, itest::le16s({0x620})), 5, 1));
    EXPECT_TRUE(is_status(c.realtime_rw(counter, add), 9, 1));

    EXPECT_EQ(until_done([&] { return c.realtime_readcheck(read_a); }).data, itest::le16s({0x600}));
    EXPECT_EQ(until_done([&] { return c.realtime_readcheck(read_b); }).data, itest::le16s({0x610}));
    EXPECT_TRUE(is_success(until_done([&] { return c.writecheck(write); }), 7));
    const Reply rw = until_done([&] { return c.realtime_rw_check(counter, add); });
    EXPECT_EQ(rw.kind, ReplyKind::result) << ::testing::PrintToString(rw.packet);
    EXPECT_EQ(rw.result, 1) << "operation 8 leaves the direction alone";
    EXPECT_EQ(sim_control_get_value(t.ctl(), kBus, station, kKind, 2, 20), 0x620u);
    EXPECT_EQ(sim_control_get_value(t.ctl(), kBus, station, kKind, 2, 30), 33u);

    // Served oldest first: read, read, write, then the read and write of the counter.
    std::vector<std::pair<uint32_t, int32_t>> order;
    for (const SimCall& call : calls_of(t.ctl(), station, from)) {
        order.emplace_back(call.entry, call.start);
    }
    const std::vector<std::pair<uint32_t, int32_t>> expected = {
        {SIM_CALL_READ, 0}, {SIM_CALL_READ, 10}, {SIM_CALL_WRITE, 20}, {SIM_CALL_READ, 30}, {SIM_CALL_WRITE, 30}};
    EXPECT_EQ(order, expected);
    sim_control_set_station(t.ctl(), kBus, station, SIM_OK, 0);
}

TEST(Realtime, RequestsAreQueuedServedAndCollected)
{
    RealtimeRig t;
    {
        SCOPED_TRACE("realtime read of a slow station");
        realtime_read_of_a_slow_station(t);
    }
    {
        SCOPED_TRACE("write, writecheck and the cache of an overlapping range");
        write_refreshes_overlapping_cache(t);
    }
    {
        SCOPED_TRACE("read-modify-writes");
        read_modify_writes(t);
    }
    {
        SCOPED_TRACE("realtime read of a station that does not answer");
        realtime_read_of_a_silent_station(t);
    }
    {
        SCOPED_TRACE("four requests queued for one port");
        four_requests_for_one_port(t);
    }
}

TEST(Realtime, SweeperRetiresRangesNobodyReads)
{
    rig::Config cfg = one_port();
    cfg.env["COMSERVER_SWEEP_SECONDS"] = "1";
    itest::SimServer sim(cfg);
    rig::Server& server = *sim.server;
    SimControl& ctl = *sim.ctl;
    server.start();
    Client c = itest::connect(server);

    constexpr uint16_t kForgotten = 1;
    constexpr uint16_t kRead = 2;
    constexpr uint16_t kCanary = 3;
    const RegAddr forgotten = rec(0, kForgotten, 2, kKind, 0, 4);
    const RegAddr read = rec(0, kRead, 2, kKind, 0, 2);
    const RegAddr canary = rec(0, kCanary, 2, kKind, 0, 1);
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
    ASSERT_TRUE(itest::wait_reads(ctl, kBus, kForgotten, 0, 1)) << "the registered range is polled";
    ASSERT_TRUE(rig::eventually(reading([&] { return server.count(kDeleted) >= 1; }), 15s)) << server.output();
    EXPECT_TRUE(seen_data);

    // The forgotten range's block goes with it: the port keeps reading the
    // other range and never the forgotten one again.
    uint64_t from = sim_control_call_count(ctl);
    ASSERT_TRUE(rig::eventually(reading([&] { return itest::reads_of(ctl, kBus, kRead, from).size() >= 10; })));
    from = sim_control_call_count(ctl);
    ASSERT_TRUE(rig::eventually(reading([&] { return itest::reads_of(ctl, kBus, kRead, from).size() >= 30; })));
    EXPECT_TRUE(itest::reads_of(ctl, kBus, kForgotten, from).empty());

    // A further unread range takes at least three sweeps to go; all the
    // while the range read every half second stays.
    c.register_areas(std::span(&canary, 1));
    ASSERT_TRUE(rig::eventually(reading([&] { return server.count(kDeleted) >= 2; }), 15s)) << server.output();
    EXPECT_EQ(server.count(kDeleted), 2u);
    EXPECT_EQ(lost, 0);
    EXPECT_EQ(c.com_read(read).kind, ReplyKind::data);
}

} // namespace
