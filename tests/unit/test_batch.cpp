// Batch polling: batch searches, entry building and layout, and the cycles
// of the batch-class and bat/opto drivers against a fake driver.
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

// ---- block lists built by hand ----------------------------------------------

class BlockList {
public:
    BlockList() { opt_list_init(head, tail); }
    ~BlockList() { opt_list_free(head, tail); }
    BlockList(const BlockList&) = delete;
    BlockList& operator=(const BlockList&) = delete;

    OPT_node* add(uint8_t plc, uint8_t type, uint8_t id, int32_t start, int16_t width)
    {
        auto* b = new OPT_node{};
        b->reg_addr = make_rec(1, plc, type, id, start, width);
        b->prev = tail->prev;
        b->next = tail;
        tail->prev->next = b;
        tail->prev = b;
        return b;
    }
    void add_words(int count, uint8_t plc = 1, uint8_t id = 3)
    {
        for (int i = 0; i < count; ++i)
            add(plc, 2, id, i, 1);
    }

    OPT_node* head = nullptr;
    OPT_node* tail = nullptr;
};

TEST(BatchSearch, BatCostsLimitAndExclusions)
{
    {
        BlockList l;
        EXPECT_EQ(foud_bat_read_opt(l.head, l.tail), 0);
        OPT_node* at10 = l.add(1, 0, 1, 10, 8);   // bits 10..17: two words
        OPT_node* at0 = l.add(1, 0, 1, 32, 8);    // bits 32..39: one word
        OPT_node* at5 = l.add(1, 0, 1, 21, 10);   // bits 21..30: 5 + 10 = 15, one word
        OPT_node* edge = l.add(1, 0, 1, 22, 10);  // 6 + 10 = 16: two words
        EXPECT_EQ(bat_block_cost(at10), 2);
        EXPECT_EQ(bat_block_cost(at0), 1);
        EXPECT_EQ(bat_block_cost(at5), 1);
        EXPECT_EQ(bat_block_cost(edge), 2);
        EXPECT_EQ(bat_block_cost(l.add(1, 2, 1, 0, 5)), 5);
        EXPECT_EQ(foud_bat_read_opt(l.head, l.tail), 5);
    }
    {
        // 125 words, then a two-word bit block does not fit 127 but a one-word one does.
        BlockList l;
        l.add_words(125);
        l.add(1, 0, 1, 0, 16);   // costs 2: 127
        l.add(1, 0, 1, 16, 8);   // costs 1: over the limit
        EXPECT_EQ(foud_bat_read_opt(l.head, l.tail), 126);
    }
    for (int id : {128, 129, 131, 132}) {
        BlockList first;
        first.add(1, 2, static_cast<uint8_t>(id), 0, 1);
        first.add_words(3);
        EXPECT_EQ(foud_bat_read_opt(first.head, first.tail), 0) << id;
        BlockList middle;
        middle.add_words(3);
        middle.add(1, 2, static_cast<uint8_t>(id), 0, 1);
        middle.add_words(3);
        EXPECT_EQ(foud_bat_read_opt(middle.head, middle.tail), 3) << id;
    }
}

TEST(BatchSearch, OptoCountsAtMostHundred)
{
    BlockList l;
    EXPECT_EQ(foud_opto_num(l.head, l.tail), 0);
    l.add_words(42);
    EXPECT_EQ(foud_opto_num(l.head, l.tail), 42);
    l.add_words(100);
    EXPECT_EQ(foud_opto_num(l.head, l.tail), 100);
}

TEST(BatchSearch, BatchClassTakesLeadingRunOfFirstStation)
{
    bool more = false;
    {
        BlockList l;
        EXPECT_EQ(foud_MQSC_bat_read_opt(l.head, l.tail, more, 1002), 0);
        EXPECT_FALSE(more);
        l.add_words(3, 1);
        EXPECT_EQ(foud_MQSC_bat_read_opt(l.head, l.tail, more, 1002), 3);
        EXPECT_FALSE(more); // ends at the tail
        l.add_words(2, 2);
        l.add_words(2, 1);
        EXPECT_EQ(foud_MQSC_bat_read_opt(l.head, l.tail, more, 1002), 3);
        EXPECT_TRUE(more);
    }
    for (int id : {128, 130, 133}) {
        BlockList l;
        l.add(1, 2, static_cast<uint8_t>(id), 0, 1);
        l.add_words(2);
        more = false;
        EXPECT_EQ(foud_MQSC_bat_read_opt(l.head, l.tail, more, 1002), 0) << id;
        EXPECT_TRUE(more);
        more = false;
        EXPECT_EQ(foud_MQSC_bat_read_opt(l.head, l.tail, more, 236), 3) << id;
        EXPECT_FALSE(more);
    }
    BlockList l;
    l.add_words(2);
    l.add(1, 2, 131, 0, 1);
    l.add(1, 2, 134, 0, 1);
    more = false;
    EXPECT_EQ(foud_MQSC_bat_read_opt(l.head, l.tail, more, 19), 2);
    EXPECT_TRUE(more);
}

