// The batch-class cycle against a fake driver: where chunks end and how the
// 1000-entry array bounds a batch.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "port/port_thread.h"
#include "unit_util.h"
#include "tables/opt_builder.h"

using namespace table_test;

namespace {

// What the fake driver was asked, one "K<n>:<station>:<address> " per call:
// K is G (register), R (batch read) or S (single block read), n the entries
// or the block's width, address the first entry's or the block's.
std::string calls;

int log_call(char kind, int n, int plc, int64_t addr, int result)
{
    calls += kind + std::to_string(n) + ':' + std::to_string(plc) + ':' + std::to_string(addr) + ' ';
    return result;
}
int fake_register(OmronEntry* e, int n, PlcParam*) { return log_call('G', n, e[0].plc_id, e[0].address, 0); }
int fake_read(OmronEntry* e, int n, PlcParam*) { return log_call('R', n, e[0].plc_id, e[0].address, 0); }
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

    // One batch-class port cycle from the block rebuild on.
    void cycle()
    {
        bool wrapped = false;
        if (rebuild_OPT_links(t->port, t->list_head, t->list_tail, t->cursor, t->limits, &wrapped))
            t->blocks_changed = true;
        if (wrapped)
            t->batch_done = false;
        port_batch_cycle(*t);
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

} // namespace
