// Client packet protocol and range registration, end to end: the bytes on
// the wire, request framing, malformed requests, and what registration makes
// the port threads poll (seen in the simulated plug-in's call log).
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
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

constexpr uint32_t kBus0 = 0;   // port 0, driver 5
constexpr uint32_t kBus1 = 1;   // port 1, Modbus driver 50
constexpr uint8_t kHeartbeat = 9; // station kept polled on both ports

rig::PortSpec port(int driver, uint32_t bus)
{
    rig::PortSpec p;
    p.plc_driver_no = driver;
    p.drv_param1 = bus;
    return p;
}

Bytes concat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

Bytes slice(const Bytes& b, size_t from, size_t to) { return Bytes(b.begin() + from, b.begin() + to); }

// A local word read: answered at once, without the port threads.
RegAddr local_words(int32_t start, int16_t count) { return rec(0, 0, 2, 249, start, count); }

class Protocol : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        rig::Config cfg;
        cfg.ports = {port(5, kBus0), port(50, kBus1)};
        sim_ = std::make_unique<itest::SimServer>(cfg);
        sim_->server->start();
        // One range per port keeps both port threads polling, so that "a
        // rebuild pass has run since" can be waited for as further reads.
        Client c = itest::connect(server());
        const RegAddr beats[] = {rec(0, kHeartbeat, 2, 3, 0, 1), rec(1, kHeartbeat, 2, 3, 100, 1)};
        c.register_areas(beats);
    }
    static void TearDownTestSuite() { sim_.reset(); }

    static rig::Server& server() { return *sim_->server; }
    static SimControl& ctl() { return *sim_->ctl; }

    // Waits until the port's heartbeat station was read n more times from seq `from` on.
    static bool port_cycled(uint32_t bus, uint64_t from, size_t n = 30)
    {
        return itest::wait_reads(ctl(), bus, kHeartbeat, from, n);
    }

    static std::unique_ptr<itest::SimServer> sim_;
};

std::unique_ptr<itest::SimServer> Protocol::sim_;

TEST_F(Protocol, StatusAcknowledgementAndDataRepliesOnTheWire)
{
    Client c = itest::connect(server());
    const RegAddr r = rec(0, 10, 2, 3, 0, 2);
    sim_control_set_value(ctl(), kBus0, 10, 3, 2, 0, 0x2211);
    sim_control_set_value(ctl(), kBus0, 10, 3, 2, 1, 0x4433);

    // First read of an unknown range: com_read_err_01, exactly 14 bytes.
    c.send_raw(comclient::encode_record(Command::com_read, r));
    EXPECT_EQ(itest::recv_exact(c, 14), (Bytes{1, 0, 0, 0, 0, 0, 0, 0, 4, 0, 3, 0, 1, 4}));

    // Once polled, the same request answers the cached bytes (19 bytes, sum 0xb2).
    const Bytes data_reply{1, 0, 0, 0, 0, 0, 0, 0, 9, 0, 3, 1, 4, 0, 0x11, 0x22, 0x33, 0x44, 0xb2};
    Bytes got;
    ASSERT_TRUE(rig::eventually([&] {
        c.send_raw(comclient::encode_record(Command::com_read, r));
        got = itest::recv_exact(c, 10);
        if (got.size() == 10) {
            const Bytes body = itest::recv_exact(c, got[8] | got[9] << 8);
            got.insert(got.end(), body.begin(), body.end());
        }
        return got == data_reply;
    })) << ::testing::PrintToString(got);

    // register with n = 0 and unregister with n = 0: the 13-byte acknowledgements.
    c.send_raw(comclient::make_packet(1, Bytes{0}));
    EXPECT_EQ(itest::recv_exact(c, 13), (Bytes{1, 0, 0, 0, 0, 0, 0, 0, 3, 0, 1, 1, 2}));
    c.send_raw(comclient::make_packet(2, Bytes{0}));
    EXPECT_EQ(itest::recv_exact(c, 13), (Bytes{1, 0, 0, 0, 0, 0, 0, 0, 3, 0, 2, 1, 3}));
    EXPECT_EQ(c.recv_raw(64, 100ms).status, comclient::RawStatus::timeout); // nothing more
}

