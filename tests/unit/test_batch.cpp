// Batch polling: batch searches, and the batch-class cycle and bat step
// against a fake driver.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "port/batch.h"
#include "port/port_thread.h"
#include "unit_util.h"
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
