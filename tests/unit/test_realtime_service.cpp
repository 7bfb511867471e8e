// Serving queued realtime reads, writes and read-modify-writes through a fake
// driver: retries, data movement, cache refresh rules and the requests that
// are completed as failed without a driver call.
#include <gtest/gtest.h>

#include <memory>

#include "port/port_thread.h"
#include "tables/opt_builder.h"
#include "unit_util.h"

using namespace table_test;

namespace {

rw_oper op(int32_t code, int32_t hi = 100) { return rw_oper{code, 1, hi, 0, 0, 0}; }

class RealtimeService : public testing::Test {
protected:
    void SetUp() override
    {
        reset_tables();
        plc = FakePlc{};
    }
    void TearDown() override { reset_tables(); }

    // The thread of port 1 with the fake driver under the given number.
    static std::unique_ptr<PortThread> port(int driver_no)
    {
        auto t = std::make_unique<PortThread>();
        t->port = 1;
        t->op.port = 1;
        t->usable = true;
        t->drv.driver_no = driver_no;
        t->param.param.plc_driver_no = static_cast<uint16_t>(driver_no);
        t->drv.read = t->op.read_fn = fake_read;
        t->drv.write = t->op.write_fn = fake_write;
        return t;
    }

    // Queues a request as the client commands do.
    static RORT_node* queue(const REG_ADDR& rec, int type, const Bytes& data = {}, rw_oper rw = {}, int data_len = -1)
    {
        RORT_node* n = new_realtime_node(data_len >= 0 ? data_len : cal_commbuf_size(rec));
        std::copy_n(data.begin(), std::min<size_t>(data.size(), static_cast<size_t>(n->data_len)), n->data);
        n->rw_oper = rw;
        std::lock_guard lock(mutex);
        insert_realtime_link(n, rec, type);
        return n;
    }

    // Serves one cycle with a fresh call log; returns the request's status.
    static int serve(PortThread& t, const RORT_node* n)
    {
        plc.calls.clear();
        port_serve_realtime(t);
        return n->status;
    }
    static Bytes data(const RORT_node* n) { return Bytes(n->data, n->data + n->data_len); }
    static Bytes cache(const ORG_node* o) { return Bytes(o->data, o->data + cal_commbuf_size(o->reg_addr)); }

    LocalBits bits;
};

TEST_F(RealtimeService, WriteRefreshesCachesUnlessByteAddressedWordsOfWordOrderDriver)
{
    REG_ADDR rec = make_rec(1, 3, 2, 7, 10, 2);
    rec.addr_unit = 1;
    ORG_node* cached = reg_range(rec).org;
    auto siemens = port(450), plain = port(5);

    EXPECT_EQ(serve(*siemens, queue(rec, 1, {1, 2, 3, 4})), 1);
    EXPECT_EQ(plc.calls.at(0).addr.addr_unit, 1);
    EXPECT_EQ(cache(cached), Bytes(4, 0));
    EXPECT_EQ(serve(*plain, queue(rec, 1, {5, 6, 7, 8})), 1);
    EXPECT_EQ(cache(cached), (Bytes{5, 6, 7, 8}));
    EXPECT_EQ(serve(*plain, queue(rec, 1, {9, 9}, {}, 2)), 1); // the rest is sent as zeros
    EXPECT_EQ(plc.calls.at(0).data, (Bytes{9, 9, 0, 0}));
    EXPECT_EQ(cache(cached), (Bytes{9, 9, 0, 0}));

    // Three failures: status of the last, every attempt sends the values, cache kept.
    plc.write_results = {2, 3, 3};
    EXPECT_EQ(serve(*plain, queue(rec, 1, {7, 7, 7, 7})), 3);
    ASSERT_EQ(plc.calls.size(), 3u);
    EXPECT_EQ(plc.calls[2].data, (Bytes{7, 7, 7, 7}));
    EXPECT_EQ(cache(cached), (Bytes{9, 9, 0, 0}));
}

TEST_F(RealtimeService, PulseWritesOneThenZero)
{
    auto t = port(5);
    const REG_ADDR rec = make_rec(1, 3, 2, 7, 4, 1);
    ORG_node* cached = reg_range(rec).org;

    // The first write fails: no resetting write, the cache already shows 1.
    plc.write_results = {2};
    testing::internal::CaptureStdout();
    EXPECT_EQ(serve(*t, queue(rec, 2, {}, op(256))), 2);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("1:rw function code 0x100\n"), std::string::npos);
    ASSERT_EQ(plc.calls.size(), 1u);
    EXPECT_EQ(plc.calls[0].data, (Bytes{1, 0}));
    EXPECT_EQ(cache(cached), (Bytes{1, 0}));

