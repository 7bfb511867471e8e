// Read, write and read-modify-write command handlers, driven directly with a
// connection whose socket is one end of a socketpair.
#include <gtest/gtest.h>

#include <shared_mutex>

#include "server/commands.h"
#include "unit_util.h"

using namespace table_test;

namespace {

using Handler = void (*)(Connection&, const uint8_t*);
const auto status = status_reply;

void append_rec(Bytes& b, const REG_ADDR& r)
{
    b.insert(b.end(), reinterpret_cast<const uint8_t*>(&r), reinterpret_cast<const uint8_t*>(&r + 1));
}

// A single-record request [cmd][record][extra][sum].
Bytes request(uint8_t cmd, const REG_ADDR& r, const Bytes& extra = {})
{
    Bytes body{cmd};
    append_rec(body, r);
    body.insert(body.end(), extra.begin(), extra.end());
    return packet(body);
}

// An operation block: code, step, upper and lower limit, direction and,
// unless it is the short form, value type.
Bytes rw_block(std::vector<int32_t> f)
{
    const auto* p = reinterpret_cast<const uint8_t*>(f.data());
    return Bytes(p, p + f.size() * sizeof f[0]);
}

constexpr uint8_t PLAIN_PORT = 0, MODBUS_PORT = 1, S1_PORT = 2; // drivers 5, 50, 450

class Commands : public testing::Test {
protected:
    void SetUp() override
    {
        reset_tables();
        local_short = seg_; // a local area of 32 words, no local bits
        local_areas_init(sizeof seg_, 0, sizeof seg_);
        semid = -1;
        com_info.clear();
        for (uint16_t driver : {5, 50, 450})
            com_info.emplace_back().plc_driver_no = driver;
        port_num = 3;
        port_threads = {true, true, true}; // ports 0..2 are polled
    }
    void TearDown() override
    {
        reset_tables();
        com_info.clear();
        port_num = 0;
        local_short = nullptr;
        local_areas_init(0, 0, 0);
        port_threads = {};
    }

    // Runs a handler on the connection of client `id` and returns the reply it
    // left to be sent; its stdout goes to out_.
    Bytes run(Handler handler, const Bytes& req, uint32_t id = 1)
    {
        c_ = Connection{};
        c_.id = id;
        testing::internal::CaptureStdout();
        handler(c_, req.data());
        out_ = testing::internal::GetCapturedStdout();
        return Bytes(c_.reply, c_.reply + c_.reply_len);
    }

    // Registers a range and gives its cache a status and data.
    static ORG_node* cache(const REG_ADDR& r, int status, const Bytes& data = {})
    {
        std::unique_lock lock(rwlock);
        ORG_node* o = insert_ORT_FAT(r).org;
        o->status = static_cast<int16_t>(status);
        std::copy(data.begin(), data.end(), o->data);
        return o;
    }

    // The oldest queued request (the tail sentinel when none is queued).
    static RORT_node* first() { return RORT_link_head->next; }
    static Bytes data(const RORT_node* n) { return Bytes(n->data, n->data + n->data_len); }