// ---- entries and their layout ------------------------------------------------

// The value a fake driver gives register (or bit) addr of a station's kind.
uint32_t plc_value(uint16_t plc, uint8_t id, uint32_t addr)
{
    return (addr * 2654435761u) ^ (uint32_t{plc} << 24) ^ (uint32_t{id} << 16);
}
bool plc_bit(uint16_t plc, uint8_t id, uint32_t bit) { return (plc_value(plc, id, bit / 3) >> (bit % 3)) & 1; }

// Fills each entry as a batch driver does.
void fill_entries(OmronEntry* e, int n)
{
    for (int i = 0; i < n; ++i) {
        uint32_t v = 0;
        if (e[i].reg_type == 0) {
            for (int k = 0; k < e[i].count && k < 32; ++k)
                v |= uint32_t{plc_bit(e[i].plc_id, e[i].reg_id, e[i].address + k)} << k;
        } else {
            v = plc_value(e[i].plc_id, e[i].reg_id, e[i].address);
            if (e[i].reg_type == 1)
                v &= 0xFF;
            else if (e[i].reg_type == 2)
                v &= 0xFFFF;
        }
        std::memcpy(e[i].value, &v, 4);
    }
}

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

TEST(BatchEntries, BuildAndCopyRoundTripForEveryWidth)
{
    BlockList l;
    OPT_node* bits = l.add(1, 0, 7, 5, 13);
    bits->reg_addr.byte_offset = 9;
    OPT_node* bytes = l.add(1, 1, 7, 10, 3);
    OPT_node* words = l.add(2, 2, 8, 20, 2);
    OPT_node* dwords = l.add(2, 4, 9, 30, 2);
    OPT_node* wide_bits = l.add(2, 0, 9, 3, 40);

    std::vector<OmronEntry> e(20);
    ASSERT_EQ(build_OMRON_buff(l.head, e.data(), 5, 20), 1 + 3 + 2 + 2 + 1);
    EXPECT_EQ(e[0].plc_id, 1);
    EXPECT_EQ(e[0].reg_type, 0);
    EXPECT_EQ(e[0].reg_id, 7);
    EXPECT_EQ(e[0].address, 5u);
    EXPECT_EQ(e[0].count, 13);
    EXPECT_EQ(e[0].byte_offset, 9);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(e[1 + i].address, 10u + i);
        EXPECT_EQ(e[1 + i].count, 1);
        EXPECT_EQ(e[1 + i].reg_type, 1);
    }
    EXPECT_EQ(e[5].address, 21u);
    EXPECT_EQ(e[5].plc_id, 2);
    EXPECT_EQ(e[7].address, 31u);
    EXPECT_EQ(e[7].reg_type, 4);
    EXPECT_EQ(e[8].count, 40);

    fill_entries(e.data(), 9);
    const OmronEntry* pos = e.data();
    for (OPT_node* b : {bits, bytes, words, dwords}) {
        std::vector<uint8_t> buf(64, 0xCC);
        copy_data(b, pos, buf.data());
        const std::vector<uint8_t> want = expected_buffer(b->reg_addr);
        EXPECT_EQ(std::vector<uint8_t>(buf.begin(), buf.begin() + want.size()), want)
            << "reg_type " << int(b->reg_addr.reg_type);
        pos += block_entry_count(b);
    }
    // A bit entry carries 32 bits: the rest of a wider block is cleared.
    std::vector<uint8_t> buf(8, 0xCC);
    copy_data(wide_bits, pos, buf.data());
    std::vector<uint8_t> want = expected_buffer(wide_bits->reg_addr);
    want[4] = 0;
    EXPECT_EQ(std::vector<uint8_t>(buf.begin(), buf.begin() + 5), want);

    // Only whole blocks: 1 + 3 fit 5, the two words would not.
    EXPECT_EQ(build_OMRON_buff(l.head, e.data(), 5, 5), 4);
    EXPECT_EQ(blocks_fitting(l.head->next, 5, 5), 2);
    EXPECT_EQ(blocks_fitting(l.head->next, 5, 1000), 5);
    EXPECT_EQ(build_OMRON_buff(l.head, e.data(), 0, 20), 0);
}

