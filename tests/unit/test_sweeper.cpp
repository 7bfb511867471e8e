// Sweeper aging and deletion of realtime requests, and its period.
#include <gtest/gtest.h>

#include <cstdlib>

#include "unit_util.h"
#include "tables/sweeper.h"

using namespace table_test;

namespace {

class Sweeper : public testing::Test {
protected:
    void SetUp() override { reset_tables(); }
    void TearDown() override { reset_tables(); }

    // Runs one sweep and returns what it printed.
    static std::string sweep()
    {
        testing::internal::CaptureStdout();
        sweep_once();
        EXPECT_TRUE(tables_consistent());
        return testing::internal::GetCapturedStdout();
    }

    LocalBits bits;
};

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
