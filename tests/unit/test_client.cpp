// Client library: request bytes, reply parsing, and the framed exchange
// against an in-process fake server on a socket pair.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "comclient.h"
#include "comclient_c.h"

namespace {

using namespace comclient;
using Bytes = std::vector<uint8_t>;
using std::chrono::milliseconds;

Bytes header(uint16_t len)
{
    return {0x01, 0, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(len & 0xff), static_cast<uint8_t>(len >> 8)};
}

RegAddr sample()
{
    RegAddr r;
    r.tag = 0x11;
    r.port = 2;
    r.station = 7;
    r.addr_unit = 1;
    r.type = 4;
    r.kind = 0x83;
    r.byte_offset = 0x0201;
    r.start = -2;
    r.count = 0x0304;
    r.bcd = 1;
    r.reserved = 0x99;
    return r;
}

const Bytes kSampleBytes{0x11, 2, 7, 1, 4, 0x83, 0x01, 0x02, 0xfe, 0xff, 0xff, 0xff, 0x04, 0x03, 1, 0x99};

TEST(ClientEncode, RecordAndRequestBytes)
{
    RegAddr r = sample();
    auto enc = r.encode();
    EXPECT_EQ(Bytes(enc.begin(), enc.end()), kSampleBytes);
    EXPECT_EQ(RegAddr::decode(enc.data()), r);

    // com_read: package_len 18, sum over command and record.
    Bytes p = encode_record(Command::com_read, r);
    Bytes expect = header(18);
    expect.push_back(3);
    expect.insert(expect.end(), kSampleBytes.begin(), kSampleBytes.end());
    expect.push_back(check_sum(std::span<const uint8_t>(expect).subspan(10)));
    EXPECT_EQ(p, expect);

    // register with two records: package_len 3 + 32.
    RegAddr w;
    w.station = 1;
    w.kind = 3;
    w.start = 10;
    w.count = 2;
    std::vector<RegAddr> two{w, r};
    p = encode_areas(Command::register_areas, two);
    ASSERT_EQ(p.size(), 10u + 35u);
    EXPECT_EQ(p[8], 35);
    EXPECT_EQ(Bytes(p.begin() + 10, p.begin() + 28),
              (Bytes{1, 2, 0, 0, 1, 0, 2, 3, 0, 0, 10, 0, 0, 0, 2, 0, 0, 0}));
    EXPECT_EQ(Bytes(p.begin() + 28, p.begin() + 44), kSampleBytes);

    // sub_read with no records: [19][0][19].
    EXPECT_EQ(encode_areas(Command::sub_read, {}), (Bytes{1, 0, 0, 0, 0, 0, 0, 0, 3, 0, 19, 0, 19}));

    // write: the data follow the record; package_len 18 + data.
    const uint8_t data[] = {0xaa, 0xbb, 0xcc};
    p = encode_write(w, data);
    EXPECT_EQ(p[8], 21);
    EXPECT_EQ(Bytes(p.begin() + 27, p.begin() + 30), (Bytes{0xaa, 0xbb, 0xcc}));

    EXPECT_THROW(encode_record(Command::sub_read, r), Error);
    EXPECT_THROW(encode_write(w, Bytes(4096)), Error);
}

TEST(ClientEncode, ReadModifyWriteBlockFullAndShort)
{
    RwOper op;
    op.op = 4;
    op.step = 1;
    op.high = RwOper::float_bits(1.5f);
    op.low = -1;
    op.direction = 1;
    op.value_type = 2;
    RegAddr r;
    Bytes full = encode_rw(Command::realtime_rw, r, op);
    ASSERT_EQ(full.size(), 52u);
    EXPECT_EQ(full[8], 42);
    EXPECT_EQ(Bytes(full.begin() + 27, full.begin() + 51),
              (Bytes{4, 0, 0, 0, 1, 0, 0, 0, 0x00, 0x00, 0xc0, 0x3f, 0xff, 0xff, 0xff, 0xff, 1, 0, 0, 0, 2, 0, 0, 0}));
    EXPECT_EQ(full[51], check_sum(std::span<const uint8_t>(full).subspan(10, 41)));

    Bytes shrt = encode_rw(Command::realtime_rw_check, r, op, RwForm::short_form);
    ASSERT_EQ(shrt.size(), 48u);
    EXPECT_EQ(shrt[8], 38);
    EXPECT_EQ(shrt[10], 10);
    EXPECT_TRUE(std::equal(shrt.begin() + 27, shrt.begin() + 47, full.begin() + 27));
}

TEST(ClientParse, SingleReplies)
{
    Reply r = parse_reply(Bytes{1, 0, 0, 0, 0, 0, 0, 0, 4, 0, 3, 0, 1, 4});
    EXPECT_EQ(r.kind, ReplyKind::status);
    EXPECT_EQ(r.command, 3);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.err, 1);
    EXPECT_TRUE(r.pending());