// ---- fake driver ------------------------------------------------------------

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
int single_result = 0;

int fake_register(OmronEntry* e, int n, PlcParam*)
{
    calls.push_back({'G', n, n ? e[0].plc_id : uint16_t{0}, n ? e[0].address : 0});
    return register_result;
}

int fake_read(OmronEntry* e, int n, PlcParam*)
{
    calls.push_back({'R', n, n ? e[0].plc_id : uint16_t{0}, n ? e[0].address : 0});
    if (read_result == 0)
        fill_entries(e, n);
    return read_result;
}

int fake_plc_read(const DrvRegAddr* a, DrvDataRef* d, PlcParam*)
{
    calls.push_back({'S', d->count, a->plc_id, static_cast<uint32_t>(a->reg_addr_start)});
    if (single_result == 0) {
        REG_ADDR r = make_rec(1, static_cast<uint8_t>(a->plc_id), a->reg_type, a->reg_id, a->reg_addr_start,
                              static_cast<int16_t>(d->count));
        const std::vector<uint8_t> v = expected_buffer(r);
        std::memcpy(d->data, v.data(), v.size());
    }
    return single_result;
}

int fake_write(const DrvRegAddr*, DrvDataRef*, PlcParam*) { return 0; }

std::vector<int> counts_of(char kind, const std::vector<Call>& log)
{
    std::vector<int> out;
    for (const Call& c : log)
        if (c.kind == kind)
            out.push_back(c.count);
    return out;
}

std::string kinds(const std::vector<Call>& log)
{
    std::string s;
    for (const Call& c : log)
        s += c.kind;
    return s;
}

// A port thread of one port, its tables and the fake driver.
class BatchPort : public testing::Test {
protected:
    static constexpr uint8_t PORT = 1;

    void SetUp() override
    {
        reset_area_tables();
        calls.clear();
        register_result = read_result = single_result = 0;
        set_driver(1002);
    }
    void TearDown() override
    {
        opt_list_free(t->list_head, t->list_tail);
        reset_area_tables();
    }

    void set_driver(int driver, uint16_t max_words = 64)
    {
        if (t && t->list_head)
            opt_list_free(t->list_head, t->list_tail);
        t = std::make_unique<PortThread>();
        t->port = PORT;
        t->rec.deviceport = PORT;
        t->rec.plc_driver_no = static_cast<uint16_t>(driver);
        t->rec.max_words = max_words;
        t->rec.max_bits = 64;
        t->drv.driver_no = driver;
        t->drv.batch = driver == 1002 || driver == 1003 || driver == 1005;
        t->drv.omron_read = fake_read;
        t->drv.omron_register = fake_register;
        t->drv.read = fake_plc_read;
        t->drv.write = fake_write;
        t->usable = true;
        t->op.port = PORT;
        t->op.read_fn = fake_plc_read;
        t->op.write_fn = fake_write;
        t->limits = port_block_limits(t->rec);
        opt_list_init(t->list_head, t->list_tail);
        t->cursor = t->list_head;
    }

    static ORG_node* reg(uint8_t plc, uint8_t type, uint8_t id, int32_t start, int16_t width)
    {
        REG_ADDR r = make_rec(PORT, plc, type, id, start, width);
        r.addr_unit = type == 0 ? 1 : type; // element addresses, as after normalisation
        ORG_node* o = insert_ORT_FAT(r).org;
        EXPECT_NE(o, nullptr);
        return o;
    }

