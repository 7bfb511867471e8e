// Read, write and read-modify-write command handlers, driven directly with a
// connection whose socket is one end of a socketpair.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "port/com_state.h"
#include "server/commands.h"
#include "store/local_areas.h"
#include "table_invariants.h"
#include "tables/realtime_list.h"

using namespace table_test;

namespace {

using Bytes = std::vector<uint8_t>;

// Expected packets are built by hand, not with the builders under test.
Bytes packet(const Bytes& body_without_sum)
{
    const size_t len = body_without_sum.size() + 1;
    Bytes p{1, 0, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(len), static_cast<uint8_t>(len >> 8)};
    uint8_t sum = 0;
    for (uint8_t b : body_without_sum) {
        p.push_back(b);
        sum = static_cast<uint8_t>(sum + b);
    }
    p.push_back(sum);
    return p;
}

Bytes status(uint8_t cmd, uint8_t ok, uint8_t err) { return packet({cmd, ok, err}); }

Bytes data_reply(uint8_t cmd, const Bytes& data)
{
    Bytes body{cmd, 1, static_cast<uint8_t>(data.size()), static_cast<uint8_t>(data.size() >> 8)};
    body.insert(body.end(), data.begin(), data.end());
    return packet(body);
}

void append_rec(Bytes& b, const REG_ADDR& r)
{
    const auto* p = reinterpret_cast<const uint8_t*>(&r);
    b.insert(b.end(), p, p + sizeof r);
}

// A single-record request [cmd][record][extra][sum].
Bytes request(uint8_t cmd, const REG_ADDR& r, const Bytes& extra = {})
{
    Bytes body{cmd};
    append_rec(body, r);
    body.insert(body.end(), extra.begin(), extra.end());
    return packet(body);
}

Bytes rw_block(int32_t op, int32_t step, int32_t hi, int32_t lo, int32_t dir, int32_t type, bool short_form = false)
{
    const int32_t f[6] = {op, step, hi, lo, dir, type};
    Bytes b(reinterpret_cast<const uint8_t*>(f), reinterpret_cast<const uint8_t*>(f) + sizeof f);
    if (short_form) {
        b.resize(20);
    }
    return b;
}

constexpr uint32_t SHORT_OFF = 0x100;
constexpr uint32_t SHORT_BYTES = 2048;
constexpr uint32_t BIT_OFF = SHORT_OFF + SHORT_BYTES;
constexpr uint32_t BIT_BYTES = 2048;
constexpr size_t SEG_SIZE = BIT_OFF + BIT_BYTES;

constexpr uint8_t PLAIN_PORT = 0;   // driver 5
constexpr uint8_t MODBUS_PORT = 1;  // driver 50
constexpr uint8_t S1_PORT = 2;      // driver 450

class Commands : public testing::Test {
protected:
    void SetUp() override
    {
        reset_area_tables();
        clear_requests();
        seg_.assign(SEG_SIZE, 0);
        local_short = seg_.data() + SHORT_OFF;
        local_bit = seg_.data() + BIT_OFF;
        local_areas_init(SEG_SIZE, SHORT_OFF, BIT_OFF);
        semid = -1;
        com_info.assign(3, com_port_info{});
        com_info[PLAIN_PORT].plc_driver_no = 5;
        com_info[MODBUS_PORT].plc_driver_no = 50;
        com_info[S1_PORT].plc_driver_no = 450;
        port_num = 3;
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv_), 0);
        c_ = std::make_unique<Connection>();
        c_->sock = sv_[0];
    }
    void TearDown() override
    {
        clear_requests();
        reset_area_tables();
        com_info.clear();
        port_num = 0;
        local_short = nullptr;
        local_bit = nullptr;
        local_areas_init(0, 0, 0);
        close(sv_[0]);
        close(sv_[1]);
    }

    static void clear_requests()
    {
        std::lock_guard lock(mutex);
        while (RORT_link_head->next != RORT_link_tail)
            delete_realtime_link(RORT_link_head->next);
    }

    // Runs a handler on a request the way the connection loop does.
    void run(void (*handler)(Connection&, const uint8_t*), const Bytes& req)
    {
        std::memset(c_->reply, 0, sizeof c_->reply);
        c_->rw_block = ::rw_oper{};
        handler(*c_, req.data());
    }

    // Handlers send before they return, so whatever is queued now is all.
    Bytes reply()
    {
        uint8_t buf[4096];
        const ssize_t n = recv(sv_[1], buf, sizeof buf, MSG_DONTWAIT);
        return n > 0 ? Bytes(buf, buf + n) : Bytes{};
    }

    // Registers a range and gives its cache a status and data.
    static ORG_node* cache(const REG_ADDR& r, int status, const Bytes& data = {})
    {
        std::unique_lock lock(rwlock);
        ORG_node* o = insert_ORT_FAT(r).org;
        o->status = static_cast<int16_t>(status);
        if (!data.empty())
            std::memcpy(o->data, data.data(), data.size());
        return o;
    }

    static std::vector<RORT_node*> requests()
    {
        std::vector<RORT_node*> out;
        for (RORT_node* n = RORT_link_head->next; n != RORT_link_tail; n = n->next)
            out.push_back(n);
        return out;
    }

    static void complete(RORT_node* n, int status, const Bytes& data = {})
    {
        std::lock_guard lock(mutex);
        n->status = static_cast<int16_t>(status);
        if (!data.empty())
            std::memcpy(n->data, data.data(), data.size());
    }

    uint16_t word(size_t w) const
    {
        uint16_t v;
        std::memcpy(&v, local_short + 2 * w, 2);
        return v;
    }

    std::unique_ptr<Connection> c_;
    Bytes seg_;
    int sv_[2] = {-1, -1};
};

