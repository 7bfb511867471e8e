// Batch polling: batch searches, entry building and layout, and the
// batch-class cycle and bat step against a fake driver.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "port/batch.h"
#include "port/port_thread.h"
#include "table_invariants.h"
#include "tables/opt_builder.h"

using namespace table_test;

namespace {

// A hand-built block list, freed with the test.
struct BlockList {
    BlockList() { opt_list_init(head, tail); }
    ~BlockList() { opt_list_free(head, tail); }

    OPT_node* add(uint8_t plc, uint8_t type, int id, int32_t start, int16_t width)
    {
        auto* b = new OPT_node{};
        b->reg_addr = make_rec(1, plc, type, static_cast<uint8_t>(id), start, width);
        b->prev = tail->prev;
        b->next = tail;
        tail->prev = tail->prev->next = b;
        return b;
    }
    void add_words(int count)
    {
        for (int i = 0; i < count; ++i)
            add(1, 2, 3, i, 1);
    }

    OPT_node* head = nullptr;
    OPT_node* tail = nullptr;
};

TEST(BatchSearch, LimitsAndExcludedKinds)
{
    // A bit block costs one word toward the bat limit only while it stays
    // inside one 16-bit word.
    BlockList l;
    const struct { int32_t start; int16_t width; int cost; } bit_costs[] = {{10, 8, 2}, {32, 8, 1}, {21, 10, 1}, {22, 10, 2}};
    for (const auto& c : bit_costs)
        EXPECT_EQ(bat_block_cost(l.add(1, 0, 1, c.start, c.width)), c.cost) << c.start;

    BlockList full; // 125 + 2 words reach 127; the next one-word block does not fit
    full.add_words(125);
    full.add(1, 0, 1, 0, 16);
    full.add(1, 0, 1, 16, 8);
    EXPECT_EQ(foud_bat_read_opt(full.head, full.tail), 126);
    EXPECT_EQ(foud_opto_num(full.head, full.tail), 100);

    // The bat batch stops at kinds 128, 129, 131, 132; the batch-class run at
    // 128..133 (setting more) unless the driver is 236.
    for (int id = 127; id <= 134; ++id) {
        const bool bat_ex = id == 128 || id == 129 || id == 131 || id == 132;
        const bool batch_ex = id >= 128 && id <= 133;
        BlockList ex;
        ex.add_words(2);
        OPT_node* x = ex.add(1, 2, id, 0, 1);
        EXPECT_EQ(foud_bat_read_opt(ex.head, ex.tail), bat_ex ? 2 : 3) << id;
        EXPECT_EQ(foud_bat_read_opt(x->prev, ex.tail), bat_ex ? 0 : 1) << id;
        bool more = false;
        EXPECT_EQ(foud_MQSC_bat_read_opt(ex.head, ex.tail, more, 1002), batch_ex ? 2 : 3) << id;
        EXPECT_EQ(more, batch_ex) << id;
        more = false;
        EXPECT_EQ(foud_MQSC_bat_read_opt(ex.head, ex.tail, more, 236), 3) << id;
        EXPECT_FALSE(more);
    }
}

// The buffer a block read gives: register a holds a value mixing a, station
// and kind; bit a is bit a % 3 of register a / 3.
std::vector<uint8_t> expected_buffer(const REG_ADDR& r)
{
    std::vector<uint8_t> out(static_cast<size_t>(cal_commbuf_size(r)));
    for (int i = 0; i < r.reg_data_width; ++i) {
        const uint32_t a = static_cast<uint32_t>(r.reg_addr_start + i);
        const uint32_t reg = r.reg_type == 0 ? a / 3 : a;
        const uint32_t v = (reg * 2654435761u) ^ (uint32_t{r.plc_id} << 24) ^ (uint32_t{r.reg_id} << 16);
        if (r.reg_type == 0)
            out[i / 8] |= static_cast<uint8_t>(((v >> (a % 3)) & 1) << (i % 8));
        else
            std::memcpy(&out[static_cast<size_t>(i) * r.reg_type], &v, r.reg_type);
    }
    return out;
}

TEST(BatchEntries, BuildAndCopyRoundTripForEveryWidth)
{
    BlockList l;
    l.add(1, 0, 7, 5, 13)->reg_addr.byte_offset = 9;
    l.add(1, 1, 7, 10, 3);
    l.add(2, 2, 8, 20, 2);
    l.add(2, 4, 9, 30, 2);
    l.add(2, 0, 9, 3, 40); // more bits than one entry carries

    std::vector<OmronEntry> e(20);
    ASSERT_EQ(build_OMRON_buff(l.head, e.data(), 5, 20), 1 + 3 + 2 + 2 + 1);
    EXPECT_EQ(e[0].byte_offset, 9);
    // Filled as a batch driver does: a bit entry takes up to 32 bits from its
    // address on, other entries one register's value.
    for (int i = 0; i < 9; ++i) {
        std::vector<uint8_t> v = expected_buffer(make_rec(1, static_cast<uint8_t>(e[i].plc_id), e[i].reg_type, e[i].reg_id,
                                                          static_cast<int32_t>(e[i].address),
                                                          static_cast<int16_t>(e[i].reg_type == 0 ? e[i].count : 1)));
        v.resize(4);
        std::memcpy(e[i].value, v.data(), 4);
    }
    const OmronEntry* pos = e.data();
    for (OPT_node* b = l.head->next; b != l.tail; b = b->next) {
        std::vector<uint8_t> buf(64, 0xCC);
        copy_data(b, pos, buf.data());
        std::vector<uint8_t> want = expected_buffer(b->reg_addr);
        for (size_t i = 4; b->reg_addr.reg_type == 0 && i < want.size(); ++i)
            want[i] = 0; // beyond the 32 bits of the entry: cleared
        EXPECT_EQ(std::vector<uint8_t>(buf.begin(), buf.begin() + want.size()), want)
            << "reg_type " << int(b->reg_addr.reg_type);
        pos += block_entry_count(b);
    }

    // Only whole blocks: 1 + 3 fit 5, the two words would not.
    EXPECT_EQ(build_OMRON_buff(l.head, e.data(), 5, 5), 4);
    EXPECT_EQ(blocks_fitting(l.head->next, 5, 5), 2);
}

// What the fake driver was asked, one "K<n>:<station>:<address> " per call:
// K is G (register), R (batch read) or S (single block read), n the entries
// or the block's width, address the first entry's or the block's.
std::string calls;
int register_result = 0;
int read_result = 0;

int log_call(char kind, int n, int plc, int64_t addr, int result)
{
    calls += kind + std::to_string(n) + ':' + std::to_string(plc) + ':' + std::to_string(addr) + ' ';
    return result;
}
int fake_register(OmronEntry* e, int n, PlcParam*) { return log_call('G', n, e[0].plc_id, e[0].address, register_result); }
int fake_read(OmronEntry* e, int n, PlcParam*) { return log_call('R', n, e[0].plc_id, e[0].address, read_result); }
int fake_plc_read(const DrvRegAddr* a, DrvDataRef* d, PlcParam*)
{
    return log_call('S', d->count, a->plc_id, a->reg_addr_start, 0);
}

struct Range {
    uint8_t plc, type, id;
    int32_t start;
    int16_t width;
};

// A port thread of one port, its tables and the fake driver.
class BatchPort : public testing::Test {
protected:
    static constexpr uint8_t PORT = 1;

