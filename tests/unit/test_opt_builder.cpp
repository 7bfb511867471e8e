// Merging ranges into poll blocks and the per-port rebuild pass.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "unit_util.h"
#include "tables/opt_builder.h"

using namespace table_test;

namespace {

struct Range { int32_t start; int16_t width; };
using Blocks = std::vector<std::string>;

class OptBuilder : public testing::Test {
protected:
    void SetUp() override
    {
        reset_area_tables();
        opt_list_init(head, tail);
        cursor = head;
    }
    void TearDown() override { opt_list_free(head, tail); reset_area_tables(); }

    static void reg(const REG_ADDR& r) { ASSERT_NE(reg_range(r).org, nullptr); }
    static REG_ADDR word(uint8_t id, int32_t start, int16_t width) { return make_rec(1, 1, 2, id, start, width); }

    // Blocks of the list as "start-end<first range start/width>".
    Blocks blocks() const
    {
        Blocks out;
        for (OPT_node* b = head->next; b != tail; b = b->next) {
            const REG_ADDR &r = b->reg_addr, &o = b->org->reg_addr;
            out.push_back(std::to_string(r.reg_addr_start) + "-" +
                          std::to_string(r.reg_addr_start + r.reg_data_width) + "<" +
                          std::to_string(o.reg_addr_start) + "/" + std::to_string(o.reg_data_width) + ">");
        }
        return out;
    }
    bool pass(int port = 1) { return rebuild_OPT_links(port, head, tail, cursor, limits); }

    // Starts afresh, registers the ranges in area (1, 1, 2, 3) and builds its blocks.
    void build(const std::vector<Range>& ranges, int32_t len, int32_t gap)
    {
        TearDown();
        SetUp();
        for (const Range& r : ranges)
            reg(word(3, r.start, r.width));
        std::unique_lock lock(rwlock);
        build_OPT_area(FAT_link_head->next, head, len, gap);
        EXPECT_EQ(FAT_link_head->next->opt_first, head->next);
    }

    OPT_node *head = nullptr, *tail = nullptr, *cursor = nullptr;
    OPT_limits limits{16, 16, 64, 0, 128, 0, 32, 0};
    LocalBits bits;
};

TEST_F(OptBuilder, MergesRangesIntoBlocks)
{
    struct Case {
        std::vector<Range> ranges;
        int32_t len, gap;
        Blocks expected;
    };
    const std::vector<Case> cases = {
        {{{0, 100}}, 32, 0, {"0-32<0/100>", "32-64<0/100>", "64-96<0/100>", "96-100<0/100>"}},
        {{{100, 2}, {100, 1}, {103, 1}, {200, 10}}, 64, 2, {"100-104<100/2>", "200-210<200/10>"}},
        // A touching range that crosses the limit cuts the block at the limit.
        {{{0, 10}, {10, 10}}, 15, 0, {"0-15<0/10>", "15-20<10/10>"}},
        // A gap of exactly G is bridged, G + 1 is not.
        {{{0, 4}, {7, 2}}, 64, 3, {"0-9<0/4>"}},
        {{{0, 4}, {8, 2}}, 64, 3, {"0-4<0/4>", "8-10<8/2>"}},
        // A zero length limit is taken as 1; negative starts compare signed.
        {{{-3, 2}}, 0, 0, {"-3--2<-3/2>", "-2--1<-3/2>"}},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE("case " + std::to_string(i));
        build(cases[i].ranges, cases[i].len, cases[i].gap);
        EXPECT_EQ(blocks(), cases[i].expected);
    }

    // The block record carries the area key and the first range's byte offset only.
    TearDown();
    SetUp();
    REG_ADDR r = make_rec(1, 7, 4, 9, 50, 3, 1);
    r.byte_offset = 2;
    r.rec_tag = 5;
    r.addr_unit = 1;
    reg(r);
    {
        std::unique_lock lock(rwlock);
        build_OPT_area(FAT_link_head->next, head, 64, 0);
    }
    r.rec_tag = r.addr_unit = r.bcd_flag = 0;
    EXPECT_TRUE(reg_addr_equal(head->next->reg_addr, r));
}

TEST_F(OptBuilder, CursorLeavesDeletedAndRebuiltAreas)
{
    for (const REG_ADDR& r : {word(1, 0, 10), word(2, 0, 10), word(2, 100, 10), word(3, 0, 10)})
        reg(r);
    pass(1);

    // The cursor advances onto A's only block; A goes, the cursor moves on.
    unreg_range(word(1, 0, 10));
    cursor = head;
    EXPECT_TRUE(pass(1));
    EXPECT_EQ(cursor, head->next);
    EXPECT_EQ(area_key(cursor->reg_addr), area_key(1, 1, 2, 2));

    // Cursor on B's second block while B is rebuilt: it goes to B's first new block.
    reg(word(2, 50, 1));
    EXPECT_TRUE(pass(1));
    EXPECT_EQ(cursor, head->next);
    EXPECT_EQ(blocks(), (Blocks{"0-10<0/10>", "50-51<50/1>", "100-110<100/10>", "0-10<0/10>"}));

    // The cursor advances onto the last area's block as that area goes:
    // nothing follows, so it parks on the head.
    cursor = head->next->next->next;
    unreg_range(word(3, 0, 10));
    EXPECT_TRUE(pass(1));
    EXPECT_EQ(cursor, head);
    EXPECT_EQ(area_key(tail->prev->reg_addr), area_key(1, 1, 2, 2));
    EXPECT_TRUE(tables_consistent());
}

} // namespace