    r = parse_reply(Bytes{1, 0, 0, 0, 0, 0, 0, 0, 9, 0, 3, 1, 4, 0, 0x11, 0x22, 0x33, 0x44, 0xb2});
    EXPECT_EQ(r.kind, ReplyKind::data);
    EXPECT_EQ(r.size, 4);
    EXPECT_EQ(r.data, (Bytes{0x11, 0x22, 0x33, 0x44}));

    r = parse_reply(Bytes{1, 0, 0, 0, 0, 0, 0, 0, 3, 0, 1, 1, 2});
    EXPECT_EQ(r.kind, ReplyKind::ack);
    EXPECT_TRUE(r.ok);

    // write_success is a status with ok set; a 9 with ok set is a result.
    r = parse_reply(Bytes{1, 0, 0, 0, 0, 0, 0, 0, 4, 0, 5, 1, 0, 6});
    EXPECT_EQ(r.kind, ReplyKind::status);
    EXPECT_TRUE(r.ok);
    EXPECT_FALSE(r.pending());
    r = parse_reply(Bytes{1, 0, 0, 0, 0, 0, 0, 0, 4, 0, 9, 1, 2, 12});
    EXPECT_EQ(r.kind, ReplyKind::result);
    EXPECT_EQ(r.result, 2);

    try {
        parse_reply(Bytes{1, 0, 0, 0, 0, 0, 0, 0, 4, 0, 3, 0, 1, 5});
        FAIL() << "checksum accepted";
    } catch (const Error& e) {
        EXPECT_EQ(e.kind(), ErrorKind::checksum);
    }
    // size field disagreeing with package_len, and a length of 1.
    EXPECT_THROW(parse_reply(make_packet(3, Bytes{1, 5, 0, 0x11})), Error);
    EXPECT_THROW(parse_reply(Bytes{1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0}), Error);
}

TEST(ClientParse, MultiAreaEntries)
{
    // Four areas: data at 10, none, error at 17, a bit-view entry at 19
    // whose size field counts 16 bits in a 4-byte slot.
    Bytes fields{4, 10, 0, 0, 0, 17, 0, 19, 0,
                 1, 4, 0, 0x11, 0x22, 0x33, 0x44,
                 0, 2,
                 1, 16, 0, 0xaa, 0x55, 0, 0};
    Reply r = parse_reply(make_packet(19, fields));
    ASSERT_EQ(r.kind, ReplyKind::multi_area);
    ASSERT_EQ(r.entries.size(), 4u);
    EXPECT_TRUE(r.entries[0].present && r.entries[0].ok);
    EXPECT_EQ(r.entries[0].size, 4);
    EXPECT_EQ(r.entries[0].data, (Bytes{0x11, 0x22, 0x33, 0x44}));
    EXPECT_FALSE(r.entries[1].present);
    EXPECT_TRUE(r.entries[2].present);
    EXPECT_FALSE(r.entries[2].ok);
    EXPECT_EQ(r.entries[2].err, 2);
    EXPECT_EQ(r.entries[3].size, 16);
    EXPECT_EQ(r.entries[3].data, (Bytes{0xaa, 0x55, 0, 0}));

    // n = 0: [19][0][sum].
    r = parse_reply(Bytes{1, 0, 0, 0, 0, 0, 0, 0, 3, 0, 19, 0, 19});
    EXPECT_EQ(r.kind, ReplyKind::multi_area);
    EXPECT_TRUE(r.entries.empty());

    // An offset inside the table or past the end is refused.
    EXPECT_THROW(parse_reply(make_packet(19, Bytes{1, 1, 0, 0, 2})), Error);
    EXPECT_THROW(parse_reply(make_packet(19, Bytes{1, 40, 0, 0, 2})), Error);
}