    void SetUp() override
    {
        reset_area_tables();
        calls.clear();
        t->port = t->op.port = PORT;
        t->drv.omron_read = fake_read;
        t->drv.omron_register = fake_register;
        t->op.read_fn = fake_plc_read;
        opt_list_init(t->list_head, t->list_tail);
        t->cursor = t->list_head;
        set_driver(1002);
    }
    void TearDown() override
    {
        opt_list_free(t->list_head, t->list_tail);
        reset_area_tables();
        register_result = read_result = 0;
    }
    // Before any range is registered.
    void set_driver(int driver, uint16_t max_words = 64)
    {
        t->drv.driver_no = driver;
        t->rec.plc_driver_no = static_cast<uint16_t>(driver);
        t->rec.max_words = max_words;
        t->limits = port_block_limits(t->rec);
    }

    static REG_ADDR rec(const Range& g)
    {
        REG_ADDR r = make_rec(PORT, g.plc, g.type, g.id, g.start, g.width);
        r.addr_unit = g.type == 0 ? 1 : g.type; // element addresses, as after normalisation
        return r;
    }
    static ORG_node* reg(const Range& g) { return reg_range(rec(g)).org; }

    // One port cycle from the block rebuild on: the batch-class path, or the
    // bat/opto step (true when it ended the cycle).
    bool cycle(bool bat = false)
    {
        bool wrapped = false;
        if (rebuild_OPT_links(t->port, t->list_head, t->list_tail, t->cursor, t->limits, &wrapped))
            t->blocks_changed = true;
        if (wrapped)
            t->batch_done = false;
        if (bat)
            return port_bat_opto_step(*t);
        port_batch_cycle(*t);
        return true;
    }
    std::string take_calls() { return std::exchange(calls, {}); }

    // Registers the ranges, runs the cycle that builds the blocks (it only
    // pauses) and the first polling cycle, which must make exactly the calls
    // wanted and mark every cache as polled.
    std::vector<ORG_node*> first_poll(const std::vector<Range>& ranges, const std::string& want)
    {
        std::vector<ORG_node*> groups;
        for (const Range& r : ranges)
            groups.push_back(reg(r));
        cycle();
        EXPECT_EQ(take_calls(), "");
        cycle();
        EXPECT_EQ(take_calls(), want);
        for (const ORG_node* o : groups)
            EXPECT_EQ(o->status, 1);
        return groups;
    }

