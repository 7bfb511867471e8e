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

class BlockList {
public:
    BlockList() { opt_list_init(head, tail); }
    ~BlockList() { opt_list_free(head, tail); }
    BlockList(const BlockList&) = delete;
    BlockList& operator=(const BlockList&) = delete;

    OPT_node* add(uint8_t plc, uint8_t type, int id, int32_t start, int16_t width)
    {
        auto* b = new OPT_node{};
        b->reg_addr = make_rec(1, plc, type, static_cast<uint8_t>(id), start, width);
        b->prev = tail->prev;
        b->next = tail;
        tail->prev->next = b;
        tail->prev = b;
        return b;
    }
    void add_words(int count, uint8_t plc = 1)
    {
        for (int i = 0; i < count; ++i)
            add(plc, 2, 3, i, 1);
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
    EXPECT_EQ(bat_block_cost(l.add(1, 2, 1, 0, 5)), 5);
    EXPECT_EQ(foud_bat_read_opt(l.head, l.tail), 5);

    BlockList full; // 125 + 2 words reach 127; the next one-word block does not fit
    full.add_words(125);
    full.add(1, 0, 1, 0, 16);
    full.add(1, 0, 1, 16, 8);
    EXPECT_EQ(foud_bat_read_opt(full.head, full.tail), 126);

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
    EXPECT_EQ(foud_opto_num(full.head, full.tail), 100);
}

// The value a fake driver gives register (or bit) addr of a station's kind.
uint32_t plc_value(uint16_t plc, uint8_t id, uint32_t addr)
{
    return (addr * 2654435761u) ^ (uint32_t{plc} << 24) ^ (uint32_t{id} << 16);
}
bool plc_bit(uint16_t plc, uint8_t id, uint32_t bit) { return (plc_value(plc, id, bit / 3) >> (bit % 3)) & 1; }

// The buffer a block read would give: the layout copy_data must reproduce.
std::vector<uint8_t> expected_buffer(const REG_ADDR& r)
{
    std::vector<uint8_t> out(static_cast<size_t>(cal_commbuf_size(r)));
    for (int i = 0; i < r.reg_data_width; ++i) {
        const uint32_t a = static_cast<uint32_t>(r.reg_addr_start + i);
        if (r.reg_type == 0) {
            if (plc_bit(r.plc_id, r.reg_id, a))
                out[i / 8] |= static_cast<uint8_t>(1u << (i % 8));
        } else {
            const uint32_t v = plc_value(r.plc_id, r.reg_id, a);
            std::memcpy(&out[static_cast<size_t>(i) * r.reg_type], &v, r.reg_type);
        }
    }
    return out;
}

// Fills each entry as a batch driver does: a bit entry takes up to 32 bits
// from its address on, other entries one register's value.
void fill_entries(OmronEntry* e, int n)
{
    for (int i = 0; i < n; ++i) {
        std::vector<uint8_t> v = expected_buffer(make_rec(1, static_cast<uint8_t>(e[i].plc_id), e[i].reg_type, e[i].reg_id,
                                                          static_cast<int32_t>(e[i].address),
                                                          static_cast<int16_t>(e[i].reg_type == 0 ? e[i].count : 1)));
        v.resize(4);
        std::memcpy(e[i].value, v.data(), 4);
    }
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
    fill_entries(e.data(), 9);
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
    EXPECT_EQ(blocks_fitting(l.head->next, 5, 1000), 5);
    EXPECT_EQ(build_OMRON_buff(l.head, e.data(), 0, 20), 0);
}

struct Call {
    char kind;      // 'G' register, 'R' batch read, 'S' single block read
    int count;      // entries, or the block's width
    uint16_t plc;
    uint32_t addr;  // first entry's or block's address
    bool operator==(const Call&) const = default;
};

std::vector<Call> calls;
int register_result = 0;
int read_result = 0;

int log_batch(char kind, const OmronEntry* e, int n, int result)
{
    calls.push_back({kind, n, n ? e[0].plc_id : uint16_t{0}, n ? e[0].address : 0});
    return result;
}
int fake_register(OmronEntry* e, int n, PlcParam*) { return log_batch('G', e, n, register_result); }
int fake_read(OmronEntry* e, int n, PlcParam*)
{
    if (read_result == 0)
        fill_entries(e, n);
    return log_batch('R', e, n, read_result);
}

int fake_plc_read(const DrvRegAddr* a, DrvDataRef* d, PlcParam*)
{
    calls.push_back({'S', d->count, a->plc_id, static_cast<uint32_t>(a->reg_addr_start)});
    const std::vector<uint8_t> v = expected_buffer(make_rec(1, static_cast<uint8_t>(a->plc_id), a->reg_type, a->reg_id,
                                                            a->reg_addr_start, static_cast<int16_t>(d->count)));
    std::memcpy(d->data, v.data(), v.size());
    return 0;
}

std::string kinds(const std::vector<Call>& log)
{
    std::string s;
    for (const Call& c : log)
        s += c.kind;
    return s;
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
        set_driver(1002);
    }
    void TearDown() override
    {
        opt_list_free(t->list_head, t->list_tail);
        reset_area_tables();
        register_result = read_result = 0;
    }