    // The parts of a port cycle that lead to the batch path.
    void batch_cycle()
    {
        bool wrapped = false;
        if (rebuild_OPT_links(t->port, t->list_head, t->list_tail, t->cursor, t->limits, &wrapped))
            t->blocks_changed = true;
        if (wrapped)
            t->batch_done = false;
        port_batch_cycle(*t);
    }
    // The bat/opto step of a cycle; true when it ended the cycle.
    bool bat_cycle()
    {
        bool wrapped = false;
        if (rebuild_OPT_links(t->port, t->list_head, t->list_tail, t->cursor, t->limits, &wrapped))
            t->blocks_changed = true;
        if (wrapped)
            t->batch_done = false;
        return port_bat_opto_step(*t);
    }
    std::vector<Call> take_calls() { return std::exchange(calls, {}); }
    // The cycle that builds the first blocks finds the cursor parked on the
    // list head and only pauses; polling starts with the next one.
    void first_cycle()
    {
        batch_cycle();
        EXPECT_TRUE(take_calls().empty());
    }

    static std::vector<uint8_t> cache(const ORG_node* o)
    {
        return std::vector<uint8_t>(o->data, o->data + cal_commbuf_size(o->reg_addr));
    }

    LocalBits bits;
    std::unique_ptr<PortThread> t;
};

TEST_F(BatchPort, RefreshBatIntoCachesForEveryWidth)
{
    ORG_node* b = reg(1, 0, 3, 4, 20);   // bit blocks of 16: [4,20), [20,24)
    ORG_node* y = reg(1, 1, 3, 0, 2);    // one byte block of 2 registers
    ORG_node* w = reg(1, 2, 3, 10, 3);   // word blocks of 1
    ORG_node* d = reg(1, 4, 3, 0, 2);    // dword blocks of 1
    ASSERT_TRUE(rebuild_OPT_links(PORT, t->list_head, t->list_tail, t->cursor, t->limits));
    int nblocks = 0;
    for (OPT_node* o = t->list_head->next; o != t->list_tail; o = o->next)
        ++nblocks;
    ASSERT_EQ(nblocks, 2 + 1 + 3 + 2);

    const int n = build_OMRON_buff(t->list_head, t->entries.data(), nblocks, OMRON_ENTRIES);
    EXPECT_EQ(n, 2 + 2 + 3 + 2);
    fill_entries(t->entries.data(), n);
    refresh_bat_ORG(t->list_head->next, t->entries.data(), t->buf, nblocks, 1);
    for (ORG_node* o : {b, y, w, d}) {
        EXPECT_EQ(cache(o), expected_buffer(o->reg_addr)) << "reg_type " << int(o->reg_addr.reg_type);
        EXPECT_EQ(o->status, 1);
        EXPECT_NE(o->refresh_time, 0u);
    }

    // A failure marks every cache and keeps the values.
    std::memset(t->entries.data(), 0, sizeof(OmronEntry) * 4);
    refresh_bat_ORG(t->list_head->next, t->entries.data(), t->buf, nblocks, 2);
    for (ORG_node* o : {b, y, w, d}) {
        EXPECT_EQ(cache(o), expected_buffer(o->reg_addr));
        EXPECT_EQ(o->status, 2);
    }
}

TEST_F(BatchPort, FortyBlocksRegisterOnceThenOnlyRead)
{
    ORG_node* g = reg(1, 2, 3, 0, 40);
    first_cycle();
    batch_cycle();
    EXPECT_EQ(take_calls(), (std::vector<Call>{{'G', 40, 1, 0}, {'R', 40, 1, 0}}));
    EXPECT_FALSE(t->blocks_changed);
    EXPECT_EQ(cache(g), expected_buffer(g->reg_addr));
    EXPECT_EQ(g->status, 1);

    batch_cycle();
    batch_cycle();
    EXPECT_EQ(take_calls(), (std::vector<Call>{{'R', 40, 1, 0}, {'R', 40, 1, 0}}));

    // A new range changes the blocks: the driver learns the new list.
    reg(1, 2, 3, 100, 2);
    batch_cycle();
    EXPECT_EQ(kinds(take_calls()), "GR");
    EXPECT_FALSE(t->blocks_changed);
}