    LocalBits bits;
    std::unique_ptr<PortThread> t = std::make_unique<PortThread>();
};

TEST_F(BatchPort, FailuresMarkCachesAndRegisterAgain)
{
    ORG_node* g = first_poll({{1, 2, 3, 0, 4}}, "G4:1:0 R4:1:0 ")[0];
    // A failed read marks the caches and makes the next cycle register again.
    read_result = 2;
    cycle();
    EXPECT_EQ(g->status, 2);
    read_result = 0;
    cycle();
    EXPECT_EQ(take_calls(), "R4:1:0 G4:1:0 R4:1:0 ");
    EXPECT_EQ(g->status, 1);

    // A registration error changes nothing; a time-out marks the chunk with 2.
    reg({1, 2, 3, 50, 1});
    for (int result : {3, 2}) {
        register_result = result;
        cycle();
        EXPECT_EQ(take_calls(), "G5:1:0 ");
        EXPECT_EQ(g->status, result == 2 ? 2 : 1);
    }
}

TEST_F(BatchPort, HundredBlocksRegisterAndReadInChunksEveryCycle)
{
    // Station 2's block follows the batch and is read on its own.
    ORG_node* g = first_poll({{1, 2, 3, 0, 100}, {2, 2, 3, 0, 1}}, "G69:1:0 R69:1:0 G31:1:69 R31:1:69 S1:2:0 ")[0];
    // Registered again in the next cycle; a failed first chunk goes on, a
    // failed later one ends the cycle and marks the rest of the batch.
    read_result = 3;
    cycle();
    EXPECT_EQ(take_calls(), "G69:1:0 R69:1:0 G31:1:69 R31:1:69 ");
    EXPECT_EQ(g->status, 3);
}

TEST_F(BatchPort, ChunksEndAtBlockBoundariesAndWideBlocksReadSingly)
{
    set_driver(422, 100); // no block-size override: word blocks of up to 100
    first_poll({{1, 2, 3, 0, 30}, {1, 2, 4, 0, 30}, {1, 2, 5, 0, 80}, {1, 2, 6, 0, 30}},
               "G60:1:0 R60:1:0 S80:1:0 G30:1:0 R30:1:0 ");
    EXPECT_TRUE(t->blocks_changed); // two chunks: registered again every cycle
}

TEST_F(BatchPort, EntryArrayBoundsTheBatch)
{
    set_driver(422, 30);
    std::vector<Range> ranges; // 40 blocks of 30: 1200 entries
    for (uint8_t id = 1; id <= 40; ++id)
        ranges.push_back({1, 2, id, 0, 30});
    // 33 whole blocks fit 1000 entries: 16 chunks of two blocks and one of
    // one; the other 7 blocks are read singly.
    std::string chunks, singles;
    for (int c = 0; c < 16; ++c)
        chunks += "G60:1:0 R60:1:0 ";
    for (int c = 0; c < 7; ++c)
        singles += "S30:1:0 ";
    first_poll(ranges, chunks + "G30:1:0 R30:1:0 " + singles);
}

TEST_F(BatchPort, BatStepReadsOncePerPassThenSingles)
{
    set_driver(1001);
    ORG_node* g = reg({1, 2, 3, 0, 4});
    reg({1, 2, 131, 0, 2}); // ends the bat batch
    EXPECT_TRUE(cycle(true));
    EXPECT_EQ(g->status, 1);
    EXPECT_EQ(t->bat_next ? t->bat_next->reg_addr.reg_id : 0, 131);

    // Until the cursor wraps (after the other five blocks) the step hands
    // over to the single-block read; a failed read registers again.
    int singles = 0;
    while (!cycle(true) && singles < 20)
        ++singles;
    EXPECT_EQ(singles, 6);
    read_result = 2;
    t->batch_done = false;
    EXPECT_TRUE(cycle(true));
    read_result = 0;
    EXPECT_TRUE(cycle(true));
    EXPECT_EQ(take_calls(), "G4:1:0 R4:1:0 R4:1:0 R4:1:0 G4:1:0 R4:1:0 ");

    // No blocks left: the change is taken without a registration.
    unreg_range(rec({1, 2, 3, 0, 4}));
    unreg_range(rec({1, 2, 131, 0, 2}));
    EXPECT_FALSE(cycle(true));
    EXPECT_EQ(take_calls(), "");
    EXPECT_FALSE(t->blocks_changed);
    EXPECT_EQ(t->entry_count, 0);
}

} // namespace