    void set_driver(int driver, uint16_t max_words = 64)
    {
        if (t)
            opt_list_free(t->list_head, t->list_tail);
        t = std::make_unique<PortThread>();
        t->port = t->op.port = PORT;
        t->rec.plc_driver_no = static_cast<uint16_t>(driver);
        t->rec.max_words = max_words;
        t->rec.max_bits = 64;
        t->drv.driver_no = driver;
        t->drv.batch = driver == 1002 || driver == 1003 || driver == 1005;
        t->drv.omron_read = fake_read;
        t->drv.omron_register = fake_register;
        t->op.read_fn = fake_plc_read;
        t->limits = port_block_limits(t->rec);
        opt_list_init(t->list_head, t->list_tail);
        t->cursor = t->list_head;
    }

    static REG_ADDR rec(const Range& g)
    {
        REG_ADDR r = make_rec(PORT, g.plc, g.type, g.id, g.start, g.width);
        r.addr_unit = g.type == 0 ? 1 : g.type; // element addresses, as after normalisation
        return r;
    }
    static ORG_node* reg(const Range& g) { return insert_ORT_FAT(rec(g)).org; }

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
    std::vector<Call> take_calls() { return std::exchange(calls, {}); }

    static void expect_polled(const std::vector<ORG_node*>& groups, uint8_t status = 1)
    {
        for (const ORG_node* o : groups) {
            const std::vector<uint8_t> cache(o->data, o->data + cal_commbuf_size(o->reg_addr));
            EXPECT_EQ(cache, expected_buffer(o->reg_addr)) << "reg_type " << int(o->reg_addr.reg_type);
            EXPECT_EQ(o->status, status);
        }
    }

    // Registers the ranges, runs the cycle that builds the blocks (it only
    // pauses) and the first polling cycle, which must make exactly the calls
    // wanted and fill every cache.
    std::vector<ORG_node*> first_poll(const std::vector<Range>& ranges, const std::vector<Call>& want)
    {
        std::vector<ORG_node*> groups;
        for (const Range& r : ranges)
            groups.push_back(reg(r));
        cycle();
        EXPECT_TRUE(take_calls().empty());
        cycle();
        EXPECT_EQ(take_calls(), want);
        expect_polled(groups);
        return groups;
    }

    LocalBits bits;
    std::unique_ptr<PortThread> t;
};

TEST_F(BatchPort, RegistersOnceReadsEveryWidthAndRegistersAgainAfterFailures)
{
    std::vector<ORG_node*> g = first_poll({{1, 2, 3, 0, 40}}, {{'G', 40, 1, 0}, {'R', 40, 1, 0}});
    cycle();
    // New ranges change the blocks and the driver learns the new list: bit
    // blocks [4,20) and [20,24), one byte block, two double-word blocks.
    for (const Range& r : std::vector<Range>{{1, 0, 3, 4, 20}, {1, 1, 3, 0, 2}, {1, 4, 3, 0, 2}})
        g.push_back(reg(r));
    cycle();
    cycle();
    EXPECT_EQ(take_calls(), (std::vector<Call>{{'R', 40, 1, 0}, {'G', 46, 1, 4}, {'R', 46, 1, 4}, {'R', 46, 1, 4}}));
    expect_polled(g);

    // A failed read marks every cache, keeps the values, sets the port state
    // and makes the next cycle register again; a good read clears the state.
    read_result = 2;
    cycle();
    expect_polled(g, 2);
    EXPECT_NE(get_bit(LOCAL_BIT_PORT_STATE + PORT), 0u);
    read_result = 0;
    cycle();
    EXPECT_EQ(kinds(take_calls()), "RGR");
    EXPECT_EQ(get_bit(LOCAL_BIT_PORT_STATE + PORT), 0u);
    expect_polled(g);

    // A registration error changes nothing; a time-out marks the chunk with 2.
    reg({1, 2, 3, 50, 1});
    for (int result : {3, 2}) {
        register_result = result;
        cycle();
        EXPECT_EQ(kinds(take_calls()), "G");
        EXPECT_EQ(g[0]->status, result == 2 ? 2 : 1);
    }
}

