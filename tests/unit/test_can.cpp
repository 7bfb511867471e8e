// The CAN port cycle driven with stand-in driver entry points.
#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "can/can_port.h"
#include "table_invariants.h"
#include "tables/realtime_list.h"

using namespace table_test;

namespace {

constexpr int PORT = 2;
constexpr uint8_t STATION = 1;
constexpr uint8_t KIND = 3;

// What the stand-in driver was asked and what it answers.
struct FakeCan {
    std::vector<std::vector<OmronEntry>> batches;   // entries of each batch call
    std::deque<int> batch_results;                  // popped per call; 0 once empty
    int init_calls = 0;
    std::vector<DrvRegAddr> reads;
    std::vector<std::vector<uint8_t>> writes;       // data of each write
    std::deque<int> read_results;
    std::deque<int> write_results;
    std::vector<uint8_t> read_value;                // what a read delivers
    uint32_t value_base = 1000;                     // word value = base + address
};
FakeCan* fake = nullptr;

int next_result(std::deque<int>& q)
{
    if (q.empty())
        return 0;
    const int r = q.front();
    q.pop_front();
    return r;
}

int fake_init(PortDevice*, PlcParam*, pthread_mutex_t*)
{
    ++fake->init_calls;
    return 0;
}

int fake_canopen(OmronEntry* e, int n, PlcParam*, pthread_mutex_t*)
{
    fake->batches.emplace_back(e, e + n);
    const int r = next_result(fake->batch_results);
    if (r != 0)
        return r;
    for (int i = 0; i < n; ++i) {
        // Bit entries: every other bit on from the entry's address; words: base + address.
        const uint32_t v = e[i].reg_type == 0 ? (e[i].address % 2 == 0 ? 0x55555555u : 0xAAAAAAAAu)
                                              : fake->value_base + e[i].address;
        std::memcpy(e[i].value, &v, 4);
    }
    return 0;
}

int fake_read(const DrvRegAddr* a, DrvDataRef* d, PlcParam*, pthread_mutex_t*)
{
    fake->reads.push_back(*a);
    const int r = next_result(fake->read_results);
    if (r == 0)
        std::memcpy(d->data, fake->read_value.data(), fake->read_value.size());
    return r;
}

int fake_write(const DrvRegAddr* a, DrvDataRef* d, PlcParam*, pthread_mutex_t*)
{
    const int n = cal_commbuf_size(a->reg_type, static_cast<int16_t>(d->count));
    fake->writes.emplace_back(d->data, d->data + n);
    return next_result(fake->write_results);
}

class Can : public testing::Test {
protected:
    void SetUp() override
    {
        reset_area_tables();
        fake = &driver;
        t = std::make_unique<CanPort>();
        t->port = PORT;
        t->drv = CanDriver{fake_init, fake_read, fake_write, fake_canopen};
        com_port_info rec{};
        rec.max_words = 1;
        rec.max_bits = 64;
        t->limits = can_block_limits(rec);
        opt_list_init(t->list_head, t->list_tail);
        t->cursor = t->list_head;
    }
    void TearDown() override
    {
        {
            std::lock_guard lock(mutex);
            while (RORT_link_head->next != RORT_link_tail)
                delete_realtime_link(RORT_link_head->next);
        }
        opt_list_free(t->list_head, t->list_tail);
        reset_area_tables();
        fake = nullptr;
    }

    ORG_node* reg(uint8_t type, int32_t start, int16_t width, uint8_t addr_unit = 0)
    {
        REG_ADDR r = make_rec(PORT, STATION, type, KIND, start, width);
        r.addr_unit = addr_unit;
        std::unique_lock lock(rwlock);
        return insert_ORT_FAT(r).org;
    }
    // Cycles until the blocks are built and polled once.
    void poll()
    {
        can_cycle(*t);
        if (driver.batches.empty())
            can_cycle(*t);
    }
    std::vector<int> batch_sizes() const
    {
        std::vector<int> v;
        for (const auto& b : driver.batches)
            v.push_back(static_cast<int>(b.size()));
        return v;
    }
    RORT_node* queue(int req_type, uint8_t type, int32_t start, int16_t width, int32_t op = 0)
    {
        const REG_ADDR r = make_rec(PORT, STATION, type, KIND, start, width);
        RORT_node* n = new_realtime_node(cal_commbuf_size(r));
        n->rw_oper = rw_oper{op, 1, 100, 0, 1, 0};
        std::lock_guard lock(mutex);
        insert_realtime_link(n, r, req_type);
        return n;
    }
    static uint16_t word(const ORG_node* o, int i) { return static_cast<uint16_t>(o->data[2 * i] | o->data[2 * i + 1] << 8); }

