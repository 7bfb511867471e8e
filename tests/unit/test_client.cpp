// Client library: request bytes, reply parsing, and the framed exchange
// against in-process fake servers.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "comclient.h"
#include "comclient_c.h"

namespace {

using namespace comclient;
using Bytes = std::vector<uint8_t>;
using std::chrono::milliseconds;

// Header + body; the body carries its own checksum byte.
Bytes wire(const Bytes& body)
{
    Bytes b{0x01, 0, 0, 0, 0, 0, 0, 0, uint8_t(body.size() & 0xff), uint8_t(body.size() >> 8)};
    b.insert(b.end(), body.begin(), body.end());
    return b;
}

Bytes tail(const Bytes& b, size_t from, size_t n) { return Bytes(b.begin() + from, b.begin() + from + n); }

ErrorKind error_of(auto&& fn)
{
    try {
        fn();
    } catch (const Error& e) {
        return e.kind();
    }
    return ErrorKind::request;  // no error: never expected below
}

const RegAddr kSample{.tag = 0x11, .port = 2, .station = 7, .addr_unit = 1, .type = 4, .kind = 0x83,
                      .byte_offset = 0x0201, .start = -2, .count = 0x0304, .bcd = 1, .reserved = 0x99};
const Bytes kSampleBytes{0x11, 2, 7, 1, 4, 0x83, 0x01, 0x02, 0xfe, 0xff, 0xff, 0xff, 0x04, 0x03, 1, 0x99};
const RegAddr kWord{.station = 1, .kind = 3, .start = 10, .count = 2};
const Bytes kData4 = wire({3, 1, 4, 0, 0x11, 0x22, 0x33, 0x44, 0xb2});

TEST(ClientEncode, RequestBytes)
{
    auto enc = kSample.encode();
    EXPECT_EQ(Bytes(enc.begin(), enc.end()), kSampleBytes);
    EXPECT_EQ(RegAddr::decode(enc.data()), kSample);

    Bytes expect{3};
    expect.insert(expect.end(), kSampleBytes.begin(), kSampleBytes.end());
    expect.push_back(check_sum(expect));
    EXPECT_EQ(encode_record(Command::com_read, kSample), wire(expect));

    const RegAddr two[] = {kWord, kSample};
    Bytes p = encode_areas(Command::register_areas, two);
    ASSERT_EQ(p.size(), 10u + 35u);
    EXPECT_EQ(p[8], 35);
    EXPECT_EQ(tail(p, 10, 18), (Bytes{1, 2, 0, 0, 1, 0, 2, 3, 0, 0, 10, 0, 0, 0, 2, 0, 0, 0}));
    EXPECT_EQ(tail(p, 28, 16), kSampleBytes);
    EXPECT_EQ(encode_areas(Command::sub_read, {}), wire({19, 0, 19}));

    // write: the data follow the record.
    p = encode_write(kWord, Bytes{0xaa, 0xbb, 0xcc});
    EXPECT_EQ(p[8], 21);
    EXPECT_EQ(tail(p, 27, 3), (Bytes{0xaa, 0xbb, 0xcc}));
    EXPECT_THROW(encode_record(Command::sub_read, kSample), Error);
    EXPECT_THROW(encode_write(kWord, Bytes(4096)), Error);

    // Read-modify-write block: six little-endian int32; the short form drops the last.
    RwOper op{.op = 4, .step = 1, .high = RwOper::float_bits(1.5f), .low = -1, .direction = 1, .value_type = 2};
    Bytes full = encode_rw(Command::realtime_rw, RegAddr{}, op);
    ASSERT_EQ(full.size(), 52u);
    EXPECT_EQ(full[8], 42);
    EXPECT_EQ(tail(full, 27, 24),
              (Bytes{4, 0, 0, 0, 1, 0, 0, 0, 0x00, 0x00, 0xc0, 0x3f, 0xff, 0xff, 0xff, 0xff, 1, 0, 0, 0, 2, 0, 0, 0}));
    EXPECT_EQ(full[51], check_sum(std::span<const uint8_t>(full).subspan(10, 41)));
    Bytes shrt = encode_rw(Command::realtime_rw_check, RegAddr{}, op, RwForm::short_form);
    ASSERT_EQ(shrt.size(), 48u);
    EXPECT_EQ(shrt[10], 10);
    EXPECT_EQ(tail(shrt, 27, 20), tail(full, 27, 20));
}

TEST(ClientParse, Replies)
{
    Reply r = parse_reply(wire({3, 0, 1, 4}));
    EXPECT_EQ(r.kind, ReplyKind::status);
    EXPECT_TRUE(r.pending());
    r = parse_reply(kData4);
    EXPECT_EQ(r.kind, ReplyKind::data);
    EXPECT_EQ(r.data, (Bytes{0x11, 0x22, 0x33, 0x44}));
    EXPECT_EQ(parse_reply(wire({1, 1, 2})).kind, ReplyKind::ack);
    // write_success is a status with ok set; a 9 with ok set is a result.
    r = parse_reply(wire({5, 1, 0, 6}));
    EXPECT_TRUE(r.kind == ReplyKind::status && r.ok && !r.pending());
    r = parse_reply(wire({9, 1, 2, 12}));
    EXPECT_EQ(r.kind, ReplyKind::result);
    EXPECT_EQ(r.result, 2);

    EXPECT_EQ(error_of([] { parse_reply(wire({3, 0, 1, 5})); }), ErrorKind::checksum);
    EXPECT_THROW(parse_reply(make_packet(3, Bytes{1, 5, 0, 0x11})), Error);  // size field vs package_len
    EXPECT_THROW(parse_reply(wire({0})), Error);

    // sub_read: data at 10, none, error at 17, a bit-view entry at 19 whose
    // size field counts 16 bits in a 4-byte slot.
    r = parse_reply(make_packet(19, Bytes{4, 10, 0, 0, 0, 17, 0, 19, 0, 1, 4, 0, 0x11, 0x22, 0x33, 0x44,
                                          0, 2, 1, 16, 0, 0xaa, 0x55, 0, 0}));
    ASSERT_EQ(r.kind, ReplyKind::multi_area);
    ASSERT_EQ(r.entries.size(), 4u);
    EXPECT_TRUE(r.entries[0].present && r.entries[0].ok);
    EXPECT_EQ(r.entries[0].data, (Bytes{0x11, 0x22, 0x33, 0x44}));
    EXPECT_FALSE(r.entries[1].present);
    EXPECT_TRUE(r.entries[2].present && !r.entries[2].ok && r.entries[2].err == 2);
    EXPECT_EQ(r.entries[3].size, 16);
    EXPECT_EQ(r.entries[3].data, (Bytes{0xaa, 0x55, 0, 0}));
    EXPECT_TRUE(parse_reply(wire({19, 0, 19})).entries.empty());
    // An offset inside the table or past the end is refused.
    EXPECT_THROW(parse_reply(make_packet(19, Bytes{1, 1, 0, 0, 2})), Error);
    EXPECT_THROW(parse_reply(make_packet(19, Bytes{1, 40, 0, 0, 2})), Error);
}

Bytes recv_n(int fd, size_t n)
{
    Bytes b(n);
    size_t got = 0;
    for (ssize_t r; got < n && (r = ::recv(fd, b.data() + got, n - got, 0)) > 0;)
        got += static_cast<size_t>(r);
    b.resize(got);
    return b;
}

// A TCP listener on a free loopback port that answers each framed request
// with the next scripted reply, then closes. Each reply goes out in pieces
// cut at bytes 5 and 12, so the client has to reassemble it.
class ScriptedServer {
public:
    explicit ScriptedServer(std::vector<Bytes> replies)
    {
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
        port = ntohs(a.sin_port);
        listen(fd_, 1);
        thread_ = std::thread([this, replies = std::move(replies)] {
            int c = accept(fd_, nullptr, nullptr);
            for (const Bytes& reply : replies) {
                Bytes req = recv_n(c, 10);
                Bytes body = req.size() == 10 ? recv_n(c, req[8] | (req[9] << 8)) : Bytes{};
                if (body.empty())
                    break;
                req.insert(req.end(), body.begin(), body.end());
                requests.push_back(req);
                for (size_t from = 0, to; from < reply.size(); from = to) {
                    to = std::min(reply.size(), from < 5 ? size_t(5) : from < 12 ? size_t(12) : reply.size());
                    if (from > 0)
                        std::this_thread::sleep_for(milliseconds(20));
                    ::send(c, reply.data() + from, to - from, 0);
                }
            }
            ::close(c);
        });
    }
    ~ScriptedServer()
    {
        finish();
        ::close(fd_);
    }
    // Waits for the script to end; requests may be read afterwards.
    void finish()
    {
        if (thread_.joinable())
            thread_.join();
    }
    uint16_t port = 0;
    std::vector<Bytes> requests;

private:
    int fd_ = -1;
    std::thread thread_;
};

TEST(ClientExchange, SplitAndCoalescedRepliesAndTransportFailures)
{
    // Two replies in one send; no reply; a bad checksum; a header announcing
    // more than fits a packet; three raw bytes; half a reply, then the server
    // goes away.
    Bytes both = wire({3, 0, 2, 5});
    both.insert(both.end(), kData4.begin(), kData4.end());
    ScriptedServer srv({kData4, both, {}, wire({4, 0, 1, 9}), {1, 0, 0, 0, 0, 0, 0, 0, 0xff, 0x0f}, {1, 2, 3},
                        {1, 0, 0, 0}});
    Client c("127.0.0.1", srv.port, milliseconds(2000));
    Reply r = c.com_read(kSample);
    EXPECT_EQ(r.packet, kData4);
    EXPECT_EQ(r.data, (Bytes{0x11, 0x22, 0x33, 0x44}));
    EXPECT_EQ(c.com_read(kSample).err, 2);
    EXPECT_EQ(c.receive_reply().kind, ReplyKind::data);

    c.set_timeout(milliseconds(300));
    EXPECT_EQ(error_of([&] { c.realtime_read(RegAddr{}); }), ErrorKind::timeout);
    EXPECT_EQ(error_of([&] { c.realtime_read(RegAddr{}); }), ErrorKind::checksum);
    EXPECT_EQ(error_of([&] { c.realtime_read(RegAddr{}); }), ErrorKind::malformed);
    c.send_raw(encode_record(Command::realtime_read, RegAddr{}));
    RawReceive raw = c.recv_raw(100, milliseconds(1000));
    EXPECT_EQ(raw.status, RawStatus::data);
    EXPECT_EQ(raw.bytes, (Bytes{1, 2, 3}));
    EXPECT_EQ(c.recv_raw(100, milliseconds(20)).status, RawStatus::timeout);
    EXPECT_EQ(error_of([&] { c.realtime_read(RegAddr{}); }), ErrorKind::closed);
    EXPECT_TRUE(c.wait_closed(milliseconds(1000)));
    srv.finish();
    EXPECT_EQ(srv.requests.at(0), encode_record(Command::com_read, kSample));
}

TEST(ClientC, CallsMapRepliesToResultCodesAndRefusedConnection)
{
    uint16_t port;
    const uint8_t value[] = {7, 0};
    {
        // register_ok; data too big for 2 bytes, then into an allocated
        // buffer; write_err_01 (queued); writecheck_err_03.
        ScriptedServer srv({wire({1, 1, 2}), kData4, kData4, wire({5, 0, 1, 6}), wire({7, 0, 3, 10})});
        port = srv.port;
        comclient_conn* c = comclient_connect("127.0.0.1", port, 2000);
        ASSERT_NE(c, nullptr);
        const comclient_reg_addr rec{0, 0, 1, 0, 2, 3, 0, 10, 2, 0, 0};  // the same record as kWord
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
        EXPECT_EQ(comclient_write(c, &rec, value, sizeof value), 1);
        EXPECT_EQ(comclient_writecheck(c, &rec), 3);
        // The script is over: the server closes.
        EXPECT_EQ(comclient_com_read(c, &rec, small, sizeof small, &len), COMCLIENT_E_CLOSED);
        EXPECT_STRNE(comclient_last_error(c), "");
        comclient_close(c);
        srv.finish();

        // The record travels as the same 16 bytes the C++ encoder makes.
        ASSERT_EQ(srv.requests.size(), 5u);
        EXPECT_EQ(srv.requests[0], encode_areas(Command::register_areas, std::span(&kWord, 1)));
        EXPECT_EQ(srv.requests[3], encode_write(kWord, value));
    }
    EXPECT_EQ(comclient_connect("127.0.0.1", port, 500), nullptr);
    EXPECT_EQ(error_of([&] { Client("127.0.0.1", port, milliseconds(500)); }), ErrorKind::connect);
}

}  // namespace