TEST_F(BatchPort, HundredBlocksRegisterAndReadInChunksEveryCycle)
{
    // Station 2's block follows the batch and is read on its own.
    const std::vector<Call> each{{'G', 69, 1, 0}, {'R', 69, 1, 0}, {'G', 31, 1, 69}, {'R', 31, 1, 69}, {'S', 1, 2, 0}};
    ORG_node* g = first_poll({{1, 2, 3, 0, 100}, {2, 2, 3, 0, 1}}, each)[0];
    EXPECT_TRUE(t->blocks_changed);
    cycle();
    EXPECT_EQ(take_calls(), each);

    // A failed first chunk goes on; a failed later one ends the cycle.
    read_result = 3;
    cycle();
    EXPECT_EQ(kinds(take_calls()), "GRGR");
    EXPECT_EQ(g->status, 3);
}

TEST_F(BatchPort, ExcludedFirstBlockPollsEveryBlockSingly)
{
    first_poll({{1, 2, 130, 0, 3}, {1, 2, 131, 0, 2}},
               {{'S', 1, 1, 0}, {'S', 1, 1, 1}, {'S', 1, 1, 2}, {'S', 1, 1, 0}, {'S', 1, 1, 1}});
    EXPECT_EQ(t->cursor, t->list_tail->prev);
}

TEST_F(BatchPort, TwoStationsBatchFirstThenSinglesForSecond)
{
    first_poll({{1, 2, 3, 0, 3}, {2, 2, 3, 7, 2}},
               {{'G', 3, 1, 0}, {'R', 3, 1, 0}, {'S', 1, 2, 7}, {'S', 1, 2, 8}});
    EXPECT_EQ(t->cursor, t->list_tail->prev);
    cycle();
    EXPECT_EQ(kinds(take_calls()), "RSS");
}

TEST_F(BatchPort, ChunksEndAtBlockBoundariesAndWideBlocksReadSingly)
{
    set_driver(422, 100); // no block-size override: word blocks of up to 100
    first_poll({{1, 2, 3, 0, 30}, {1, 2, 4, 0, 30}, {1, 2, 5, 0, 80}, {1, 2, 6, 0, 30}},
               {{'G', 60, 1, 0}, {'R', 60, 1, 0}, {'S', 80, 1, 0}, {'G', 30, 1, 0}, {'R', 30, 1, 0}});
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
    std::vector<Call> want;
    for (int c = 0; c < 17; ++c) {
        const int n = c < 16 ? 60 : 30;
        want.push_back({'G', n, 1, 0});
        want.push_back({'R', n, 1, 0});
    }
    want.insert(want.end(), 7, Call{'S', 30, 1, 0});
    first_poll(ranges, want);
}

TEST_F(BatchPort, BatStepReadsOncePerPassThenSingles)
{
    set_driver(1001);
    ORG_node* g = reg({1, 2, 3, 0, 4});
    reg({1, 2, 131, 0, 2}); // ends the bat batch

    EXPECT_TRUE(cycle(true));
    EXPECT_EQ(take_calls(), (std::vector<Call>{{'G', 4, 1, 0}, {'R', 4, 1, 0}}));
    expect_polled({g});
    EXPECT_TRUE(t->batch_done && t->bat_found);
    ASSERT_NE(t->bat_next, nullptr);
    EXPECT_EQ(t->bat_next->reg_addr.reg_id, 131);

    // Until the cursor wraps (after the other five blocks), the step hands
    // over to the single-block read.
    int singles = 0;
    while (!cycle(true) && singles < 20)
        ++singles;
    EXPECT_EQ(singles, 6);
    EXPECT_EQ(kinds(take_calls()), "R");

    // A failed read registers again in the next cycle.
    read_result = 2;
    t->batch_done = false;
    EXPECT_TRUE(cycle(true));
    read_result = 0;
    EXPECT_TRUE(cycle(true));
    EXPECT_EQ(kinds(take_calls()), "RGR");

    // No blocks left: the change is taken without a registration.
    unregister_ORT_FAT(rec({1, 2, 3, 0, 4}));
    unregister_ORT_FAT(rec({1, 2, 131, 0, 2}));
    EXPECT_FALSE(cycle(true));
    EXPECT_TRUE(take_calls().empty());
    EXPECT_FALSE(t->blocks_changed);
    EXPECT_EQ(t->entry_count, 0);
}

} // namespace
