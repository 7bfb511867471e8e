// Merging of equal realtime reads. The tests run on one thread, so they call
// the list operations without taking `mutex`.
#include <gtest/gtest.h>

#include "unit_util.h"

using namespace table_test;

namespace {

class RealtimeList : public testing::Test {
protected:
    void SetUp() override { reset_tables(); }
    void TearDown() override { reset_tables(); }

    // Queues a request as the client commands do; the list may free it at once.
    static RORT_node* queue(int type, uint32_t owner = 0)
    {
        RORT_node* n = new_realtime_node(cal_commbuf_size(a));
        n->rw_oper.direction = 1;
        last_insert = queue_locked(n, a, type, owner);
        return n;
    }
    static RORT_node* find_read(uint32_t owner)
    {
        std::lock_guard lock(mutex);
        return find_realtime_link(a, rw_oper{}, 0, owner);
    }

    LocalBits bits;
    static inline const REG_ADDR a = make_rec(1, 2, 2, 3, 100, 4);
    static inline RealtimeInsert last_insert{};
};

TEST_F(RealtimeList, EqualReadsMergeOnlyIntoPendingOnesWithTheFlag)
{
    set_bit(9262);   // merge equal realtime reads
    RORT_node* first = queue(0);
    queue(0, 1);
    EXPECT_EQ(last_insert, RealtimeInsert::merged);
    EXPECT_EQ(find_read(1), first);
    queue(1);   // writes are never merged
    queue(1);
    EXPECT_EQ(real_link_len, 3);
    first->status = 1;   // a done read serves nobody new
    RORT_node* fresh = queue(0, 2);
    EXPECT_EQ(last_insert, RealtimeInsert::queued);
    EXPECT_EQ(find_read(2), fresh);
}

} // namespace