    // Success: 1, then 0 (retried), and the cache follows the request's data.
    plc.write_results = {0, 2};
    EXPECT_EQ(serve(*t, queue(rec, 2, {}, op(256))), 1);
    ASSERT_EQ(plc.calls.size(), 3u);
    EXPECT_EQ(plc.calls[2].data, (Bytes{0, 0}));
    EXPECT_EQ(cache(cached), (Bytes{0, 0}));
}

TEST_F(RealtimeService, ReadModifyWrite)
{
    auto t = port(5);
    const REG_ADDR rec = make_rec(1, 3, 2, 7, 4, 1);
    ORG_node* cached = reg_range(rec).org;
    plc.mem[8] = 41;

    // A failed read: its status and no write.
    plc.read_results = {2};
    EXPECT_EQ(serve(*t, queue(rec, 2, {}, op(5))), 2);
    EXPECT_EQ(plc.calls.size(), 1u);

    // An increment: request data and cache both see 42.
    RORT_node* inc = queue(rec, 2, {}, op(5));
    EXPECT_EQ(serve(*t, inc), 1);
    EXPECT_EQ(data(inc), (Bytes{42, 0}));
    EXPECT_EQ(cache(cached), (Bytes{42, 0}));

    // Byte address 2 of a 32-bit area: the value spans cells 0 and 1, and the
    // write sends one cell starting at the offset. A Siemens-order driver
    // exchanges the halves before the operation (5 + 1); the other family
    // takes the bytes as they are (0x00050000 + 1). That cache is left alone.
    REG_ADDR split = make_rec(1, 3, 4, 7, 0, 2);
    split.addr_unit = 1;
    split.byte_offset = 2;
    cached = reg_range(split).org;
    const Bytes cells{0xEE, 0xEE, 0x00, 0x00, 0x05, 0x00, 0xEE, 0xEE};
    for (const auto& [driver, sent] : {std::pair{450, Bytes{6, 0, 0, 0}}, std::pair{38, Bytes{1, 0, 5, 0}}}) {
        std::copy(cells.begin(), cells.end(), plc.mem);
        RORT_node* n = queue(split, 2, {}, op(5, 1000000));
        EXPECT_EQ(serve(*port(driver), n), 1);
        ASSERT_EQ(plc.calls.size(), 2u);
        EXPECT_EQ(plc.calls[1].count, 1);
        EXPECT_EQ(plc.calls[1].data, sent);
        Bytes want = cells;
        std::copy(sent.begin(), sent.end(), want.begin() + 2);
        EXPECT_EQ(data(n), want);
        EXPECT_EQ(cache(cached), Bytes(8, 0));
    }
}

TEST_F(RealtimeService, UnservableRequestsFailWithoutDriverCall)
{
    auto t = port(5);
    RORT_node* code = queue(make_rec(1, 3, 2, 7, 0, 1), 2, {}, op(300));
    RORT_node* big_read = queue(make_rec(1, 3, 2, 7, 0, 2049), 0, {}, {}, 1);
    RORT_node* big_write = queue(make_rec(1, 3, 2, 7, 0, 2), 1, {}, {}, 4097);
    port_serve_realtime(*t);
    RORT_node* negative = queue(make_rec(1, 3, 2, 7, 0, -4), 0); // a node without data
    RORT_node* kind = queue(make_rec(1, 3, 2, 7, 0, 1), 0);
    kind->req_type = 7;
    RORT_node* fine = queue(make_rec(1, 3, 2, 7, 0, 2), 2, {}, op(-1)); // negative code: ordinary path
    port_serve_realtime(*t);

    for (RORT_node* n : {code, big_read, big_write, negative, kind})
        EXPECT_EQ(n->status, 3);
    EXPECT_EQ(fine->status, 1);
    EXPECT_EQ(plc.calls.size(), 2u); // the read and write of the last request only
}

TEST_F(RealtimeService, UnusableDriverFailsItsRequestsAndFreesEmptiedAreas)
{
    auto t = port(5);
    t->usable = false;
    opt_list_init(t->list_head, t->list_tail);
    t->cursor = t->list_head;
    std::vector<RORT_node*> mine;
    for (int i = 0; i < 5; ++i)
        mine.push_back(queue(make_rec(1, 3, 2, 7, i, 1), i % 3, {}, op(5)));
    RORT_node* other = queue(make_rec(2, 3, 2, 7, 0, 1), 0);
    const REG_ADDR range = make_rec(1, 3, 2, 7, 0, 4);
    reg_range(range);
    unreg_range(range);   // its area is left empty, waiting for the port
    port_idle_cycle(*t);
    for (RORT_node* n : mine)
        EXPECT_EQ(n->status, 3);
    EXPECT_EQ(other->status, 0);
    EXPECT_TRUE(plc.calls.empty());
    EXPECT_EQ(FAT_link_head->next, FAT_link_tail);
    opt_list_free(t->list_head, t->list_tail);
}

} // namespace