// A fake server on one end of a socket pair.
class FakeServer : public ::testing::Test {
protected:
    void SetUp() override
    {
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        client_ = std::make_unique<Client>(sv[0], milliseconds(2000));
        server_ = sv[1];
    }
    void TearDown() override
    {
        if (server_ >= 0)
            ::close(server_);
    }
    Bytes read_request(size_t n)
    {
        Bytes b(n);
        size_t got = 0;
        while (got < n) {
            ssize_t r = ::recv(server_, b.data() + got, n - got, 0);
            if (r <= 0)
                break;
            got += static_cast<size_t>(r);
        }
        b.resize(got);
        return b;
    }
    void send_bytes(const Bytes& b) { ASSERT_EQ(::send(server_, b.data(), b.size(), 0), ssize_t(b.size())); }

    std::unique_ptr<Client> client_;
    int server_ = -1;
};

TEST_F(FakeServer, ExchangeWithSplitAndCoalescedReplies)
{
    const Bytes data_reply{1, 0, 0, 0, 0, 0, 0, 0, 9, 0, 3, 1, 4, 0, 0x11, 0x22, 0x33, 0x44, 0xb2};
    const Bytes status{1, 0, 0, 0, 0, 0, 0, 0, 4, 0, 3, 0, 2, 5};
    RegAddr rec = sample();
    std::thread srv([&] {
        // First exchange: the reply arrives in three pieces.
        Bytes req = read_request(28);
        EXPECT_EQ(req, encode_record(Command::com_read, rec));
        send_bytes(Bytes(data_reply.begin(), data_reply.begin() + 5));
        std::this_thread::sleep_for(milliseconds(20));
        send_bytes(Bytes(data_reply.begin() + 5, data_reply.begin() + 12));
        std::this_thread::sleep_for(milliseconds(20));
        send_bytes(Bytes(data_reply.begin() + 12, data_reply.end()));
        // Second exchange: two replies in one send.
        read_request(28);
        Bytes both = status;
        both.insert(both.end(), data_reply.begin(), data_reply.end());
        send_bytes(both);
    });
    Reply r = client_->com_read(rec);
    EXPECT_EQ(r.kind, ReplyKind::data);
    EXPECT_EQ(r.data, (Bytes{0x11, 0x22, 0x33, 0x44}));
    EXPECT_EQ(r.packet, data_reply);

    r = client_->com_read(rec);
    EXPECT_EQ(r.kind, ReplyKind::status);
    EXPECT_EQ(r.err, 2);
    r = client_->receive_reply();
    EXPECT_EQ(r.kind, ReplyKind::data);
    srv.join();
}

TEST_F(FakeServer, TransportFailuresAreDistinctErrors)
{
    auto kind_of = [&](auto&& fn) {
        try {
            fn();
        } catch (const Error& e) {
            return e.kind();
        }
        return ErrorKind::request;  // no error: never expected below
    };
    client_->set_timeout(milliseconds(100));
    RegAddr rec;

    // Nothing comes back.
    EXPECT_EQ(kind_of([&] { client_->realtime_read(rec); }), ErrorKind::timeout);
    read_request(28);

    // A reply whose checksum is wrong.
    send_bytes(Bytes{1, 0, 0, 0, 0, 0, 0, 0, 4, 0, 4, 0, 1, 9});
    EXPECT_EQ(kind_of([&] { client_->receive_reply(); }), ErrorKind::checksum);

    // A header announcing more than fits a packet.
    send_bytes(Bytes{1, 0, 0, 0, 0, 0, 0, 0, 0xff, 0x0f});
    EXPECT_EQ(kind_of([&] { client_->receive_reply(); }), ErrorKind::malformed);

    // Raw receive returns what arrives, then reports the close.
    send_bytes(Bytes{1, 2, 3});
    RawReceive raw = client_->recv_raw(100, milliseconds(1000));
    EXPECT_EQ(raw.status, RawStatus::data);
    EXPECT_EQ(raw.bytes, (Bytes{1, 2, 3}));
    EXPECT_EQ(client_->recv_raw(100, milliseconds(20)).status, RawStatus::timeout);

    // Half a reply, then the server goes away.
    send_bytes(Bytes{1, 0, 0, 0});
    ::close(server_);
    server_ = -1;
    EXPECT_EQ(kind_of([&] { client_->receive_reply(); }), ErrorKind::closed);
    EXPECT_TRUE(client_->wait_closed(milliseconds(1000)));
}