TEST_F(Commands, SubReadOffsetsModbusBitsAndTimedOutStation)
{
    const REG_ADDR words = make_rec(PLAIN_PORT, 1, 2, 1, 0, 2);
    ORG_node* w = cache(words, 1, {0x11, 0x22, 0x33, 0x44});
    w->age = 1;
    // Bits 5..20 of Modbus kind 5 live in words 0 and 1 of kind 3.
    REG_ADDR view = make_rec(MODBUS_PORT, 1, 0, 5, 5, 16);
    cache(make_rec(MODBUS_PORT, 1, 2, 3, 0, 2), 1, {0xE0, 0xA5, 0x13, 0x00});
    const REG_ADDR late = make_rec(PLAIN_PORT, 2, 2, 1, 0, 1);
    cache(late, 1, {0x55, 0x66});
    const REG_ADDR fresh = make_rec(PLAIN_PORT, 1, 2, 1, 100, 1);

    Bytes body{19, 5};
    for (const REG_ADDR& r : {words, make_rec(PLAIN_PORT, 1, 2, 245, 0, 2), view, late, fresh})
        append_rec(body, r);
    const uint32_t key = (PLAIN_PORT + 1) * 65536u + 2;  // station 2 of port 0 is in time-out
    VGlobComState_SetState(VGlobComState_Instance(), key, 2);
    run(cmd_sub_read, packet(body));
    VGlobComState_SetState(VGlobComState_Instance(), key, 0);

    const Bytes expected = packet({19, 5,
                                   12, 0, 0, 0, 19, 0, 26, 0, 28, 0,
                                   1, 4, 0, 0x11, 0x22, 0x33, 0x44,
                                   1, 16, 0, 0x2F, 0x9D, 0, 0,  // bits (words >> 5), room of 2 words
                                   0, 2,
                                   0, 1});
    EXPECT_EQ(reply(), expected);
    EXPECT_EQ(w->age, 0);
    std::shared_lock lock(rwlock);
    EXPECT_EQ(org_ranges(), (std::vector<std::string>{"0/2", "100/1", "0/1", "0/2"}));
}

