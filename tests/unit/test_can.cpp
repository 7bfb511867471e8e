// The CAN port cycle with stand-in driver entry points: exact driver calls,
// failure counting and requests that cannot be served, which the end-to-end
// tests cannot make happen on cue. Limits are written out as numbers, never
// taken from the constants under test.
#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "can/can_port.h"
#include "unit_util.h"

using namespace table_test;

namespace {

constexpr uint8_t PORT = 2;

// The stand-in driver. Queued results are taken one per call, 0 once a
// queue is empty; a batch entry answers value_base + its address, a read
// delivers read_value, and every write is logged.
struct FakeCan {
    std::deque<int> batch_results, read_results, write_results;
    uint32_t value_base = 1000;
    Bytes read_value;
    int reads = 0;
    std::vector<Bytes> writes;
} fake;

int next_result(std::deque<int>& q)
{
    const int r = q.empty() ? 0 : q.front();
    if (!q.empty())
        q.pop_front();
    return r;
}
int fake_canopen(OmronEntry* e, int n, PlcParam*, pthread_mutex_t*)
{
    const int r = next_result(fake.batch_results);
    for (int i = 0; i < n && r == 0; ++i) {
        const uint32_t v = fake.value_base + e[i].address;
        std::memcpy(e[i].value, &v, 4);
    }
    return r;
}
int fake_read(const DrvRegAddr*, DrvDataRef* d, PlcParam*, pthread_mutex_t*)
{
    ++fake.reads;
    const int r = next_result(fake.read_results);
    if (r == 0)
        std::memcpy(d->data, fake.read_value.data(), fake.read_value.size());
    return r;
}
int fake_write(const DrvRegAddr* a, DrvDataRef* d, PlcParam*, pthread_mutex_t*)
{
    fake.writes.emplace_back(d->data, d->data + cal_commbuf_size(a->reg_type, static_cast<int16_t>(d->count)));
    return next_result(fake.write_results);
}

// A port without ev_plc_init (re-initialisation only starts the count
// again) and one-register blocks.
class Can : public testing::Test {
protected:
    void SetUp() override
    {
        reset_tables();
        fake = {};
        t->port = PORT;
        t->drv = CanDriver{nullptr, fake_read, fake_write, fake_canopen};
        t->limits = can_block_limits(com_port_info{.max_words = 1, .max_bits = 64});
        opt_list_init(t->list_head, t->list_tail);
        t->cursor = t->list_head;
    }
    void TearDown() override
    {
        opt_list_free(t->list_head, t->list_tail);
        reset_tables();
    }

    // A word range whose addresses count registers.
    static ORG_node* reg(int32_t start, int16_t width)
    {
        REG_ADDR r = make_rec(PORT, 1, 2, 3, start, width);
        r.addr_unit = 2;
        return reg_range(r).org;
    }
    static RORT_node* queue(int req_type, uint8_t type, int32_t start, int16_t width, int32_t op = 0)
    {
        const REG_ADDR r = make_rec(PORT, 1, type, 3, start, width);
        RORT_node* n = new_realtime_node(cal_commbuf_size(r));
        n->rw_oper = rw_oper{op, 1, 100, 0, 1, 0};
        queue_locked(n, r, req_type);
        return n;
    }
    static uint16_t word(const ORG_node* o, int i) { return static_cast<uint16_t>(o->data[2 * i] | o->data[2 * i + 1] << 8); }