TEST_F(BatchPort, HundredBlocksRegisterAndReadInChunksEveryCycle)
{
    ORG_node* g = reg(1, 2, 3, 0, 100);
    first_cycle();
    for (int cycle = 0; cycle < 3; ++cycle) {
        batch_cycle();
        EXPECT_EQ(take_calls(), (std::vector<Call>{{'G', 69, 1, 0}, {'R', 69, 1, 0}, {'G', 31, 1, 69}, {'R', 31, 1, 69}}))
            << "cycle " << cycle;
        EXPECT_TRUE(t->blocks_changed);
    }
    EXPECT_EQ(cache(g), expected_buffer(g->reg_addr));
    EXPECT_EQ(g->status, 1);
}

TEST_F(BatchPort, ExcludedFirstBlockPollsEveryBlockSingly)
{
    reg(1, 2, 130, 0, 3);
    reg(1, 2, 131, 0, 2);
    first_cycle();
    batch_cycle();
    EXPECT_EQ(take_calls(),
              (std::vector<Call>{{'S', 1, 1, 0}, {'S', 1, 1, 1}, {'S', 1, 1, 2}, {'S', 1, 1, 0}, {'S', 1, 1, 1}}));
    EXPECT_EQ(t->cursor, t->list_tail->prev);
}

TEST_F(BatchPort, TwoStationsBatchFirstThenSinglesForSecond)
{
    ORG_node* a = reg(1, 2, 3, 0, 3);
    ORG_node* b = reg(2, 2, 3, 7, 2);
    first_cycle();
    batch_cycle();
    EXPECT_EQ(take_calls(), (std::vector<Call>{{'G', 3, 1, 0}, {'R', 3, 1, 0}, {'S', 1, 2, 7}, {'S', 1, 2, 8}}));
    EXPECT_EQ(cache(a), expected_buffer(a->reg_addr));
    EXPECT_EQ(cache(b), expected_buffer(b->reg_addr));
    EXPECT_EQ(b->status, 1);
    EXPECT_EQ(t->cursor, t->list_tail->prev);
    batch_cycle();
    EXPECT_EQ(kinds(take_calls()), "RSS");
}

TEST_F(BatchPort, FailedReadSetsPortStateAndStatusTwo)
{
    ORG_node* g = reg(1, 2, 3, 0, 10);
    first_cycle();
    batch_cycle();
    ASSERT_EQ(g->status, 1);
    const std::vector<uint8_t> before = cache(g);
    take_calls();

    read_result = 2;
    batch_cycle();
    EXPECT_EQ(kinds(take_calls()), "R");
    EXPECT_NE(get_bit(LOCAL_BIT_PORT_STATE + PORT), 0u);
    EXPECT_EQ(g->status, 2);
    EXPECT_EQ(cache(g), before);
    EXPECT_TRUE(t->blocks_changed);

    // The next cycle registers again; a good read clears the port state.
    read_result = 0;
    batch_cycle();
    EXPECT_EQ(kinds(take_calls()), "GR");
    EXPECT_EQ(get_bit(LOCAL_BIT_PORT_STATE + PORT), 0u);
    EXPECT_EQ(g->status, 1);

    // A registration time-out marks the chunk with 2; other errors change nothing.
    reg(1, 2, 3, 50, 1);
    register_result = 2;
    batch_cycle();
    EXPECT_EQ(kinds(take_calls()), "G");
    EXPECT_EQ(g->status, 2);
    register_result = 3;
    g->status = 1;
    batch_cycle();
    EXPECT_EQ(kinds(take_calls()), "G");
    EXPECT_EQ(g->status, 1);
    EXPECT_TRUE(t->blocks_changed);
}

TEST_F(BatchPort, LaterChunkFailureEndsCycleAndMarksRest)
{
    ORG_node* g = reg(1, 2, 3, 0, 100);
    reg(2, 2, 3, 0, 1); // polled singly after the batch
    read_result = 3;
    first_cycle();
    batch_cycle();
    // The first chunk's failure goes on; the second's ends the cycle.
    EXPECT_EQ(kinds(take_calls()), "GRGR");
    EXPECT_EQ(g->status, 3);
    EXPECT_NE(get_bit(LOCAL_BIT_PORT_STATE + PORT), 0u);
}

