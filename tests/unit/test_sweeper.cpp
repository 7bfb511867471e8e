// Sweeper aging and deletion, and the exact formats of the table dumps.
#include <gtest/gtest.h>

#include <cstdlib>
#include <mutex>

#include "table_invariants.h"
#include "tables/realtime_list.h"
#include "tables/sweeper.h"

using namespace table_test;

namespace {

void clear_realtime_list()
{
    std::lock_guard lock(mutex);
    while (RORT_link_head->next != RORT_link_tail)
        delete_realtime_link(RORT_link_head->next);
}

class Sweeper : public testing::Test {
protected:
    void SetUp() override
    {
        reset_area_tables();
        clear_realtime_list();
    }
    void TearDown() override
    {
        clear_realtime_list();
        reset_area_tables();
    }

    // Runs one sweep and returns what it printed.
    static std::string sweep()
    {
        testing::internal::CaptureStdout();
        sweep_once();
        return testing::internal::GetCapturedStdout();
    }

    LocalBits bits;
};

TEST_F(Sweeper, UnreadRangeIsDeletedByTheThirdSweep)
{
    ORG_node* unread = insert_ORT_FAT(make_rec(1, 2, 2, 3, 0, 10)).org;
    ORG_node* read = insert_ORT_FAT(make_rec(1, 2, 2, 4, 0, 10)).org;
    FAT_node* fat = FAT_link_head->next;

    EXPECT_EQ(sweep(), "");
    EXPECT_EQ(unread->age, 1);
    // Registering an existing range again does not count as a read.
    EXPECT_FALSE(insert_ORT_FAT(make_rec(1, 2, 2, 3, 0, 10)).created);
    read->age = 0;
    EXPECT_EQ(sweep(), "");
    EXPECT_EQ(unread->age, 2);
    read->age = 0;
    EXPECT_EQ(sweep(), " service: delete ort\n");
    EXPECT_TRUE(tables_consistent());
    EXPECT_EQ(fat->change_state, 2);
    EXPECT_EQ(fat->org_first, ORT_link_head);
    EXPECT_EQ(ORT_link_head->next, read);

    // A range read between sweeps is never swept.
    for (int i = 0; i < 5; ++i) {
        read->age = 0;
        EXPECT_EQ(sweep(), "");
    }
    EXPECT_EQ(read->age, 1);
}

TEST_F(Sweeper, WholeAreaSweptAtOnceParksItsFatNode)
{
    ORG_node* a = insert_ORT_FAT(make_rec(1, 1, 2, 1, 0, 4)).org;
    insert_ORT_FAT(make_rec(1, 2, 2, 1, 0, 4));
    insert_ORT_FAT(make_rec(1, 2, 2, 1, 8, 4));
    ORG_node* c = insert_ORT_FAT(make_rec(1, 3, 2, 1, 0, 4)).org;
    FAT_node* b_fat = FAT_link_head->next->next;

    std::string out;
    for (int i = 0; i < 3; ++i) {
        a->age = 0;
        c->age = 0;
        out += sweep();
        EXPECT_TRUE(tables_consistent());
    }
    EXPECT_EQ(out, " service: delete ort\n service: delete ort\n");
    EXPECT_EQ(b_fat->change_state, 2);
    EXPECT_EQ(b_fat->org_first, a);
    EXPECT_EQ(a->next, c);
    EXPECT_EQ(FAT_link_head->next->change_state, 1);   // untouched by the sweep
}

TEST_F(Sweeper, CompletedRequestsAgeAndGoPendingOnesStay)
{
    RORT_node *pending, *done, *failed;
    {
        std::lock_guard lock(mutex);
        for (int i = 0; i < 3; ++i)
            insert_realtime_link(new_realtime_node(2), make_rec(1, 1, 2, 1, i, 1), 0);
        pending = RORT_link_head->next;
        done = pending->next;
        failed = done->next;
        done->status = 1;
        failed->status = 2;
    }
    ASSERT_EQ(real_link_len, 3);

    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(sweep(), "");
        EXPECT_EQ(done->age, i);
        EXPECT_EQ(failed->age, i);
    }
    EXPECT_EQ(sweep(), "");   // fourth sweep after completion
    EXPECT_EQ(real_link_len, 1);
    EXPECT_EQ(RORT_link_head->next, pending);
    EXPECT_EQ(pending->next, RORT_link_tail);

    for (int i = 0; i < 10; ++i)
        sweep();
    EXPECT_EQ(real_link_len, 1);
    EXPECT_EQ(pending->age, 0);
}

TEST_F(Sweeper, DumpFormats)
{
    testing::internal::CaptureStdout();
    through_FAT();
    through_ORG();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "though FAT: \r\n\r\nthough ORG: \r\n\r\n");

    ORG_node* o = insert_ORT_FAT(make_rec(1, 2, 2, 3, 0, 10)).org;
    o->status = 1;
    insert_ORT_FAT(make_rec(200, 2, 0, 250, -7, 3)).org->status = 3;
    testing::internal::CaptureStdout();
    through_ORG();
    through_FAT();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "though ORG: \r\n"
              "deviceport_id=1, plc_id=2, reg_type=2, reg_id=3, reg_addr_start=0,reg_data_width=10, "
              "temp->status=1\r\n"
              "deviceport_id=200, plc_id=2, reg_type=0, reg_id=250, reg_addr_start=-7,reg_data_width=3, "
              "temp->status=3\r\n"
              "\r\n"
              "though FAT: \r\n"
              "deviceport_id=1, plc_id=2, reg_type=2, reg_id=3\r\n"
              "deviceport_id=200, plc_id=2, reg_type=0, reg_id=250\r\n"
              "\r\n");

    OPT_node head{}, tail{}, block{};
    head.next = &tail;
    tail.prev = &head;
    testing::internal::CaptureStdout();
    through_OPT(&head, &tail);
    block.reg_addr = make_rec(3, 4, 1, 5, 64, 32);
    block.prev = &head;
    block.next = &tail;
    head.next = &block;
    tail.prev = &block;
    through_OPT(&head, &tail);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "though OPT: \r\n\r\n"
              "though OPT: \r\n"
              "deviceport_id=3, plc_id=4, reg_type=1, reg_id=5, reg_addr_start=64,reg_data_width=32, \r\n"
              "\r\n");
}

TEST(SweepPeriod, ComesFromTheEnvironment)
{
    const char* saved = std::getenv("COMSERVER_SWEEP_SECONDS");
    std::string keep = saved ? saved : "";
    unsetenv("COMSERVER_SWEEP_SECONDS");
    EXPECT_EQ(sweep_period_seconds(), 30);
    setenv("COMSERVER_SWEEP_SECONDS", "2", 1);
    EXPECT_EQ(sweep_period_seconds(), 2);
    for (const char* bad : {"0", "-3", "x", "5s", ""}) {
        setenv("COMSERVER_SWEEP_SECONDS", bad, 1);
        EXPECT_EQ(sweep_period_seconds(), 30) << bad;
    }
    if (saved)
        setenv("COMSERVER_SWEEP_SECONDS", keep.c_str(), 1);
    else
        unsetenv("COMSERVER_SWEEP_SECONDS");
}

} // namespace