    std::unique_ptr<CanPort> t = std::make_unique<CanPort>();
    LocalBits bits;
};

TEST(CanLimits, DerivedFromTheRecordAndCappedToOneCall)
{
    // A limit of 0 builds one-register blocks; wider limits stop where one
    // block would no longer fit one call of 36 entries (32 bits for a bit
    // block). A word gap of 200 gives byte gaps of 400, kept to 8 bits.
    const struct { uint16_t words, bits; uint8_t word_gap; std::vector<int> want; } rows[] = {
        {0, 0, 200, {1, 1, 1, 1, 144, 200, 100}},
        {9, 20, 0, {9, 18, 5, 20, 0, 0, 0}},
        {65535, 256, 0, {36, 36, 36, 32, 0, 0, 0}},
    };
    for (const auto& row : rows) {
        const OPT_limits l =
            can_block_limits(com_port_info{.max_words = row.words, .max_bits = row.bits, .word_gap = row.word_gap});
        EXPECT_EQ((std::vector<int>{l.word_len, l.byte_len, l.dword_len, l.bit_len, l.byte_gap, l.word_gap, l.dword_gap}),
                  row.want)
            << row.words;
    }
}

TEST_F(Can, FailuresCountReinitAndLaterCallsKeepCaches)
{
    // 40 one-register blocks: calls of 36 and 4 entries.
    std::vector<ORG_node*> groups;
    for (int i = 0; i < 40; ++i)
        groups.push_back(reg(10 * i, 1));
    can_cycle(*t);
    can_cycle(*t);
    ASSERT_EQ(groups[39]->status, 1);

    // The second call fails: its blocks keep values and status while the
    // count stays low; the first call's blocks take the new values.
    fake.value_base = 5000;
    fake.batch_results = {0, 2};
    can_cycle(*t);
    EXPECT_EQ(word(groups[0], 0), 5000);
    EXPECT_EQ(word(groups[36], 0), 1360);
    EXPECT_EQ(t->can_plc_no_response, 1);

    // Both calls fail: the first call's blocks see it at once, the later
    // ones only once the count passes 8, with their data kept.
    fake.batch_results.assign(10, 3);
    for (int c = 0; c < 3; ++c)
        can_cycle(*t);
    EXPECT_EQ(groups[0]->status, 3);
    EXPECT_EQ(groups[36]->status, 1);
    EXPECT_EQ(t->can_plc_no_response, 7);
    can_cycle(*t); // 8, then 9: re-initialised
    EXPECT_EQ(groups[36]->status, 3);
    EXPECT_EQ(word(groups[36], 0), 1360);
    EXPECT_EQ(t->can_plc_no_response, 0);
}

TEST_F(Can, RealtimeRequestsPulsesUnknownCodesAndOversizedData)
{
    ORG_node* cached = reg(0, 4);
    fake.read_value.assign(1024, 0x5A);
    fake.read_value[1] = 0; // the first word reads 90
    fake.read_results = {0, 2, 0, 3};
    fake.write_results = {0, 0, 0, 0, 2};
    RORT_node* wr = queue(1, 2, 1, 1);
    wr->data[0] = 0xCD;
    wr->data[1] = 0xAB;
    // Reads (the second fails), the write, read-modify-writes (the second
    // one's read fails); data beyond the 1024-byte driver buffer and an
    // unknown code fail without a driver call. The pulses follow a full
    // buffer read, so a left-over byte would show in their writes.
    const RORT_node* reqs[] = {queue(0, 2, 0, 2), queue(0, 2, 10, 1), wr, queue(2, 2, 5, 1, 2), queue(2, 2, 6, 1, 2),
                               queue(0, 2, 0, 513), queue(0, 2, 0, 512), queue(2, 2, 7, 1, 256),
                               queue(2, 0, 7, 1, 256), queue(2, 2, 7, 1, 257)};
    for (int i = 0; i < 4; ++i)
        can_serve_realtime(*t);
    const int want_status[] = {1, 2, 1, 1, 3, 3, 1, 1, 2, 3};
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(reqs[i]->status, want_status[i]) << i;
    EXPECT_EQ(Bytes(reqs[0]->data, reqs[0]->data + 4), (Bytes{0x5A, 0, 0x5A, 0x5A}));
    EXPECT_EQ(reqs[6]->data[1023], 0x5A);
    EXPECT_EQ(word(cached, 1), 0xABCD); // the written value reaches the cache at once
    EXPECT_EQ(reqs[3]->data[0], 91);
    EXPECT_EQ(fake.reads, 5);
    // A pulse writes 1, then 0, over the whole register; a failed first write
    // is not followed by the resetting one.
    EXPECT_EQ(fake.writes, (std::vector<Bytes>{{0xCD, 0xAB}, {91, 0}, {1, 0}, {0, 0}, {1}}));
}

TEST_F(Can, MissingEntryPointsAreNeverCalled)
{
    t->drv = CanDriver{};
    const ORG_node* g = reg(0, 1);
    const RORT_node* reqs[] = {queue(0, 2, 0, 1), queue(1, 2, 0, 1), queue(2, 2, 0, 1, 256)};
    testing::internal::CaptureStdout();
    for (int c = 0; c < 3; ++c)
        can_cycle(*t);
    EXPECT_EQ(testing::internal::GetCapturedStdout().find("can_plc_no_response"), std::string::npos);
    for (const RORT_node* r : reqs)
        EXPECT_EQ(r->status, 3);
    EXPECT_EQ(g->status, 0);
    EXPECT_NE(t->list_head->next, t->list_tail); // blocks are still built
}

} // namespace
