// Client packet protocol and range registration, end to end: the bytes on
// the wire, request framing, malformed requests, and what registration makes
// the port threads poll (seen in the simulated plug-in's call log).
#include <array>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <thread>

#include "itest_util.h"

using namespace std::chrono_literals;
using comclient::Client;
using comclient::Command;
using comclient::RegAddr;
using comclient::ReplyKind;
using itest::Bytes;
using itest::rec;

namespace {

// Port i polls simulated bus i: port 0 with driver 5, port 1 with Modbus driver 50.
constexpr uint8_t kHeartbeat = 9; // station kept polled on both ports
constexpr uint32_t kKeepOnUnregisterBit = 9261; // table flag 13

Bytes concat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes slice(const Bytes& b, size_t from, size_t to) { return Bytes(b.begin() + from, b.begin() + to); }

// A local word read: answered at once, without the port threads.
RegAddr local_words(int32_t start, int16_t count) { return rec(0, 0, 2, 249, start, count); }

class Protocol : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        sim_ = std::make_unique<itest::SimServer>(
            rig::Config{.ports = {{.plc_driver_no = 5, .drv_param1 = 0}, {.plc_driver_no = 50, .drv_param1 = 1}}});
        sim_->server->start();
        // One range per port keeps both port threads polling, so that "a
        // rebuild pass has run since" can be waited for as further reads.
        const RegAddr beats[] = {rec(0, kHeartbeat, 2, 3, 0, 1), rec(1, kHeartbeat, 2, 3, 100, 1)};
        itest::connect(server()).register_areas(beats);
    }
    static void TearDownTestSuite() { sim_.reset(); }

    static rig::Server& server() { return *sim_->server; }
    static SimControl& ctl() { return *sim_->ctl; }

    // Waits until the port's heartbeat station was read 30 more times.
    static bool port_cycled(uint32_t bus)
    {
        return itest::wait_reads(ctl(), bus, kHeartbeat, sim_control_call_count(ctl()), 30);
    }

    // Registers recs, checks that every read of their station asks for
    // {reg_id, reg_type, start, count}, then unregisters recs[0] once and
    // checks that the polling stops.
    static void polled_until_unregistered(std::span<const RegAddr> recs, std::array<int, 4> want)
    {
        Client c = itest::connect(server());
        const RegAddr& r = recs[0];
        const uint64_t from = sim_control_call_count(ctl());
        EXPECT_EQ(c.register_areas(recs).command, 1);
        ASSERT_TRUE(itest::wait_reads(ctl(), r.port, r.station, from, 20));
        for (const SimCall& call : itest::reads_of(ctl(), r.port, r.station, from))
            EXPECT_EQ((std::array<int, 4>{call.reg_id, call.reg_type, call.start, call.count}), want);

        EXPECT_EQ(c.unregister_areas(std::span(&r, 1)).command, 2);
        const uint64_t after = sim_control_call_count(ctl());
        ASSERT_TRUE(port_cycled(r.port));
        // At most the read already under way when the request arrived.
        EXPECT_LE(itest::reads_of(ctl(), r.port, r.station, after).size(), 1u);
    }

    static std::unique_ptr<itest::SimServer> sim_;
};

std::unique_ptr<itest::SimServer> Protocol::sim_;

TEST_F(Protocol, RegistrationDecidesWhatIsPolled)
{
    {
        // Had the request made two ranges, the second would still be polled.
        SCOPED_TRACE("same record twice");
        const RegAddr twice[] = {rec(0, 11, 2, 3, 40, 3), rec(0, 11, 2, 3, 40, 3)};
        polled_until_unregistered(twice, {3, 2, 40, 3});
    }
    {
        // Bits 5..20 of kind 3 poll words 0..1; the client's own record removes them.
        SCOPED_TRACE("Modbus bit view");
        const RegAddr bits = rec(1, 12, 0, 5, 5, 16);
        polled_until_unregistered(std::span(&bits, 1), {3, 2, 0, 2});
    }
    {
        SCOPED_TRACE("count beyond the packet");
        itest::Segment seg(server().shmid(), true);
        seg.set_word(320, 0x0a0b);
        Client c = itest::connect(server());
        // Claims two records but carries one. Right behind it in the same send
        // comes a com_read whose bytes, read as a second record, would name
        // port 1, station 0, a bit range of 8 at 0x03001200.
        const auto first = rec(0, 13, 2, 3, 0, 1).encode();
        Bytes fields{2};
        fields.insert(fields.end(), first.begin(), first.end());
        RegAddr local = local_words(320, 1);
        local.tag = 8;
        const uint64_t from = sim_control_call_count(ctl());
        c.send_raw(concat({comclient::make_packet(1, fields), comclient::encode_record(Command::com_read, local)}));
        EXPECT_EQ(c.receive_reply().command, 1);
        EXPECT_EQ(c.receive_reply().data, itest::le16s({0x0a0b}));

        EXPECT_TRUE(itest::wait_reads(ctl(), 0, 13, from, 5)); // the whole record is registered
        ASSERT_TRUE(port_cycled(1));
        EXPECT_TRUE(itest::reads_of(ctl(), 1, 0, from).empty()); // the phantom is not
    }
}