TEST_F(Commands, RealtimeReadQueueAndCheckLife)
{
    const REG_ADDR r = make_rec(PLAIN_PORT, 1, 2, 1, 10, 2);
    run(cmd_realtime_read, request(4, r));
    EXPECT_EQ(reply(), status(4, 0, 1));
    ASSERT_EQ(requests().size(), 1u);
    RORT_node* n = requests()[0];
    EXPECT_EQ(n->req_type, 0);
    EXPECT_EQ(n->data_len, 4);

    run(cmd_realtime_readcheck, request(6, r));
    EXPECT_EQ(reply(), status(6, 0, 1));
    ASSERT_EQ(requests().size(), 1u);

    complete(n, 1, {1, 2, 3, 4});
    run(cmd_realtime_readcheck, request(6, r));
    EXPECT_EQ(reply(), data_reply(6, {1, 2, 3, 4}));
    EXPECT_TRUE(requests().empty());

    testing::internal::CaptureStdout();
    run(cmd_realtime_readcheck, request(6, r));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "REAL_WRITE Don't find the realtime_req 0x6\r\n");
    EXPECT_EQ(reply(), status(6, 0, 3));

    // No answer and other failures are reported once and collected.
    for (const auto& [st, err] : {std::pair{2, 2}, std::pair{3, 3}}) {
        run(cmd_realtime_read, request(4, r));
        reply();
        complete(requests()[0], st);
        run(cmd_realtime_readcheck, request(6, r));
        EXPECT_EQ(reply(), status(6, 0, static_cast<uint8_t>(err)));
        EXPECT_TRUE(requests().empty());
    }

    // Local areas are answered at once and leave nothing to check.
    std::memcpy(local_short + 2 * 7, "\x34\x12", 2);
    run(cmd_realtime_read, request(4, make_rec(0, 0, 2, 254, 7, 1)));
    EXPECT_EQ(reply(), data_reply(4, {0x34, 0x12}));
    EXPECT_TRUE(requests().empty());
}

TEST_F(Commands, RequestsThatCannotBeServedAreRefusedOrIgnored)
{
    const REG_ADDR empty = make_rec(PLAIN_PORT, 1, 2, 1, 0, 0);
    const REG_ADDR huge = make_rec(PLAIN_PORT, 1, 4, 1, 0, 1100);  // 4400 bytes
    run(cmd_realtime_read, request(4, empty));
    EXPECT_EQ(reply(), status(4, 0, 3));
    run(cmd_com_realtime_read, request(8, huge));
    EXPECT_EQ(reply(), status(8, 0, 3));
    run(cmd_write, request(5, huge, {1, 2}));
    EXPECT_EQ(reply(), status(5, 0, 3));
    run(cmd_realtime_rw, request(9, empty, rw_block(1, 0, 0, 0, 0, 0)));
    EXPECT_EQ(reply(), status(9, 0, 3));
    // A local range past the end of its area.
    run(cmd_realtime_rw, request(9, make_rec(0, 0, 2, 254, 5000, 1), rw_block(1, 0, 0, 0, 0, 0)));
    EXPECT_EQ(reply(), status(9, 0, 3));
    EXPECT_TRUE(requests().empty());

    const REG_ADDR none = make_rec(PLAIN_PORT, 1, 2, 243, 0, 1);
    run(cmd_realtime_read, request(4, none));
    run(cmd_com_realtime_read, request(8, none));
    run(cmd_write, request(5, none, {1, 2}));
    run(cmd_realtime_rw, request(9, none, rw_block(1, 0, 0, 0, 0, 0)));
    EXPECT_TRUE(reply().empty());
    EXPECT_TRUE(requests().empty());
}