TEST_F(Protocol, RegistrationDecidesWhatIsPolled)
{
    {
        SCOPED_TRACE("same record twice");
        Client c = itest::connect(server());
        const RegAddr r = rec(0, 11, 2, 3, 40, 3);
        const RegAddr twice[] = {r, r};
        const uint64_t from = sim_control_call_count(ctl());
        EXPECT_EQ(c.register_areas(twice).command, 1);

        ASSERT_TRUE(itest::wait_reads(ctl(), kBus0, 11, from, 20));
        for (const SimCall& call : itest::reads_of(ctl(), kBus0, 11, from)) {
            EXPECT_EQ(call.reg_id, 3);
            EXPECT_EQ(call.reg_type, 2);
            EXPECT_EQ(call.start, 40);
            EXPECT_EQ(call.count, 3);
        }

        // One unregistration removes it: had the request made two ranges, the
        // second would still be polled.
        EXPECT_EQ(c.unregister_areas(std::span(&r, 1)).command, 2);
        const uint64_t after = sim_control_call_count(ctl());
        ASSERT_TRUE(port_cycled(kBus0, after));
        // At most the read already under way when the request arrived.
        EXPECT_LE(itest::reads_of(ctl(), kBus0, 11, after).size(), 1u);
    }
    {
        SCOPED_TRACE("Modbus bit view");
        Client c = itest::connect(server());
        const RegAddr bits = rec(1, 12, 0, 5, 5, 16); // bits 5..20 of kind 3
        const uint64_t from = sim_control_call_count(ctl());
        c.register_areas(std::span(&bits, 1));

        ASSERT_TRUE(itest::wait_reads(ctl(), kBus1, 12, from, 20));
        for (const SimCall& call : itest::reads_of(ctl(), kBus1, 12, from)) {
            EXPECT_EQ(call.reg_id, 3);
            EXPECT_EQ(call.reg_type, 2);
            EXPECT_EQ(call.start, 0);
            EXPECT_EQ(call.count, 2);
        }

        // The client's own record removes exactly that word range.
        c.unregister_areas(std::span(&bits, 1));
        const uint64_t after = sim_control_call_count(ctl());
        ASSERT_TRUE(port_cycled(kBus1, after));
        EXPECT_LE(itest::reads_of(ctl(), kBus1, 12, after).size(), 1u);
    }
    {
        SCOPED_TRACE("count beyond the packet");
        itest::Segment seg(server().shmid(), true);
        seg.set_word(320, 0x0a0b);
        Client c = itest::connect(server());
        // Claims two records but carries one. Right behind it in the same send
        // comes a com_read whose bytes, read as a second record, would name
        // port 1, station 0, a bit range of 8 at 0x03001200.
        const RegAddr first = rec(0, 13, 2, 3, 0, 1);
        const auto bytes = first.encode();
        Bytes fields{2};
        fields.insert(fields.end(), bytes.begin(), bytes.end());
        const Bytes reg = comclient::make_packet(1, fields);
        RegAddr local = local_words(320, 1);
        local.tag = 8;
        const Bytes read = comclient::encode_record(Command::com_read, local);
        const uint64_t from = sim_control_call_count(ctl());
        c.send_raw(concat({reg, read}));

        EXPECT_EQ(c.receive_reply().command, 1);
        const comclient::Reply r = c.receive_reply();
        EXPECT_EQ(r.command, 3);
        EXPECT_EQ(r.data, itest::le16s({0x0a0b}));

        EXPECT_TRUE(itest::wait_reads(ctl(), kBus0, 13, from, 5)); // the whole record is registered
        ASSERT_TRUE(port_cycled(kBus1, sim_control_call_count(ctl())));
        EXPECT_TRUE(itest::reads_of(ctl(), kBus1, 0, from).empty()); // the phantom is not
    }
}