TEST_F(Protocol, FramingOfSplitCoalescedAndUnknownRequests)
{
    itest::Segment seg(server().shmid(), true);
    seg.set_word(310, 0x1234);
    seg.set_word(311, 0x5678);
    Client c = itest::connect(server());
    int one = 1;
    ::setsockopt(c.fd(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);

    // Commands 0 and 11, a com_read with 10 of its 16 record bytes and a
    // realtime_rw without its operation block get no reply: the next bytes
    // are the 14-byte com_read_err_01 for the first read of an unknown PLC range.
    const Bytes read = comclient::encode_record(Command::com_read, local_words(310, 2));
    Bytes zero = read;
    zero[10] = 0;
    zero.back() = comclient::check_sum(std::span(zero).subspan(10, zero.size() - 11));
    const auto record = local_words(310, 2).encode();
    c.send_raw(concat({zero, comclient::make_packet(11, Bytes{}), comclient::make_packet(3, Bytes(10, 0)),
                       comclient::make_packet(9, Bytes(record.begin(), record.end())),
                       comclient::encode_record(Command::com_read, rec(0, 10, 2, 3, 0, 2))}));
    EXPECT_EQ(c.receive_reply().packet, (Bytes{1, 0, 0, 0, 0, 0, 0, 0, 4, 0, 3, 0, 1, 4}));

    // Three requests in one send: three replies, in request order, byte-exact.
    const Bytes reg0 = comclient::make_packet(1, Bytes{0});
    c.send_raw(concat({reg0, read, comclient::make_packet(2, Bytes{0})}));
    const Bytes head{1, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(c.receive_reply().packet, concat({head, {3, 0, 1, 1, 2}}));
    EXPECT_EQ(c.receive_reply().packet, concat({head, {9, 0, 3, 1, 4, 0, 0x34, 0x12, 0x78, 0x56, 0x1c}}));
    EXPECT_EQ(c.receive_reply().packet, concat({head, {3, 0, 2, 1, 3}}));

    // Pieces: the first shorter than the header, one inside a packet, then
    // the end of one packet and the start of the next together.
    const Bytes both = concat({read, reg0});
    size_t from = 0;
    for (const size_t to : {size_t{5}, size_t{15}, read.size() + 4, both.size()}) {
        c.send_raw(slice(both, from, to));
        std::this_thread::sleep_for(50ms); // so that each piece arrives alone
        from = to;
    }
    EXPECT_EQ(c.receive_reply().data, itest::le16s({0x1234, 0x5678}));
    EXPECT_EQ(c.receive_reply().command, 1);
    EXPECT_EQ(c.recv_raw(64, 100ms).status, comclient::RawStatus::timeout); // nothing more
}

TEST_F(Protocol, FramingErrorsCloseOnlyTheirConnection)
{
    itest::Segment seg(server().shmid(), true);
    seg.set_word(330, 77);
    Client good = itest::connect(server());
    EXPECT_EQ(good.com_read(local_words(330, 1)).data, itest::le16s({77}));
    // A connection stuck in the middle of a packet while the others are dropped.
    Client stalled = itest::connect(server());
    const Bytes read = comclient::encode_record(Command::com_read, local_words(330, 1));
    stalled.send_raw(slice(read, 0, 12));

    // Each request closes its connection without a reply and prints the diagnostics.
    auto expect_dropped = [](const Bytes& request, const std::string& lines) {
        Client c = itest::connect(server());
        const size_t mark = server().output().size();
        c.send_raw(request);
        EXPECT_TRUE(itest::closed_without_reply(c));
        EXPECT_TRUE(server().wait_for("checksum error 1\r\n" + lines, 5s, mark)) << server().output().substr(mark);
    };
    Bytes bad = read;
    const uint8_t sum = bad.back()++;
    expect_dropped(bad, "package_len = 18\r\nResult = " + std::to_string(sum) + "\r\nExpected = " +
                            std::to_string(bad.back()) + "\r\n");
    // package_len 1: the only body byte is the checksum of nothing, 0.
    expect_dropped({1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0}, "package_len = 1\r\nResult = 0\r\nExpected = 0\r\n");
    // package_len 5000 cannot fit the 4096-byte packet buffer.
    expect_dropped({1, 0, 0, 0, 0, 0, 0, 0, 0x88, 0x13, 3, 0, 0}, "package_len = 5000\r\n");

    seg.set_word(330, 78);
    EXPECT_EQ(good.com_read(local_words(330, 1)).data, itest::le16s({78}));
    // The stalled one is still served once its packet is complete.
    stalled.send_raw(slice(read, 12, read.size()));
    EXPECT_EQ(stalled.receive_reply().data, itest::le16s({78}));
}

// With the keep flag set, unregister answers as usual but removes nothing:
// the range stays polled and cached.
TEST_F(Protocol, KeepFlagLeavesUnregisteredRangesInPlace)
{
    itest::Segment seg(server().shmid(), true);
    sim_control_set_value(ctl(), 0, 15, 3, 2, 7, 4321);
    Client c = itest::connect(server());
    const RegAddr r = rec(0, 15, 2, 3, 7, 1);
    c.register_areas(std::span(&r, 1));
    ASSERT_EQ(itest::read_until_data(c, r).data, itest::le16s({4321}));
    seg.set_bit(kKeepOnUnregisterBit, true);
    EXPECT_EQ(c.unregister_areas(std::span(&r, 1)).kind, ReplyKind::ack);
    seg.set_bit(kKeepOnUnregisterBit, false);
    // A removed range would be registered afresh by this read and answer err 1.
    EXPECT_EQ(c.com_read(r).kind, ReplyKind::data);
    sim_control_set_value(ctl(), 0, 15, 3, 2, 7, 4322);
    EXPECT_TRUE(rig::eventually([&] { return c.com_read(r).data == itest::le16s({4322}); }));
}

} // namespace
