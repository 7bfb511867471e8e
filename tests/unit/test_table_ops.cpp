// Registration, unregistration and ordering of the FAT and ORG lists.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "table_invariants.h"

using namespace table_test;

namespace {

class TableOps : public testing::Test {
protected:
    void SetUp() override { reset_area_tables(); }
    void TearDown() override { reset_area_tables(); }

    ORG_node* reg(const REG_ADDR& r, bool expect_created = true)
    {
        OrtFatResult res = insert_ORT_FAT(r);
        EXPECT_NE(res.org, nullptr);
        EXPECT_EQ(res.created, expect_created);
        EXPECT_TRUE(tables_consistent());
        return res.org;
    }
    void unreg(const REG_ADDR& r)
    {
        unregister_ORT_FAT(r);
        EXPECT_TRUE(tables_consistent());
    }

    LocalBits bits;
};

TEST_F(TableOps, SearchesOnEmptyAndFullTables)
{
    EXPECT_TRUE(tables_consistent());
    EXPECT_EQ(check_FAT(make_rec(1, 1, 2, 3, 0, 1)), nullptr);
    reg(make_rec(1, 1, 2, 3, 0, 1));
    EXPECT_EQ(check_FAT(make_rec(9, 0, 0, 0, 0, 1)), FAT_link_tail);
    EXPECT_EQ(check_FAT(make_rec(0, 9, 9, 9, 0, 1)), FAT_link_head->next);
    EXPECT_EQ(find_FAT(ORT_link_head->next), FAT_link_head->next);
}

TEST_F(TableOps, SameRecordTwiceIsFoundNotTouched)
{
    REG_ADDR r = make_rec(1, 2, 2, 3, 100, 4);
    ORG_node* o = reg(r);
    FAT_node* f = FAT_link_head->next;
    EXPECT_EQ(f->change_state, 1);
    f->change_state = 0;
    o->age = 1;
    EXPECT_EQ(reg(r, false), o);
    EXPECT_EQ(f->change_state, 0);
    EXPECT_EQ(o->age, 1);

    // Records differing only in bcd_flag or rec_tag are separate ranges.
    reg(make_rec(1, 2, 2, 3, 100, 4, 1));
    REG_ADDR tagged = r;
    tagged.rec_tag = 7;
    reg(tagged);
    EXPECT_EQ(fat_count(), 1);
    EXPECT_EQ(org_ranges().size(), 3u);
}

TEST_F(TableOps, RangesOrderedByStartThenWidestFirstThenArrival)
{
    reg(make_rec(1, 1, 2, 3, 10, 5));
    reg(make_rec(1, 1, 2, 3, 0, 4));
    reg(make_rec(1, 1, 2, 3, 10, 8));
    ORG_node* b = reg(make_rec(1, 1, 2, 3, 10, 5, 1));
    ORG_node* c = reg(make_rec(1, 1, 2, 3, 10, 5, 2));
    EXPECT_EQ(org_ranges(), (std::vector<std::string>{"0/4", "10/8", "10/5", "10/5", "10/5"}));
    EXPECT_EQ(b->next, c);
    EXPECT_EQ(b->prev->reg_addr.bcd_flag, 0);

    // Signed comparisons: a negative start goes first and becomes org_first;
    // a wider range at the first start goes in front of it.
    ORG_node* neg = reg(make_rec(1, 1, 2, 3, -5, 2));
    EXPECT_EQ(FAT_link_head->next->org_first, neg);
    ORG_node* wide = reg(make_rec(1, 1, 2, 3, -5, 300));
    EXPECT_EQ(FAT_link_head->next->org_first, wide);
    reg(make_rec(1, 1, 2, 3, 40, 1));
    reg(make_rec(1, 1, 2, 3, 12, 1));
    EXPECT_EQ(org_ranges(), (std::vector<std::string>{"-5/300", "-5/2", "0/4", "10/8", "10/5", "10/5",
                                                      "10/5", "12/1", "40/1"}));
}

TEST_F(TableOps, AreasSortedByUnsignedKeyBytes)
{
    reg(make_rec(3, 0, 2, 1, 0, 1));
    reg(make_rec(1, 0, 2, 1, 5, 1));
    reg(make_rec(2, 0, 2, 1, 9, 1));
    reg(make_rec(2, 200, 2, 1, 7, 1));
    reg(make_rec(2, 0, 2, 250, 6, 1));
    reg(make_rec(2, 0, 0, 1, 8, 1));
    std::vector<uint8_t> ports;
    for (FAT_node* f = FAT_link_head->next; f != FAT_link_tail; f = f->next)
        ports.push_back(f->deviceport_id);
    EXPECT_EQ(ports, (std::vector<uint8_t>{1, 2, 2, 2, 2, 3}));
    EXPECT_EQ(org_ranges(), (std::vector<std::string>{"5/1", "8/1", "9/1", "6/1", "7/1", "0/1"}));
}

TEST_F(TableOps, DeletingKeepsOrgFirstOnTheGroup)
{
    REG_ADDR a0 = make_rec(1, 1, 2, 1, 0, 1), a5 = make_rec(1, 1, 2, 1, 5, 1),
             a9 = make_rec(1, 1, 2, 1, 9, 1);
    reg(a0);
    ORG_node* n5 = reg(a5);
    ORG_node* n9 = reg(a9);
    FAT_node* f = FAT_link_head->next;

    f->change_state = 0;
    unreg(a5);   // not the first node
    EXPECT_EQ(f->change_state, 1);
    EXPECT_EQ(org_ranges(), (std::vector<std::string>{"0/1", "9/1"}));

    f->change_state = 0;
    unreg(a0);   // first node with a successor
    EXPECT_EQ(f->org_first, n9);
    EXPECT_EQ(f->change_state, 1);

    // Not registered, other flag, or an unknown area: ignored.
    unreg(a5);
    unreg(make_rec(1, 1, 2, 1, 9, 1, 1));
    unreg(make_rec(7, 1, 2, 1, 9, 1));
    EXPECT_EQ(org_ranges(), (std::vector<std::string>{"9/1"}));
    (void)n5;
}

TEST_F(TableOps, EmptiedAreaParksAndIsRefilled)
{
    REG_ADDR a = make_rec(1, 1, 2, 1, 0, 1), b = make_rec(1, 2, 2, 1, 0, 1),
             c = make_rec(1, 3, 2, 1, 0, 1);
    ORG_node* na = reg(a);
    reg(b);
    reg(c);
    FAT_node* fb = FAT_link_head->next->next;

    unreg(b);
    EXPECT_EQ(fb->change_state, 2);
    EXPECT_EQ(fb->org_first, na);
    unreg(b);   // an emptied area ignores unregistration
    EXPECT_EQ(fb->change_state, 2);

    // Refill before the port thread acted: same FAT node, placed between A and C.
    ORG_node* nb = reg(make_rec(1, 2, 2, 1, 4, 2));
    EXPECT_EQ(fat_count(), 3);
    EXPECT_EQ(FAT_link_head->next->next, fb);
    EXPECT_EQ(fb->change_state, 1);
    EXPECT_EQ(fb->org_first, nb);
    EXPECT_EQ(na->next, nb);

    // Emptying the first area parks it on the ORG head.
    unreg(a);
    EXPECT_EQ(FAT_link_head->next->org_first, ORT_link_head);
}

TEST_F(TableOps, NewAreaBetweenEmptiedAndLiveAreas)
{
    reg(make_rec(1, 1, 2, 1, 0, 1));   // A
    reg(make_rec(1, 3, 2, 1, 0, 1));   // B
    reg(make_rec(1, 5, 2, 1, 0, 1));   // C
    unreg(make_rec(1, 3, 2, 1, 0, 1));
    ORG_node* n = reg(make_rec(1, 4, 2, 1, 7, 1));
    EXPECT_EQ(n->prev->reg_addr.plc_id, 1);
    EXPECT_EQ(n->next->reg_addr.plc_id, 5);

    // A new area sorting before the emptied one goes in the same gap; B can
    // still be refilled after it.
    reg(make_rec(1, 2, 2, 1, 8, 1));
    reg(make_rec(1, 3, 2, 1, 9, 1));
    EXPECT_EQ(org_ranges(), (std::vector<std::string>{"0/1", "8/1", "9/1", "7/1", "0/1"}));
    // Emptied areas at the end of the table put new groups at the end of the list.
    unreg(make_rec(1, 5, 2, 1, 0, 1));
    reg(make_rec(1, 4, 2, 2, 1, 1));
    EXPECT_EQ(org_ranges().back(), "1/1");
}

TEST_F(TableOps, ParkedAreaSurvivesDeletionOfItsAnchor)
{
    // B empties while parked on A's only node; A then grows behind that node
    // and loses it as its first node.
    REG_ADDR a0 = make_rec(1, 1, 2, 1, 0, 1);
    reg(a0);
    reg(make_rec(1, 2, 2, 1, 0, 1));
    unreg(make_rec(1, 2, 2, 1, 0, 1));
    reg(make_rec(1, 1, 2, 1, 10, 1));
    unreg(a0);
    EXPECT_EQ(FAT_link_head->next->next->org_first, ORT_link_head);
    reg(make_rec(1, 2, 2, 1, 3, 1));
    EXPECT_EQ(org_ranges(), (std::vector<std::string>{"10/1", "3/1"}));
}

TEST_F(TableOps, FlagBit12MakesNewRangesValid)
{
    bits.set_new_range_valid(true);
    ORG_node* first = reg(make_rec(1, 1, 4, 1, 0, 3));
    EXPECT_EQ(first->status, 0);
    EXPECT_EQ(first->refresh_time, 0u);

    ORG_node* second = reg(make_rec(1, 1, 4, 1, 5, 3));
    EXPECT_EQ(second->status, 1);
    EXPECT_NE(second->refresh_time, 0u);
    for (int i = 0; i < cal_commbuf_size(second->reg_addr); ++i)
        EXPECT_EQ(second->data[i], 0);

    // A new area and a refill both start valid while other ranges exist.
    EXPECT_EQ(reg(make_rec(2, 1, 0, 1, 0, 9))->status, 1);
    unreg(make_rec(2, 1, 0, 1, 0, 9));
    EXPECT_EQ(reg(make_rec(2, 1, 0, 1, 0, 9))->status, 1);

    // An empty ORG list always gives status 0, even beside emptied areas.
    unreg(make_rec(1, 1, 4, 1, 0, 3));
    unreg(make_rec(1, 1, 4, 1, 5, 3));
    unreg(make_rec(2, 1, 0, 1, 0, 9));
    EXPECT_EQ(reg(make_rec(3, 1, 2, 1, 0, 1))->status, 0);

    bits.set_new_range_valid(false);
    EXPECT_EQ(reg(make_rec(3, 1, 2, 1, 5, 1))->status, 0);
}

TEST_F(TableOps, ZeroAndNegativeSizesStillGetACache)
{
    EXPECT_NE(reg(make_rec(1, 1, 3, 1, 0, 4))->data, nullptr);       // unknown type: size 0
    EXPECT_NE(reg(make_rec(1, 1, 2, 1, 0, 0))->data, nullptr);       // width 0
    EXPECT_NE(reg(make_rec(1, 1, 4, 1, 0, 30000))->data, nullptr);   // size wraps negative
}

// Random registrations and unregistrations, with the port thread's handling
// of marked areas simulated in between, checked against a set of records.
// Odd seeds spread ranges over several starts and widths; even seeds keep
// areas tiny, so that groups often shrink to one range, empty out, grow
// again behind the node an emptied area is parked on, and get refilled.
TEST_F(TableOps, RandomSequencesKeepEveryInvariant)
{
    auto key = [](const REG_ADDR& r) { return std::string(reinterpret_cast<const char*>(&r), sizeof r); };
    for (unsigned seed = 1; seed <= 8; ++seed) {
        SCOPED_TRACE(seed);
        reset_area_tables();
        std::mt19937 rng(seed);
        auto pick = [&](int n) { return static_cast<int>(rng() % n); };
        const bool broad = seed % 2 == 1;
        const int starts = broad ? 3 : 2, widths = broad ? 2 : 1, phase = broad ? 150 : 60;
        const int free_odds = broad ? 8 : 16;
        std::set<std::string> model;

        for (int step = 0; step < 1500; ++step) {
            REG_ADDR r = make_rec(static_cast<uint8_t>(pick(2)), static_cast<uint8_t>(pick(3)),
                                  static_cast<uint8_t>(pick(2) * 2), 1, pick(starts) - 1,
                                  static_cast<int16_t>(1 + pick(widths)), static_cast<uint8_t>(pick(4) == 0));
            // Alternate filling and draining phases.
            const int inserts = (step / phase) % 2 == 0 ? 6 : 3;
            const int op = pick(10);
            if (op < inserts) {
                OrtFatResult res = insert_ORT_FAT(r);
                ASSERT_NE(res.org, nullptr);
                ASSERT_EQ(res.created, model.insert(key(r)).second) << "step " << step;
                ASSERT_TRUE(reg_addr_equal(res.org->reg_addr, r));
            } else if (op < 9) {
                unregister_ORT_FAT(r);
                model.erase(key(r));
            } else {
                // Port thread pass: some emptied areas are freed, marked ones rebuilt.
                for (FAT_node* f = FAT_link_head->next; f != FAT_link_tail;) {
                    FAT_node* next = f->next;
                    if (f->change_state == 2 && pick(free_odds) == 0) {
                        f->prev->next = next;
                        next->prev = f->prev;
                        delete f;
                    } else if (f->change_state == 1) {
                        f->change_state = 0;
                    }
                    f = next;
                }
            }
            ASSERT_TRUE(tables_consistent()) << "step " << step;
            ASSERT_EQ(org_ranges().size(), model.size()) << "step " << step;
        }
    }
}

} // namespace