TEST_F(Commands, WriteAndWritecheck)
{
    const REG_ADDR r = make_rec(PLAIN_PORT, 1, 2, 1, 0, 3);
    run(cmd_write, request(5, r, {0xAA, 0xBB}));  // shorter than the 6-byte range
    EXPECT_EQ(reply(), status(5, 0, 1));
    ASSERT_EQ(requests().size(), 1u);
    RORT_node* n = requests()[0];
    EXPECT_EQ(n->req_type, 1);
    ASSERT_GE(n->data_len, 6);
    EXPECT_EQ(Bytes(n->data, n->data + 6), (Bytes{0xAA, 0xBB, 0, 0, 0, 0}));

    testing::internal::CaptureStdout();
    run(cmd_writecheck, request(7, r));
    EXPECT_EQ(reply(), status(7, 0, 1));
    complete(n, 1);
    run(cmd_writecheck, request(7, r));
    EXPECT_EQ(reply(), status(7, 1, 0));
    run(cmd_writecheck, request(7, r));
    EXPECT_EQ(reply(), status(7, 0, 3));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              " 0x7:status=0\r\n 0x7:status=1\r\nREAL_WRITE Don't find the realtime_req 0x7\r\n");

    // Longer data are kept whole; a byte address inside a 32-bit register
    // is found by its check; a write that got no answer reports err 2.
    REG_ADDR bytes_in_dword = make_rec(S1_PORT, 1, 4, 1, 13, 1);
    bytes_in_dword.addr_unit = 1;
    run(cmd_write, request(5, bytes_in_dword, {1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(reply(), status(5, 0, 1));
    n = requests().at(0);
    EXPECT_EQ(n->reg_addr.byte_offset, 1);
    ASSERT_GE(n->data_len, 6);
    EXPECT_EQ(Bytes(n->data, n->data + 6), (Bytes{1, 2, 3, 4, 5, 6}));
    complete(n, 2);
    testing::internal::CaptureStdout();
    run(cmd_writecheck, request(7, bytes_in_dword));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), " 0x7:status=2\r\n");
    EXPECT_EQ(reply(), status(7, 0, 2));
    EXPECT_TRUE(requests().empty());

    // A local write is done at once; there is nothing to check afterwards.
    testing::internal::CaptureStdout();
    const REG_ADDR local = make_rec(0, 0, 2, 254, 4, 1);
    run(cmd_write, request(5, local, {0x78, 0x56}));
    EXPECT_EQ(reply(), status(5, 1, 0));
    EXPECT_EQ(word(4), 0x5678);
    run(cmd_writecheck, request(7, local));
    EXPECT_EQ(reply(), status(7, 0, 3));
    testing::internal::GetCapturedStdout();
}

TEST_F(Commands, ReadModifyWriteLocalAtOnceAndPlcQueued)
{
    // Ping-pong on a local word: up by 2 from 9 passes the upper limit 10,
    // so the value stops at 10 and the direction turns to 0.
    std::memcpy(local_short + 2 * 3, "\x09\x00", 2);
    const REG_ADDR local = make_rec(0, 0, 2, 254, 3, 1);
    run(cmd_realtime_rw, request(9, local, rw_block(4, 2, 10, 0, 1, 0)));
    EXPECT_EQ(reply(), packet({9, 1, 0}));
    EXPECT_EQ(word(3), 10);

    const REG_ADDR r = make_rec(PLAIN_PORT, 1, 2, 1, 20, 1);
    run(cmd_realtime_rw, request(9, r, rw_block(5, 1, 100, 0, 0, 3)));
    EXPECT_EQ(reply(), status(9, 0, 1));
    ASSERT_EQ(requests().size(), 1u);
    RORT_node* n = requests()[0];
    EXPECT_EQ(n->req_type, 2);
    EXPECT_EQ(n->rw_oper.value_type, 3);
    EXPECT_EQ(n->data_len, 2);

    testing::internal::CaptureStdout();
    run(cmd_realtime_rw_check, request(10, r, rw_block(5, 2, 100, 0, 0, 3)));  // other step
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "REAL_WRITE Don't find the realtime_req 0xa\r\n");
    EXPECT_EQ(reply(), status(10, 0, 3));
    run(cmd_realtime_rw_check, request(10, r, rw_block(5, 1, 100, 0, 0, 3)));
    EXPECT_EQ(reply(), status(10, 0, 1));
    {
        std::lock_guard lock(mutex);
        n->status = 1;
        n->rw_oper.direction = 0x101;  // the result byte is the low byte
    }
    run(cmd_realtime_rw_check, request(10, r, rw_block(5, 1, 100, 0, 7, 0)));
    EXPECT_EQ(reply(), packet({10, 1, 1}));
    EXPECT_TRUE(requests().empty());

    // Operation codes the port thread does not know are queued all the same
    // (it completes them as failed).
    run(cmd_realtime_rw, request(9, r, rw_block(300, 1, 0, 0, 0, 0)));
    EXPECT_EQ(reply(), status(9, 0, 1));
    clear_requests();

    // A request of 38 body bytes has value type 0; failures print their line.
    for (const auto& [st, line, err] : {std::tuple{2, "Write timeout\r\n", 2}, std::tuple{3, "Write Error\r\n", 3}}) {
        run(cmd_realtime_rw, request(9, r, rw_block(5, 1, 100, 0, 0, 3, true)));
        reply();
        ASSERT_EQ(requests().size(), 1u);
        EXPECT_EQ(requests()[0]->rw_oper.value_type, 0);
        complete(requests()[0], st);
        testing::internal::CaptureStdout();
        run(cmd_realtime_rw_check, request(10, r, rw_block(5, 1, 100, 0, 0, 0, true)));
        EXPECT_EQ(testing::internal::GetCapturedStdout(), line);
        EXPECT_EQ(reply(), status(10, 0, static_cast<uint8_t>(err)));
        EXPECT_TRUE(requests().empty());
    }
}