    Connection c_;
    uint8_t seg_[64] = {};
    std::string out_;
};

TEST_F(Commands, SubReadOffsetsModbusBitsAndTimedOutStation)
{
    const REG_ADDR words = make_rec(PLAIN_PORT, 1, 2, 1, 0, 2);
    ORG_node* w = cache(words, 1, {0x11, 0x22, 0x33, 0x44});
    w->age = 1; // a read makes the range young again
    // Bits 5..20 of Modbus kind 5 live in words 0 and 1 of kind 3.
    cache(make_rec(MODBUS_PORT, 1, 2, 3, 0, 2), 1, {0xE0, 0xA5, 0x13, 0x00});
    const REG_ADDR late = make_rec(PLAIN_PORT, 2, 2, 1, 0, 1);
    cache(late, 1, {0x55, 0x66});

    Bytes body{19, 5};
    for (const REG_ADDR& r : {words, make_rec(PLAIN_PORT, 1, 2, 245, 0, 2), make_rec(MODBUS_PORT, 1, 0, 5, 5, 16),
                              late, make_rec(PLAIN_PORT, 1, 2, 1, 100, 1)})
        append_rec(body, r);
    const uint32_t key = (PLAIN_PORT + 1) * 65536u + 2; // station 2 of port 0 is in time-out
    VGlobComState_SetState(VGlobComState_Instance(), key, 2);
    const Bytes got = run(cmd_sub_read, packet(body));
    VGlobComState_SetState(VGlobComState_Instance(), key, 0);

    EXPECT_EQ(got, packet({19, 5, 12, 0, 0, 0, 19, 0, 26, 0, 28, 0,         // offsets
                           1, 4, 0, 0x11, 0x22, 0x33, 0x44,                // words
                           1, 16, 0, 0x2F, 0x9D, 0, 0,                     // bits (words >> 5), room of 2 words
                           0, 2,                                           // time-out
                           0, 1}));                                        // new range
    EXPECT_EQ(w->age, 0);
    std::shared_lock lock(rwlock);
    EXPECT_EQ(org_ranges(), (std::vector<std::string>{"0/2", "100/1", "0/1", "0/2"}));
}

TEST_F(Commands, RequestsThatCannotBeServedAreRefusedOrIgnored)
{
    const REG_ADDR empty = make_rec(PLAIN_PORT, 1, 2, 1, 0, 0);
    const REG_ADDR huge = make_rec(PLAIN_PORT, 1, 4, 1, 0, 1100); // 4400 bytes
    const Bytes op = rw_block({1, 0, 0, 0, 0, 0});
    const REG_ADDR none = make_rec(PLAIN_PORT, 1, 2, 243, 0, 1); // kinds 241..248: not answered at all
    auto refused = [&](Handler h, uint8_t cmd, const REG_ADDR& r, const Bytes& extra = {}) {
        EXPECT_EQ(run(h, request(cmd, r, extra)), status(cmd, 0, 3)) << int(cmd);
        EXPECT_TRUE(run(h, request(cmd, none, extra)).empty()) << int(cmd);
    };
    refused(cmd_realtime_read, 4, empty);
    refused(cmd_realtime_read, 4, make_rec(PLAIN_PORT, 1, 2, 1, INT32_MAX - 1, 2)); // ends past INT32_MAX
    refused(cmd_com_realtime_read, 8, huge);
    refused(cmd_write, 5, huge, {1, 2});
    refused(cmd_realtime_rw, 9, empty, op);
    refused(cmd_realtime_rw, 9, make_rec(0, 0, 2, 254, 32, 1), op); // past the local area
    EXPECT_EQ(first(), RORT_link_tail);
}

TEST_F(Commands, WriteAndWritecheck)
{
    // Short data are padded with zeros to the 6-byte range.
    EXPECT_EQ(run(cmd_write, request(5, make_rec(PLAIN_PORT, 1, 2, 1, 0, 3), {0xAA, 0xBB})), status(5, 0, 1));
    EXPECT_EQ(data(first()), (Bytes{0xAA, 0xBB, 0, 0, 0, 0}));
    reset_tables();

    // Longer data are kept whole; a byte address inside a 32-bit register
    // is found by its check; a write that got no answer reports err 2.
    REG_ADDR bytes_in_dword = make_rec(S1_PORT, 1, 4, 1, 13, 1);
    bytes_in_dword.addr_unit = 1;
    EXPECT_EQ(run(cmd_write, request(5, bytes_in_dword, {1, 2, 3, 4, 5, 6})), status(5, 0, 1));
    EXPECT_EQ(first()->reg_addr.byte_offset, 1);
    EXPECT_EQ(data(first()), (Bytes{1, 2, 3, 4, 5, 6}));
    first()->status = 2;
    EXPECT_EQ(run(cmd_writecheck, request(7, bytes_in_dword)), status(7, 0, 2));
    EXPECT_EQ(out_, " 0x7:status=2\r\n");
    EXPECT_EQ(first(), RORT_link_tail);
}

TEST_F(Commands, ReadModifyWriteLocalAtOnceAndPlcQueued)
{
    const REG_ADDR r = make_rec(PLAIN_PORT, 1, 2, 1, 20, 1);
    EXPECT_EQ(run(cmd_realtime_rw, request(9, r, rw_block({5, 1, 100, 0, 0, 3}))), status(9, 0, 1));
    RORT_node* n = first();
    EXPECT_EQ(n->rw_oper.value_type, 3);
    EXPECT_EQ(n->data_len, 2);
    n->status = 1;
    n->rw_oper.direction = 0x101; // the result byte is the low byte
    // Direction and value type are not part of the request's identity.
    EXPECT_EQ(run(cmd_realtime_rw_check, request(10, r, rw_block({5, 1, 100, 0, 7, 0}))), packet({10, 1, 1}));
    EXPECT_EQ(first(), RORT_link_tail);

    // Unknown operation codes are queued all the same (the port thread fails them).
    EXPECT_EQ(run(cmd_realtime_rw, request(9, r, rw_block({300, 1, 0, 0, 0, 0}))), status(9, 0, 1));
    reset_tables();

    // A request of 38 body bytes has value type 0; a failure prints its line.
    run(cmd_realtime_rw, request(9, r, rw_block({5, 1, 100, 0, 0})));
    EXPECT_EQ(first()->rw_oper.value_type, 0);
    first()->status = 2;
    EXPECT_EQ(run(cmd_realtime_rw_check, request(10, r, rw_block({5, 1, 100, 0, 0}))), status(10, 0, 2));
    EXPECT_EQ(out_, "Write timeout\r\n");
}

TEST_F(Commands, ComRealtimeReadWalksAdjacentCachesOrQueues)
{
    // Words 10..13 and 14..19, with a shorter range 10..11 listed between them.
    cache(make_rec(PLAIN_PORT, 1, 2, 1, 10, 4), 1, {0, 1, 0, 2, 0, 3, 0, 4});
    cache(make_rec(PLAIN_PORT, 1, 2, 1, 10, 2), 1, {9, 9, 9, 9});
    ORG_node* second = cache(make_rec(PLAIN_PORT, 1, 2, 1, 14, 6), 1, {0, 5, 0, 6, 0, 7, 0, 8, 0, 9, 0, 10});
    const REG_ADDR across = make_rec(PLAIN_PORT, 1, 2, 1, 12, 5);
    EXPECT_EQ(run(cmd_com_realtime_read, request(8, across)), data_reply(8, {0, 3, 0, 4, 0, 5, 0, 6, 0, 7}));
    EXPECT_EQ(first(), RORT_link_tail);

    // Bits 6..9 from two bit ranges.
    cache(make_rec(PLAIN_PORT, 1, 0, 2, 0, 8), 1, {0x40});
    cache(make_rec(PLAIN_PORT, 1, 0, 2, 8, 8), 1, {0x02});
    EXPECT_EQ(run(cmd_com_realtime_read, request(8, make_rec(PLAIN_PORT, 1, 0, 2, 6, 4))), data_reply(8, {0x09}));

    // A byte-addressed 32-bit read on a Siemens-family port: the data start
    // at the request's byte offset and go out with their halves exchanged.
    REG_ADDR dwords = make_rec(S1_PORT, 1, 4, 1, 2, 4);
    dwords.addr_unit = 1;
    Bytes d(16);
    std::iota(d.begin(), d.end(), 0);
    cache(dwords, 1, d);
    REG_ADDR split = make_rec(S1_PORT, 1, 4, 1, 13, 1); // byte 13: dword 3, offset 1
    split.addr_unit = 1;
    EXPECT_EQ(run(cmd_com_realtime_read, request(8, split)), data_reply(8, {7, 8, 5, 6, 11, 0, 9, 10}));

    // One range without valid data, or a start beyond 16-bit register
    // numbers: queued as a realtime read.
    second->status = 0;
    EXPECT_EQ(run(cmd_com_realtime_read, request(8, across)), status(8, 0, 1));
    EXPECT_EQ(out_, "insert_realtime\r\n");
    cache(make_rec(PLAIN_PORT, 1, 2, 1, 32700, 200), 1);
    const REG_ADDR far = make_rec(PLAIN_PORT, 1, 2, 1, 32768, 2);
    EXPECT_EQ(first()->req_type, 0);
    EXPECT_EQ(first()->data_len, 10);
    EXPECT_TRUE(reg_addr_equal(first()->reg_addr, across));
    EXPECT_EQ(run(cmd_com_realtime_read, request(8, far)), status(8, 0, 1));
    EXPECT_TRUE(reg_addr_equal(first()->next->reg_addr, far));
}

} // namespace