    FakeCan driver;
    std::unique_ptr<CanPort> t;
    LocalBits bits;
};

TEST(CanLimits, DerivedFromTheRecordAndCappedToOneCall)
{
    com_port_info rec{};
    rec.max_words = 0;
    rec.max_bits = 0;
    rec.word_gap = 200;
    rec.bit_gap = 7;
    OPT_limits l = can_block_limits(rec);
    EXPECT_EQ(l.word_len, 1); // a limit of 0 builds one-register blocks
    EXPECT_EQ(l.bit_len, 1);
    EXPECT_EQ(l.byte_gap, 144); // 400 kept to 8 bits
    EXPECT_EQ(l.dword_gap, 100);
    EXPECT_EQ(l.word_gap, 200);
    EXPECT_EQ(l.bit_gap, 7);

    rec.max_words = 9;
    rec.max_bits = 20;
    l = can_block_limits(rec);
    EXPECT_EQ(l.word_len, 9);
    EXPECT_EQ(l.byte_len, 18);
    EXPECT_EQ(l.dword_len, 5);
    EXPECT_EQ(l.bit_len, 20);

    // Wider limits stop where one block would no longer fit one call.
    rec.max_words = 65535;
    rec.max_bits = 256;
    l = can_block_limits(rec);
    EXPECT_EQ(l.word_len, CAN_CALL_ENTRIES);
    EXPECT_EQ(l.byte_len, CAN_CALL_ENTRIES);
    EXPECT_EQ(l.dword_len, CAN_CALL_ENTRIES);
    EXPECT_EQ(l.bit_len, CAN_ENTRY_BITS);
}

TEST_F(Can, WideBlocksAreSplitAtBlockBoundaries)
{
    com_port_info rec{};
    rec.max_words = 10;
    rec.max_bits = 32;
    t->limits = can_block_limits(rec);
    // Eight word blocks of 10 registers and two bit blocks: 82 entries.
    std::vector<ORG_node*> groups;
    for (int i = 0; i < 8; ++i)
        groups.push_back(reg(2, 100 * i, 10, 2));
    ORG_node* bits_a = reg(0, 3, 20);
    ORG_node* bits_b = reg(0, 64, 5);
    poll();
    // The bit area sorts first: 1 + 1 + 3 x 10 | 3 x 10 | 2 x 10.
    ASSERT_EQ(batch_sizes(), (std::vector<int>{32, 30, 20}));
    for (const auto& b : driver.batches)
        EXPECT_LE(static_cast<int>(b.size()), CAN_CALL_ENTRIES);
    for (int i = 0; i < 8; ++i)
        for (int k = 0; k < 10; ++k)
            ASSERT_EQ(word(groups[i], k), 1000 + 100 * i + k) << i << "/" << k;
    // Bit fields arrive from the block's first bit: 3 is odd, so 0xAA.. pattern.
    EXPECT_EQ(bits_a->status, 1);
    EXPECT_EQ(bits_a->data[0], 0xAA);
    EXPECT_EQ(bits_a->data[2] & 0x0F, 0x0A);
    EXPECT_EQ(bits_b->data[0] & 0x1F, 0x15);
}

TEST_F(Can, FailuresCountReinitAndLaterCallsKeepCaches)
{
    std::vector<ORG_node*> groups;
    for (int i = 0; i < 40; ++i)
        groups.push_back(reg(2, 10 * i, 1, 2));
    poll();
    ASSERT_EQ(groups[39]->status, 1);

    // The second call fails: its blocks keep values and status while the
    // count stays low; the first call's blocks take the new values.
    driver.value_base = 5000;
    driver.batch_results = {0, 2};
    can_cycle(*t);
    EXPECT_EQ(word(groups[0], 0), 5000);
    EXPECT_EQ(groups[36]->status, 1);
    EXPECT_EQ(word(groups[36], 0), 1000 + 360);
    EXPECT_EQ(t->can_plc_no_response, 1);

    // Both calls fail: the first call's blocks see it at once; the later
    // blocks only once the count passes 8; then the bridge is re-initialised.
    driver.batch_results.assign(10, 3);
    testing::internal::CaptureStdout();
    for (int c = 0; c < 3; ++c)
        can_cycle(*t);
    EXPECT_EQ(groups[0]->status, 3);
    EXPECT_EQ(word(groups[0], 0), 5000);
    EXPECT_EQ(groups[36]->status, 1);
    EXPECT_EQ(t->can_plc_no_response, 7); // 1 + 3 x 2
    EXPECT_EQ(driver.init_calls, 0);
    can_cycle(*t);                        // 8, then 9: reported, then reinit
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(groups[36]->status, 3);
    EXPECT_EQ(word(groups[36], 0), 1000 + 360);
    EXPECT_EQ(driver.init_calls, 1);
    EXPECT_EQ(t->can_plc_no_response, 0);
    EXPECT_NE(out.find("1++++can_plc_no_response=7\r\n1++++can_plc_no_response=9\r\n"
                       "reinit LPC2119********************\r\n"),
              std::string::npos)
        << out;
}

TEST_F(Can, RealtimeReadsWritesAndOperations)
{
    ORG_node* cached = reg(2, 0, 4, 2);
    driver.read_value = {0x34, 0x12, 0x78, 0x56};

    RORT_node* rd = queue(0, 2, 0, 2);
    RORT_node* failed = queue(0, 2, 10, 1);
    driver.read_results = {0, 2};
    const uint8_t wdata[2] = {0xCD, 0xAB};
    RORT_node* wr = queue(1, 2, 1, 1);
    std::memcpy(wr->data, wdata, 2);
    can_serve_realtime(*t);
    EXPECT_EQ(rd->status, 1);
    EXPECT_EQ(std::vector<uint8_t>(rd->data, rd->data + 4), driver.read_value);
    EXPECT_EQ(failed->status, 2);
    EXPECT_EQ(failed->data[0], 0);
    EXPECT_EQ(wr->status, 1);
    ASSERT_EQ(driver.writes.size(), 1u);
    EXPECT_EQ(driver.writes[0], (std::vector<uint8_t>{0xCD, 0xAB}));
    EXPECT_EQ(word(cached, 1), 0xABCD); // the written value reaches the cache at once

    // Read-modify-write: op 2 adds the step to the value read.
    driver.writes.clear();
    driver.read_value = {41, 0};
    RORT_node* op = queue(2, 2, 5, 1, 2);
    can_serve_realtime(*t);
    EXPECT_EQ(op->status, 1);
    ASSERT_EQ(driver.writes.size(), 1u);
    EXPECT_EQ(driver.writes[0], (std::vector<uint8_t>{42, 0}));
    EXPECT_EQ(op->data[0], 42);
    EXPECT_EQ(op->rw_oper.direction, 2); // the operation's block goes back to the request

    // A failed read sends no write.
    driver.writes.clear();
    driver.read_results = {3};
    RORT_node* op_fail = queue(2, 2, 6, 1, 2);
    can_serve_realtime(*t);
    EXPECT_EQ(op_fail->status, 3);
    EXPECT_TRUE(driver.writes.empty());
}

TEST_F(Can, PulsesUnknownCodesAndOversizedRequests)
{
    RORT_node* pulse = queue(2, 2, 7, 1, 256);
    can_serve_realtime(*t);
    EXPECT_EQ(pulse->status, 1);
    ASSERT_EQ(driver.writes.size(), 2u);
    EXPECT_EQ(driver.writes[0], (std::vector<uint8_t>{1, 0}));
    EXPECT_EQ(driver.writes[1], (std::vector<uint8_t>{0, 0}));

    // A first write that fails is not followed by the resetting one.
    driver.writes.clear();
    driver.write_results = {2};
    RORT_node* pulse_fail = queue(2, 0, 7, 1, 256);
    can_serve_realtime(*t);
    EXPECT_EQ(pulse_fail->status, 2);
    EXPECT_EQ(driver.writes.size(), 1u);

    // Unknown codes and data larger than the driver buffer complete as
    // failed without a driver call, so later requests are served.
    driver.writes.clear();
    RORT_node* unknown = queue(2, 2, 7, 1, 257);
    RORT_node* big = queue(0, 2, 0, 513);
    RORT_node* fits = queue(0, 2, 0, 512);
    driver.read_value.assign(1024, 0x5A);
    can_serve_realtime(*t);
    EXPECT_EQ(unknown->status, 3);
    EXPECT_EQ(big->status, 3);
    EXPECT_EQ(fits->status, 1);
    EXPECT_EQ(fits->data[1023], 0x5A);
    EXPECT_EQ(driver.reads.size(), 1u);
    EXPECT_TRUE(driver.writes.empty());
}

TEST_F(Can, MissingEntryPointsAreNeverCalled)
{
    t->drv = CanDriver{};
    ORG_node* g = reg(2, 0, 1, 2);
    RORT_node* rd = queue(0, 2, 0, 1);
    RORT_node* wr = queue(1, 2, 0, 1);
    RORT_node* op = queue(2, 2, 0, 1, 256);
    testing::internal::CaptureStdout();
    for (int c = 0; c < 3; ++c)
        can_cycle(*t);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(rd->status, 3);
    EXPECT_EQ(wr->status, 3);
    EXPECT_EQ(op->status, 3);
    EXPECT_EQ(g->status, 0);
    EXPECT_EQ(out.find("can_plc_no_response"), std::string::npos);
    EXPECT_NE(t->list_head->next, t->list_tail); // blocks are still built

    // Without ev_plc_init the re-initialisation only starts the count again.
    t->drv.canopen_read = fake_canopen;
    driver.batch_results.assign(9, 2);
    for (int c = 0; c < 9; ++c)
        can_cycle(*t);
    EXPECT_EQ(driver.batches.size(), 9u);
    EXPECT_EQ(t->can_plc_no_response, 0);
    EXPECT_EQ(g->status, 2);
}

} // namespace
