// The batch-class cycle against a fake driver: where chunks end and how the
// 1000-entry array bounds a batch. Expected call logs are written out by hand.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "port/port_thread.h"
#include "unit_util.h"

using namespace table_test;

namespace {

// One entry per driver call: "G<n> " registers n entries, "R<n> " reads
// them, "S<n> " reads a block of n registers on its own.
std::string calls;

int log_call(char kind, int n)
{
    calls += kind + std::to_string(n) + ' ';
    return 0;
}
int fake_register(OmronEntry*, int n, PlcParam*) { return log_call('G', n); }
int fake_batch_read(OmronEntry*, int n, PlcParam*) { return log_call('R', n); }
int fake_block_read(const DrvRegAddr*, DrvDataRef* d, PlcParam*) { return log_call('S', d->count); }

// A port of driver 422 (no block-size override) whose word blocks end at
// the record's max_words.
class BatchPort : public testing::Test {
protected:
    void SetUp() override
    {
        reset_area_tables();
        calls.clear();
        t->port = t->op.port = 1;
        t->drv.driver_no = t->rec.plc_driver_no = 422;
        t->drv.omron_register = fake_register;
        t->drv.omron_read = fake_batch_read;
        t->op.read_fn = fake_block_read;
        opt_list_init(t->list_head, t->list_tail);
        t->cursor = t->list_head;
    }
    void TearDown() override
    {
        opt_list_free(t->list_head, t->list_tail);
        reset_area_tables();
    }

    // Registers one word range of each width, each in an area of its own,
    // runs the cycle that builds the blocks (it only pauses) and the first
    // polling cycle, and returns that cycle's calls; every cache must be polled.
    std::string first_poll(uint16_t max_words, const std::vector<int16_t>& widths)
    {
        t->rec.max_words = max_words;
        t->limits = port_block_limits(t->rec);
        std::vector<ORG_node*> groups;
        for (size_t i = 0; i < widths.size(); ++i) {
            REG_ADDR r = make_rec(1, 1, 2, static_cast<uint8_t>(i + 1), 0, widths[i]);
            r.addr_unit = 2;
            groups.push_back(reg_range(r).org);
        }
        for (int c = 0; c < 2; ++c) {
            EXPECT_EQ(std::exchange(calls, {}), "");
            bool wrapped = false;
            if (rebuild_OPT_links(t->port, t->list_head, t->list_tail, t->cursor, t->limits, &wrapped))
                t->blocks_changed = true;
            if (wrapped)
                t->batch_done = false;
            port_batch_cycle(*t);
        }
        for (const ORG_node* o : groups)
            EXPECT_EQ(o->status, 1);
        return calls;
    }

    LocalBits bits;
    std::unique_ptr<PortThread> t = std::make_unique<PortThread>();
};

TEST_F(BatchPort, ChunksEndAtBlockBoundariesAndWideBlocksReadSingly)
{
    // 30 + 30 entries fill a chunk that 80 more would overrun; 80 alone
    // exceed a chunk and are read singly at their place.
    EXPECT_EQ(first_poll(100, {30, 30, 80, 30}), "G60 R60 S80 G30 R30 ");
    EXPECT_TRUE(t->blocks_changed); // two chunks: registered again every cycle
}

TEST_F(BatchPort, EntryArrayBoundsTheBatch)
{
    // 40 blocks of 30: the 33 that fit 1000 entries make 16 chunks of two
    // blocks and one of one; the other 7 are read singly.
    std::string want;
    for (int c = 0; c < 16; ++c)
        want += "G60 R60 ";
    want += "G30 R30 ";
    for (int c = 0; c < 7; ++c)
        want += "S30 ";
    EXPECT_EQ(first_poll(30, std::vector<int16_t>(40, 30)), want);
}

} // namespace