// A TCP listener on a free loopback port that answers each framed request
// with the next scripted reply, then closes.
class ScriptedServer {
public:
    explicit ScriptedServer(std::vector<Bytes> replies) : replies_(std::move(replies))
    {
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        socklen_t len = sizeof a;
        getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
        port_ = ntohs(a.sin_port);
        listen(fd_, 1);
        thread_ = std::thread([this] { serve(); });
    }
    ~ScriptedServer()
    {
        finish();
        ::close(fd_);
    }
    uint16_t port() const { return port_; }
    // Waits for the script to end; requests may be read afterwards.
    void finish()
    {
        if (thread_.joinable())
            thread_.join();
    }
    std::vector<Bytes> requests;

private:
    bool read_n(int c, uint8_t* p, size_t n)
    {
        for (size_t got = 0; got < n;) {
            ssize_t r = ::recv(c, p + got, n - got, 0);
            if (r <= 0)
                return false;
            got += static_cast<size_t>(r);
        }
        return true;
    }
    void serve()
    {
        int c = accept(fd_, nullptr, nullptr);
        for (const Bytes& reply : replies_) {
            Bytes req(10);
            if (!read_n(c, req.data(), 10))
                break;
            req.resize(10 + (req[8] | (req[9] << 8)));
            if (!read_n(c, req.data() + 10, req.size() - 10))
                break;
            requests.push_back(req);
            ::send(c, reply.data(), reply.size(), 0);
        }
        ::close(c);
    }

    std::vector<Bytes> replies_;
    int fd_ = -1;
    uint16_t port_ = 0;
    std::thread thread_;
};

TEST(ClientC, CallsMapRepliesToResultCodes)
{
    const Bytes data4{1, 0, 0, 0, 0, 0, 0, 0, 9, 0, 3, 1, 4, 0, 0x11, 0x22, 0x33, 0x44, 0xb2};
    ScriptedServer srv({
        {1, 0, 0, 0, 0, 0, 0, 0, 3, 0, 1, 1, 2},       // register_ok
        data4,                                         // too big for 2 bytes
        data4,                                         // into an allocated buffer
        {1, 0, 0, 0, 0, 0, 0, 0, 4, 0, 5, 0, 1, 6},    // write_err_01: queued
        {1, 0, 0, 0, 0, 0, 0, 0, 4, 0, 7, 0, 3, 10},   // writecheck_err_03
    });
    comclient_conn* c = comclient_connect("127.0.0.1", srv.port(), 2000);
    ASSERT_NE(c, nullptr);
    comclient_reg_addr rec{};
    rec.station = 1;
    rec.type = 2;
    rec.kind = 3;
    rec.start = 10;
    rec.count = 2;
    EXPECT_EQ(comclient_register(c, &rec, 1), 0);

    uint8_t small[2];
    size_t len = 0;
    EXPECT_EQ(comclient_com_read(c, &rec, small, sizeof small, &len), COMCLIENT_E_SPACE);
    EXPECT_EQ(len, 4u);
    uint8_t* data = nullptr;
    EXPECT_EQ(comclient_com_read_alloc(c, &rec, &data, &len), 0);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(Bytes(data, data + len), (Bytes{0x11, 0x22, 0x33, 0x44}));
    comclient_free(data);

    const uint8_t value[] = {7, 0};
    EXPECT_EQ(comclient_write(c, &rec, value, sizeof value), 1);
    EXPECT_EQ(comclient_writecheck(c, &rec), 3);
    // The script is over: the server closes.
    EXPECT_EQ(comclient_com_read(c, &rec, small, sizeof small, &len), COMCLIENT_E_CLOSED);
    EXPECT_STRNE(comclient_last_error(c), "");
    comclient_close(c);
    srv.finish();

    // The record travels as the same 16 bytes the C++ encoder makes.
    ASSERT_EQ(srv.requests.size(), 5u);
    RegAddr same;
    same.station = 1;
    same.type = 2;
    same.kind = 3;
    same.start = 10;
    same.count = 2;
    EXPECT_EQ(srv.requests[0], encode_areas(Command::register_areas, std::span(&same, 1)));
    EXPECT_EQ(srv.requests[3], encode_write(same, value));
}

TEST(ClientC, RefusedConnection)
{
    uint16_t port;
    {
        ScriptedServer srv({});
        port = srv.port();
        Client probe("127.0.0.1", port, milliseconds(1000));  // lets the server thread finish
    }
    EXPECT_EQ(comclient_connect("127.0.0.1", port, 500), nullptr);
    try {
        Client c("127.0.0.1", port, milliseconds(500));
        FAIL() << "connected to a closed port";
    } catch (const Error& e) {
        EXPECT_EQ(e.kind(), ErrorKind::connect);
    }
}

}  // namespace