TEST_F(BatchPort, ChunksEndAtBlockBoundariesAndWideBlocksReadSingly)
{
    set_driver(422, 100); // no block-size override: word blocks of up to 100
    ORG_node* a = reg(1, 2, 3, 0, 30);
    reg(1, 2, 4, 0, 30);
    ORG_node* wide = reg(1, 2, 5, 0, 80);
    ORG_node* d = reg(1, 2, 6, 0, 30);
    first_cycle();
    batch_cycle();
    EXPECT_EQ(take_calls(), (std::vector<Call>{{'G', 60, 1, 0}, {'R', 60, 1, 0}, {'S', 80, 1, 0}, {'G', 30, 1, 0}, {'R', 30, 1, 0}}));
    for (ORG_node* o : {a, wide, d}) {
        EXPECT_EQ(cache(o), expected_buffer(o->reg_addr));
        EXPECT_EQ(o->status, 1);
    }
    EXPECT_TRUE(t->blocks_changed); // two chunks: registered again every cycle
}

TEST_F(BatchPort, EntryArrayBoundsTheBatch)
{
    set_driver(422, 30);
    std::vector<ORG_node*> groups;
    for (int id = 1; id <= 40; ++id)
        groups.push_back(reg(1, 2, static_cast<uint8_t>(id), 0, 30)); // 1200 entries in all
    first_cycle();
    batch_cycle();
    const std::vector<Call> log = take_calls();
    int registered = 0;
    for (int n : counts_of('G', log)) {
        EXPECT_LE(n, BATCH_CHUNK_ENTRIES);
        registered += n;
    }
    EXPECT_EQ(registered, 990); // 33 whole blocks of 30
    EXPECT_EQ(counts_of('S', log), std::vector<int>(7, 30));
    for (ORG_node* o : groups)
        EXPECT_EQ(o->status, 1);
    EXPECT_EQ(cache(groups.back()), expected_buffer(groups.back()->reg_addr));
}

TEST_F(BatchPort, BatStepReadsOncePerPassThenSingles)
{
    set_driver(1001);
    ORG_node* g = reg(1, 2, 3, 0, 4);
    reg(1, 2, 131, 0, 2); // ends the bat batch

    EXPECT_TRUE(bat_cycle());
    EXPECT_EQ(take_calls(), (std::vector<Call>{{'G', 4, 1, 0}, {'R', 4, 1, 0}}));
    EXPECT_EQ(cache(g), expected_buffer(g->reg_addr));
    EXPECT_TRUE(t->batch_done);
    EXPECT_TRUE(t->bat_found);
    ASSERT_NE(t->bat_last, nullptr);
    EXPECT_EQ(t->bat_last->reg_addr.reg_addr_start, 3);
    EXPECT_EQ(t->bat_next->reg_addr.reg_id, 131);

    // Until the cursor wraps, the step hands over to the single-block read.
    EXPECT_FALSE(bat_cycle());
    EXPECT_TRUE(take_calls().empty());
    // The cursor walks the other five blocks; the wrap allows the next batch read.
    int singles = 0;
    while (!bat_cycle() && singles < 20)
        ++singles;
    EXPECT_EQ(singles, 5);
    EXPECT_EQ(kinds(take_calls()), "R");

    // A failed read registers again in the next cycle.
    read_result = 2;
    t->batch_done = false;
    EXPECT_TRUE(bat_cycle());
    EXPECT_EQ(g->status, 2);
    EXPECT_TRUE(t->blocks_changed);
    read_result = 0;
    EXPECT_TRUE(bat_cycle());
    EXPECT_EQ(kinds(take_calls()), "RGR");
    EXPECT_EQ(g->status, 1);
}

TEST_F(BatchPort, OptoStepRegistersAllBlocksAndClearsWithoutBlocks)
{
    set_driver(404, 1);
    reg(1, 2, 3, 0, 120);
    EXPECT_TRUE(bat_cycle());
    EXPECT_EQ(take_calls(), (std::vector<Call>{{'G', 100, 1, 0}, {'R', 100, 1, 0}}));
    EXPECT_FALSE(t->bat_found);

    // No blocks left: the change is taken without a registration.
    REG_ADDR r = make_rec(PORT, 1, 2, 3, 0, 120);
    r.addr_unit = 2;
    unregister_ORT_FAT(r);
    EXPECT_FALSE(bat_cycle());
    EXPECT_TRUE(take_calls().empty());
    EXPECT_FALSE(t->blocks_changed);
    EXPECT_EQ(t->entry_count, 0);
}

} // namespace
