// Queueing, merging, capacity and lookup of realtime requests.
#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <vector>

#include "table_invariants.h"
#include "tables/realtime_list.h"

using namespace table_test;

namespace {

class RealtimeList : public testing::Test {
protected:
    void SetUp() override
    {
        reset_area_tables();
        clear_requests();
    }
    void TearDown() override { clear_requests(); }

    static void clear_requests()
    {
        std::lock_guard<std::mutex> lock(mutex);
        while (RORT_link_head->next != RORT_link_tail)
            delete_realtime_link(RORT_link_head->next);
    }

    // Queues a request the way the client commands do; returns the node
    // (which the list may already have freed when it refused it).
    static RORT_node* queue(const REG_ADDR& rec, int type, int32_t op = 0, int32_t dir = 0)
    {
        RORT_node* n = new_realtime_node(cal_commbuf_size(rec));
        n->rw_oper.op_code = op;
        n->rw_oper.direction = dir;
        std::lock_guard<std::mutex> lock(mutex);
        insert_realtime_link(n, rec, type);
        return n;
    }

    static int list_len()
    {
        int n = 0;
        for (RORT_node* r = RORT_link_head->next; r != RORT_link_tail; r = r->next)
            ++n;
        return n;
    }

    LocalBits bits;
};

const rw_oper no_op{};

TEST_F(RealtimeList, NodeAllocationAndInsertInitialisation)
{
    // A request without data still owns a valid one-byte buffer.
    RORT_node* n = new_realtime_node(-3);
    ASSERT_NE(n, nullptr);
    EXPECT_NE(n->data, nullptr);
    EXPECT_EQ(n->data_len, 0);
    free_realtime_node(n);

    n = new_realtime_node(5);
    EXPECT_EQ(n->data_len, 5);
    EXPECT_EQ(std::vector<uint8_t>(n->data, n->data + 5), std::vector<uint8_t>(5, 0));
    n->age = 7;
    n->status = 3;
    const REG_ADDR a = make_rec(1, 2, 2, 3, 100, 4);
    std::lock_guard<std::mutex> lock(mutex);
    insert_realtime_link(n, a, 1);
    EXPECT_EQ(n->age, 0);
    EXPECT_EQ(n->status, 0);
    EXPECT_EQ(n->req_type, 1);
    EXPECT_TRUE(reg_addr_equal(n->reg_addr, a));
    EXPECT_EQ(real_link_len, 1);
    delete_realtime_link(n);
    EXPECT_EQ(real_link_len, 0);
    EXPECT_EQ(RORT_link_head->next, RORT_link_tail);
    EXPECT_EQ(RORT_link_tail->prev, RORT_link_head);
}

TEST_F(RealtimeList, EqualReadsQueueTwiceUnlessMergeFlagSet)
{
    REG_ADDR a = make_rec(1, 2, 2, 3, 100, 4);
    RORT_node* first = queue(a, 0);
    RORT_node* second = queue(a, 0);
    EXPECT_EQ(real_link_len, 2);
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(find_realtime_link(a, no_op, 0), first);
        delete_realtime_link(first);
        EXPECT_EQ(find_realtime_link(a, no_op, 0), second);
        delete_realtime_link(second);
        EXPECT_EQ(find_realtime_link(a, no_op, 0), nullptr);
    }

    set_bit(9262); // merge equal realtime reads
    first = queue(a, 0);
    queue(a, 0);     // refused: freed by the list
    EXPECT_EQ(real_link_len, 1);
    REG_ADDR other = a;
    other.bcd_flag = 1;
    queue(other, 0); // a different record is queued
    queue(a, 1);     // writes are never merged
    queue(a, 1);
    EXPECT_EQ(real_link_len, 4);
    EXPECT_EQ(list_len(), 4);
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(find_realtime_link(a, no_op, 0), first);
    delete_realtime_link(first);
    EXPECT_EQ(find_realtime_link(a, no_op, 0), nullptr);
}

TEST_F(RealtimeList, CapacityRefusesBeyond2001)
{
    for (int i = 0; i < 2001; ++i)
        queue(make_rec(1, 1, 2, 3, i, 1), 1);
    EXPECT_EQ(real_link_len, 2001);
    REG_ADDR late = make_rec(1, 1, 2, 3, 5000, 1);
    queue(late, 0);
    EXPECT_EQ(real_link_len, 2001);
    EXPECT_EQ(list_len(), 2001);
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(find_realtime_link(late, no_op, 0), nullptr);

    // Once one is collected there is room again.
    delete_realtime_link(RORT_link_head->next);
    RORT_node* n = new_realtime_node(2);
    insert_realtime_link(n, late, 0);
    EXPECT_EQ(find_realtime_link(late, no_op, 0), n);
    EXPECT_EQ(real_link_len, 2001);
}

TEST_F(RealtimeList, FindMatchesKindRecordAndOperationHead)
{
    REG_ADDR a = make_rec(1, 2, 2, 3, 100, 4);
    RORT_node* rmw = queue(a, 2, /*op=*/5, /*dir=*/1);
    RORT_node* rd = queue(a, 0);
    rd->status = 1; // status does not matter for lookup

    rw_oper key{};
    key.op_code = 5;
    key.direction = 9; // only the first 16 bytes take part
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(find_realtime_link(a, key, 2), rmw);
    key.op_code = 6;
    EXPECT_EQ(find_realtime_link(a, key, 2), nullptr);
    key.op_code = 5;
    key.limit_low = 1;
    EXPECT_EQ(find_realtime_link(a, key, 2), nullptr);
    EXPECT_EQ(find_realtime_link(a, key, 0), rd); // reads ignore the block
    EXPECT_EQ(find_realtime_link(a, key, 1), nullptr);
    REG_ADDR tagged = a;
    tagged.rec_tag = 1;
    EXPECT_EQ(find_realtime_link(tagged, key, 0), nullptr);
}

TEST_F(RealtimeList, CheckReturnsOldestPendingOfItsPort)
{
    RORT_node* done = queue(make_rec(1, 1, 2, 3, 0, 1), 0);
    queue(make_rec(2, 1, 2, 3, 0, 1), 0);
    RORT_node* pending = queue(make_rec(1, 1, 2, 3, 10, 1), 1);
    RORT_node* later = queue(make_rec(1, 1, 2, 3, 20, 1), 0);
    done->status = 1;

    EXPECT_EQ(check_realtime_link(1), pending);
    pending->status = 2;
    EXPECT_EQ(check_realtime_link(1), later);
    later->status = 3;
    EXPECT_EQ(check_realtime_link(1), nullptr);
    EXPECT_NE(check_realtime_link(2), nullptr);
    EXPECT_EQ(check_realtime_link(3), nullptr);
    // It releases the mutex it took.
    EXPECT_TRUE(mutex.try_lock());
    mutex.unlock();
}

} // namespace
