// Queueing, merging, capacity and lookup of realtime requests. The tests run
// on one thread, so they call the list operations without taking `mutex`.
#include <gtest/gtest.h>

#include "unit_util.h"

using namespace table_test;

namespace {

const rw_oper no_op{};

class RealtimeList : public testing::Test {
protected:
    void SetUp() override { reset_tables(); }
    void TearDown() override { reset_tables(); }
    static void collect_first()
    {
        std::lock_guard lock(mutex);
        delete_realtime_link(RORT_link_head->next);
    }
    static RORT_node* find(const REG_ADDR& rec, const rw_oper& key, int type, uint32_t owner = 0)
    {
        std::lock_guard lock(mutex);
        return find_realtime_link(rec, key, type, owner);
    }

    // Queues a request as the client commands do; the list may free it at once.
    static RORT_node* queue(const REG_ADDR& rec, int type, int32_t op = 0, uint32_t owner = 0)
    {
        RORT_node* n = new_realtime_node(cal_commbuf_size(rec));
        n->rw_oper.op_code = op;
        n->rw_oper.direction = 1;
        last_insert = queue_locked(n, rec, type, owner);
        return n;
    }
    static RORT_node* find_read(uint32_t owner) { return find(a, no_op, 0, owner); }
    // Nodes in the list, which must match the counter.
    static int queued()
    {
        int n = 0;
        for (RORT_node* r = RORT_link_head->next; r != RORT_link_tail; r = r->next) ++n;
        EXPECT_EQ(n, real_link_len);
        return n;
    }

    LocalBits bits;
    static inline const REG_ADDR a = make_rec(1, 2, 2, 3, 100, 4);
    static inline RealtimeInsert last_insert{};
};

TEST_F(RealtimeList, ChecksFindTheOwnersNewestRequest)
{
    RORT_node* mine = queue(a, 0, 0, 1);
    RORT_node* theirs = queue(a, 0, 0, 2);
    EXPECT_EQ(find_read(1), mine);
    EXPECT_EQ(find_read(2), theirs);

    // A newer request of owner 1 retires the older ones: a done one goes at
    // once, a pending one stays to be served but is never found again.
    mine->status = 1;
    RORT_node* pending = queue(a, 0, 0, 1);
    EXPECT_EQ(queued(), 2);
    RORT_node* newest = queue(a, 0, 0, 1);
    EXPECT_EQ(queued(), 3);
    EXPECT_TRUE(pending->retired);
    EXPECT_EQ(find_read(1), newest);
    EXPECT_EQ(find_read(3), newest) << "an owner without a request of its own gets the newest";
    EXPECT_EQ(find_read(2), theirs);
}

TEST_F(RealtimeList, EqualReadsMergeOnlyIntoPendingOnesWithTheFlagAndCapacityIs2001)
{
    set_bit(9262);   // merge equal realtime reads
    RORT_node* first = queue(a, 0);
    queue(a, 0, 0, 1);
    EXPECT_EQ(last_insert, RealtimeInsert::merged);
    EXPECT_EQ(find_read(1), first);
    queue(a, 1);   // writes are never merged
    queue(a, 1);
    EXPECT_EQ(queued(), 3);
    first->status = 1;   // a done read serves nobody new
    RORT_node* fresh = queue(a, 0, 0, 2);
    EXPECT_EQ(last_insert, RealtimeInsert::queued);
    EXPECT_EQ(find_read(2), fresh);
    reset_tables();

    for (int i = 0; i < 2001; ++i) queue(make_rec(1, 1, 2, 3, i, 1), 1);
    queue(a, 0);
    EXPECT_EQ(last_insert, RealtimeInsert::refused);
    EXPECT_EQ(queued(), 2001);
    collect_first();   // once one is collected there is room again
    RORT_node* n = queue(a, 0);
    EXPECT_EQ(find_read(0), n);
}

} // namespace