TEST_F(Commands, ComRealtimeReadWalksAdjacentCachesOrQueues)
{
    // Words 10..13 and 14..19, with a shorter range 10..11 listed between them.
    cache(make_rec(PLAIN_PORT, 1, 2, 1, 10, 4), 1, {0, 1, 0, 2, 0, 3, 0, 4});
    cache(make_rec(PLAIN_PORT, 1, 2, 1, 10, 2), 1, {9, 9, 9, 9});
    ORG_node* second = cache(make_rec(PLAIN_PORT, 1, 2, 1, 14, 6), 1, {0, 5, 0, 6, 0, 7, 0, 8, 0, 9, 0, 10});
    const REG_ADDR across = make_rec(PLAIN_PORT, 1, 2, 1, 12, 5);
    run(cmd_com_realtime_read, request(8, across));
    EXPECT_EQ(reply(), data_reply(8, {0, 3, 0, 4, 0, 5, 0, 6, 0, 7}));
    EXPECT_TRUE(requests().empty());

    // Bits 6..9 from two bit ranges.
    cache(make_rec(PLAIN_PORT, 1, 0, 2, 0, 8), 1, {0x40});
    cache(make_rec(PLAIN_PORT, 1, 0, 2, 8, 8), 1, {0x02});
    run(cmd_com_realtime_read, request(8, make_rec(PLAIN_PORT, 1, 0, 2, 6, 4)));
    EXPECT_EQ(reply(), data_reply(8, {0x09}));

    // A byte-addressed 32-bit read on a Siemens-family port: the data start
    // at the request's byte offset and go out with their halves exchanged.
    REG_ADDR dwords = make_rec(S1_PORT, 1, 4, 1, 2, 4);
    dwords.addr_unit = 1;
    Bytes d(16);
    for (int i = 0; i < 16; ++i)
        d[i] = static_cast<uint8_t>(i);
    cache(dwords, 1, d);
    REG_ADDR split = make_rec(S1_PORT, 1, 4, 1, 13, 1);  // byte 13: dword 3, offset 1
    split.addr_unit = 1;
    run(cmd_com_realtime_read, request(8, split));
    EXPECT_EQ(reply(), data_reply(8, {7, 8, 5, 6, 11, 0, 9, 10}));

    // One range without valid data, or a start beyond 16-bit register
    // numbers: queued as a realtime read.
    second->status = 0;
    testing::internal::CaptureStdout();
    run(cmd_com_realtime_read, request(8, across));
    EXPECT_EQ(reply(), status(8, 0, 1));
    cache(make_rec(PLAIN_PORT, 1, 2, 1, 32700, 200), 1);
    run(cmd_com_realtime_read, request(8, make_rec(PLAIN_PORT, 1, 2, 1, 32768, 2)));
    EXPECT_EQ(reply(), status(8, 0, 1));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "insert_realtime\r\ninsert_realtime\r\n");
    ASSERT_EQ(requests().size(), 2u);
    EXPECT_EQ(requests()[0]->req_type, 0);
    EXPECT_TRUE(reg_addr_equal(requests()[0]->reg_addr, across));

    // The queued read is collected with command 6.
    complete(requests()[0], 1, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
    run(cmd_realtime_readcheck, request(6, across));
    EXPECT_EQ(reply(), data_reply(6, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
}

} // namespace
