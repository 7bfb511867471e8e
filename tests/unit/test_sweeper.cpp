// Sweeper aging and deletion, and the exact formats of the table dumps.
#include <gtest/gtest.h>

#include <cstdlib>
#include <mutex>

#include "table_invariants.h"
#include "tables/realtime_list.h"
#include "tables/sweeper.h"

using namespace table_test;

namespace {

class Sweeper : public testing::Test {
protected:
    void SetUp() override { TearDown(); }
    void TearDown() override
    {
        reset_area_tables();
        std::lock_guard lock(mutex);
        while (RORT_link_head->next != RORT_link_tail) delete_realtime_link(RORT_link_head->next);
    }

    // Runs one sweep (keeping `fresh` read) and returns what it printed.
    static std::string sweep(std::initializer_list<ORG_node*> fresh = {})
    {
        for (ORG_node* o : fresh) o->age = 0;
        testing::internal::CaptureStdout();
        sweep_once();
        EXPECT_TRUE(tables_consistent());
        return testing::internal::GetCapturedStdout();
    }

    LocalBits bits;
};

TEST_F(Sweeper, UnreadRangesAreDeletedByTheThirdSweep)
{
    reg_range(make_rec(1, 2, 2, 3, 0, 10));   // never read
    ORG_node* read = reg_range(make_rec(1, 2, 2, 4, 0, 10)).org;
    FAT_node* fat = FAT_link_head->next;
    EXPECT_EQ(sweep(), "");
    EXPECT_FALSE(reg_range(make_rec(1, 2, 2, 3, 0, 10)).created);   // not a read
    EXPECT_EQ(sweep({read}), "");
    EXPECT_EQ(sweep({read}), " service: delete ort\n");   // the third sweep
    EXPECT_EQ(fat->change_state, 2);
    EXPECT_EQ(ORT_link_head->next, read);

    // A whole area swept at once parks its FAT node behind the previous group.
    reset_area_tables();
    ORG_node* a = reg_range(make_rec(1, 1, 2, 1, 0, 4)).org;
    reg_range(make_rec(1, 2, 2, 1, 0, 4));
    reg_range(make_rec(1, 2, 2, 1, 8, 4));
    ORG_node* c = reg_range(make_rec(1, 3, 2, 1, 0, 4)).org;
    FAT_node* b_fat = FAT_link_head->next->next;
    EXPECT_EQ(sweep({a, c}) + sweep({a, c}) + sweep({a, c}), " service: delete ort\n service: delete ort\n");
    EXPECT_EQ(b_fat->change_state, 2);
    EXPECT_EQ(b_fat->org_first, a);
    EXPECT_EQ(FAT_link_head->next->change_state, 1);   // untouched by the sweep
}

TEST_F(Sweeper, CompletedRequestsAgeAndGoPendingOnesStayWhileAThreadServesThem)
{
    port_threads[1] = true;   // port 9 has no thread
    for (int status : {0, 1, 2}) {   // one thread: no need for `mutex`
        queue_locked(new_realtime_node(2), make_rec(1, 1, 2, 1, status, 1), 0);
        RORT_link_tail->prev->status = static_cast<int16_t>(status);
    }
    queue_locked(new_realtime_node(2), make_rec(9, 1, 2, 1, 0, 1), 0);
    RORT_node* pending = RORT_link_head->next;
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(sweep(), "");
        EXPECT_TRUE(pending->next->age == i && pending->next->next->age == i);
    }
    sweep();   // fourth sweep after completion, or without a thread to serve it
    EXPECT_TRUE(real_link_len == 1 && RORT_link_head->next == pending);
    for (int i = 0; i < 10; ++i) sweep();
    EXPECT_TRUE(real_link_len == 1 && pending->age == 0);

    // A done request retired by a newer one of its owner goes at the next sweep.
    queue_locked(new_realtime_node(2), make_rec(1, 1, 2, 1, 0, 1), 0);
    pending->status = 1;
    sweep();
    EXPECT_EQ(real_link_len, 1);
    port_threads = {};
}

TEST_F(Sweeper, DumpFormats)
{
    reg_range(make_rec(200, 2, 0, 250, -7, 3)).org->status = 3;
    OPT_node head{}, tail{}, block{};
    block.reg_addr = make_rec(3, 4, 1, 5, 64, 32);
    head.next = tail.prev = &block;
    block.prev = &head;
    block.next = &tail;
    testing::internal::CaptureStdout();
    through_ORG();
    through_FAT();
    through_OPT(&head, &tail);
    through_OPT(&block, &tail);   // an empty list
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "though ORG: \r\n"
              "deviceport_id=200, plc_id=2, reg_type=0, reg_id=250, reg_addr_start=-7,reg_data_width=3, "
              "temp->status=3\r\n\r\n"
              "though FAT: \r\n"
              "deviceport_id=200, plc_id=2, reg_type=0, reg_id=250\r\n\r\n"
              "though OPT: \r\n"
              "deviceport_id=3, plc_id=4, reg_type=1, reg_id=5, reg_addr_start=64,reg_data_width=32, \r\n\r\n"
              "though OPT: \r\n\r\n");
}

TEST(SweepPeriod, ComesFromTheEnvironment)
{
    unsetenv("COMSERVER_SWEEP_SECONDS");
    EXPECT_EQ(sweep_period_seconds(), 30);
    for (const char* value : {"2", "0", "-3", "x", "5s", ""}) {
        setenv("COMSERVER_SWEEP_SECONDS", value, 1);
        EXPECT_EQ(sweep_period_seconds(), value == std::string("2") ? 2 : 30) << value;
    }
    unsetenv("COMSERVER_SWEEP_SECONDS");
}

} // namespace
