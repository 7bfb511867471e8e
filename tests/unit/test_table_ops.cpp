// Registration, unregistration and ordering of the FAT and ORG lists.
#include <gtest/gtest.h>

#include "unit_util.h"

using namespace table_test;

namespace {

using Ranges = std::vector<std::string>;

class TableOps : public testing::Test {
protected:
    void SetUp() override { reset_area_tables(); }
    void TearDown() override { reset_area_tables(); }

    ORG_node* reg(const REG_ADDR& r, bool expect_created = true)
    {
        OrtFatResult res = reg_range(r);
        EXPECT_NE(res.org, nullptr);
        EXPECT_EQ(res.created, expect_created);
        EXPECT_TRUE(tables_consistent());
        return res.org;
    }
    void unreg(const REG_ADDR& r)
    {
        unreg_range(r);
        EXPECT_TRUE(tables_consistent());
    }
    // A range of area (1, plc, 2, id).
    static REG_ADDR area(uint8_t plc, int32_t start, uint8_t id = 1)
    {
        return make_rec(1, plc, 2, id, start, 1);
    }

    LocalBits bits;
};

TEST_F(TableOps, ParkedAreaSurvivesDeletionOfItsAnchor)
{
    // B empties while parked on A's only node; A then grows behind that node
    // and loses it as its first node.
    reg(area(1, 0));
    reg(area(2, 0));
    unreg(area(2, 0));
    reg(area(1, 10));
    unreg(area(1, 0));
    EXPECT_EQ(FAT_link_head->next->next->org_first, ORT_link_head);
    reg(area(2, 3));
    EXPECT_EQ(org_ranges(), (Ranges{"10/1", "3/1"}));
}

TEST_F(TableOps, FlagBit12MakesNewRangesValid)
{
    bits.set_new_range_valid(true);
    EXPECT_EQ(reg(area(1, 0))->status, 0);   // empty ORG list
    ORG_node* other = reg(make_rec(1, 1, 4, 1, 5, 3));
    EXPECT_EQ(other->status, 1);
    unreg(area(1, 0));
    EXPECT_EQ(reg(area(1, 2))->status, 1);   // refilled
    unreg(area(1, 2));
    unreg(make_rec(1, 1, 4, 1, 5, 3));
    EXPECT_EQ(reg(area(3, 0))->status, 0);   // empty ORG list beside emptied areas
    bits.set_new_range_valid(false);
    EXPECT_EQ(reg(area(3, 5))->status, 0);
}

TEST_F(TableOps, ZeroAndNegativeSizesStillGetACache)
{
    EXPECT_NE(reg(make_rec(1, 1, 3, 1, 0, 4))->data, nullptr);       // unknown type: size 0
    EXPECT_NE(reg(make_rec(1, 1, 2, 1, 0, 0))->data, nullptr);       // width 0
    EXPECT_NE(reg(make_rec(1, 1, 4, 1, 0, 30000))->data, nullptr);   // size wraps negative
}

} // namespace