TEST_F(Protocol, FramingOfSplitCoalescedAndUnknownRequests)
{
    {
        SCOPED_TRACE("unknown commands");
        itest::Segment seg(server().shmid(), true);
        seg.set_word(300, 0xbeef);
        Client c = itest::connect(server());
        Bytes zero = comclient::encode_record(Command::com_read, local_words(300, 1));
        zero[10] = 0;
        zero.back() = comclient::check_sum(std::span(zero).subspan(10, zero.size() - 11));
        c.send_raw(zero);
        c.send_raw(comclient::make_packet(11, Bytes{}));
        // Had either been answered, its reply would come before this one.
        const comclient::Reply r = c.com_read(local_words(300, 1));
        EXPECT_EQ(r.kind, ReplyKind::data);
        EXPECT_EQ(r.command, 3);
        EXPECT_EQ(r.data, itest::le16s({0xbeef}));
    }
    {
        SCOPED_TRACE("split and coalesced");
        itest::Segment seg(server().shmid(), true);
        seg.set_word(310, 0x1234);
        seg.set_word(311, 0x5678);
        Client c = itest::connect(server());
        int one = 1;
        ::setsockopt(c.fd(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);

        // One request in three pieces, the first one shorter than the header.
        const Bytes read = comclient::encode_record(Command::com_read, local_words(310, 2));
        c.send_raw(slice(read, 0, 5));
        std::this_thread::sleep_for(50ms);
        c.send_raw(slice(read, 5, 15));
        std::this_thread::sleep_for(50ms);
        c.send_raw(slice(read, 15, read.size()));
        comclient::Reply r = c.receive_reply();
        EXPECT_EQ(r.command, 3);
        EXPECT_EQ(r.data, itest::le16s({0x1234, 0x5678}));

        // Three requests in one send: three replies, in request order.
        const Bytes reg0 = comclient::make_packet(1, Bytes{0});
        const Bytes unreg0 = comclient::make_packet(2, Bytes{0});
        c.send_raw(concat({reg0, read, unreg0}));
        EXPECT_EQ(c.receive_reply().command, 1);
        r = c.receive_reply();
        EXPECT_EQ(r.command, 3);
        EXPECT_EQ(r.data, itest::le16s({0x1234, 0x5678}));
        EXPECT_EQ(c.receive_reply().command, 2);

        // Piece boundaries inside packets: the end of one and the start of the next together.
        const Bytes both = concat({read, reg0});
        c.send_raw(slice(both, 0, 20));
        std::this_thread::sleep_for(50ms);
        c.send_raw(slice(both, 20, read.size() + 4));
        std::this_thread::sleep_for(50ms);
        c.send_raw(slice(both, read.size() + 4, both.size()));
        EXPECT_EQ(c.receive_reply().command, 3);
        EXPECT_EQ(c.receive_reply().command, 1);
        EXPECT_EQ(c.recv_raw(64, 100ms).status, comclient::RawStatus::timeout);
    }
}

TEST_F(Protocol, FramingErrorsCloseOnlyTheirConnection)
{
    {
        SCOPED_TRACE("bad checksum");
        Client c = itest::connect(server());
        Bytes p = comclient::encode_record(Command::com_read, local_words(0, 1));
        const uint8_t sum = p.back();
        p.back() = static_cast<uint8_t>(sum + 1);
        const size_t mark = server().output().size();
        c.send_raw(p);
        EXPECT_TRUE(itest::closed_without_reply(c));
        const std::string lines = "checksum error 1\r\npackage_len = 18\r\nResult = " + std::to_string(sum) +
                                  "\r\nExpected = " + std::to_string(static_cast<uint8_t>(sum + 1)) + "\r\n";
        EXPECT_TRUE(server().wait_for(lines, 5s, mark)) << server().output().substr(mark);
    }
    {
        SCOPED_TRACE("impossible lengths");
        {
            // package_len 1: the only body byte is the checksum of nothing, 0.
            Client c = itest::connect(server());
            const size_t mark = server().output().size();
            c.send_raw(Bytes{1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0});
            EXPECT_TRUE(itest::closed_without_reply(c));
            EXPECT_TRUE(server().wait_for("checksum error 1\r\npackage_len = 1\r\nResult = 0\r\nExpected = 0\r\n", 5s, mark))
                << server().output().substr(mark);
        }
        {
            // package_len 5000 cannot fit the 4096-byte packet buffer.
            Client c = itest::connect(server());
            const size_t mark = server().output().size();
            c.send_raw(Bytes{1, 0, 0, 0, 0, 0, 0, 0, 0x88, 0x13, 3, 0, 0});
            EXPECT_TRUE(itest::closed_without_reply(c));
            EXPECT_TRUE(server().wait_for("checksum error 1\r\npackage_len = 5000\r\n", 5s, mark))
                << server().output().substr(mark);
        }
    }
    {
        SCOPED_TRACE("other connections");
        itest::Segment seg(server().shmid(), true);
        seg.set_word(330, 77);
        Client good = itest::connect(server());
        EXPECT_EQ(good.com_read(local_words(330, 1)).data, itest::le16s({77}));

        // A connection stuck in the middle of a packet...
        Client stalled = itest::connect(server());
        const Bytes read = comclient::encode_record(Command::com_read, local_words(330, 1));
        stalled.send_raw(slice(read, 0, 12));
        // ...and one that sends garbage and is dropped.
        Client bad = itest::connect(server());
        bad.send_raw(Bytes(40, 0xff));
        EXPECT_TRUE(itest::closed_without_reply(bad));

        seg.set_word(330, 78);
        EXPECT_EQ(good.com_read(local_words(330, 1)).data, itest::le16s({78}));
        const RegAddr plc = rec(0, 14, 2, 3, 0, 1);
        EXPECT_TRUE(good.com_read(plc).pending());
        EXPECT_EQ(itest::read_until_data(good, plc).kind, ReplyKind::data);

        // The stalled one is still served once its packet is complete.
        stalled.send_raw(slice(read, 12, read.size()));
        EXPECT_EQ(stalled.receive_reply().data, itest::le16s({78}));
    }
}

// With table flag 13 (local bit 9261) set, unregister answers as usual but
// removes nothing: the range stays polled and cached.
TEST(ProtocolKeepFlag, UnregisterLeavesRangesInPlace)
{
    rig::Config cfg;
    cfg.ports = {port(5, kBus0)};
    cfg.initial_bits = {9261};
    itest::SimServer sim(cfg);
    sim.server->start();
    sim_control_set_value(*sim.ctl, kBus0, 1, 3, 2, 7, 4321);

    Client c = itest::connect(*sim.server);
    const RegAddr r = rec(0, 1, 2, 3, 7, 1);
    c.register_areas(std::span(&r, 1));
    ASSERT_EQ(itest::read_until_data(c, r).data, itest::le16s({4321}));

    const comclient::Reply u = c.unregister_areas(std::span(&r, 1));
    EXPECT_EQ(u.kind, ReplyKind::ack);
    EXPECT_EQ(u.command, 2);
    // A removed range would be registered afresh by this read and answer err 1.
    EXPECT_EQ(c.com_read(r).kind, ReplyKind::data);
    const uint64_t after = sim_control_call_count(*sim.ctl);
    EXPECT_TRUE(itest::wait_reads(*sim.ctl, kBus0, 1, after, 20));
    sim_control_set_value(*sim.ctl, kBus0, 1, 3, 2, 7, 4322);
    const bool refreshed = rig::eventually([&] { return c.com_read(r).data == itest::le16s({4322}); });
    EXPECT_TRUE(refreshed);
}

} // namespace
