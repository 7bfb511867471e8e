// Serving queued realtime reads, writes and read-modify-writes through a fake
// driver: retries, data movement, cache refresh rules and the requests that
// are completed as failed without a driver call.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "port/port_thread.h"
#include "table_invariants.h"
#include "tables/realtime_list.h"

using namespace table_test;

namespace {

// The fake PLC: a byte memory addressed as start * element size.
struct DriverCall {
    bool write;
    DrvRegAddr addr;
    int32_t count;
    std::vector<uint8_t> data;
};
uint8_t plc_mem[8192];
std::deque<int> read_results;  // scripted results; 0 once exhausted
std::deque<int> write_results;
std::vector<DriverCall> calls;

int next_result(std::deque<int>& q)
{
    if (q.empty())
        return 0;
    const int r = q.front();
    q.pop_front();
    return r;
}

size_t mem_offset(const DrvRegAddr* a) { return static_cast<size_t>(a->reg_addr_start) * std::max<int>(a->reg_type, 1); }

int fake_read(const DrvRegAddr* a, DrvDataRef* ref, PlcParam*)
{
    calls.push_back({false, *a, ref->count, {}});
    const int r = next_result(read_results);
    if (r == 0)
        std::memcpy(ref->data, plc_mem + mem_offset(a), static_cast<size_t>(RegAddr_Bytes(*a, ref->count)));
    return r;
}

int fake_write(const DrvRegAddr* a, DrvDataRef* ref, PlcParam*)
{
    const auto bytes = static_cast<size_t>(RegAddr_Bytes(*a, ref->count));
    calls.push_back({true, *a, ref->count, std::vector<uint8_t>(ref->data, ref->data + bytes)});
    const int r = next_result(write_results);
    if (r == 0)
        std::memcpy(plc_mem + mem_offset(a), ref->data, bytes);
    return r;
}

std::vector<uint8_t> bytes(std::initializer_list<int> v)
{
    std::vector<uint8_t> out;
    for (int b : v)
        out.push_back(static_cast<uint8_t>(b));
    return out;
}

class RealtimeService : public testing::Test {
protected:
    void SetUp() override
    {
        reset_area_tables();
        clear_requests();
        std::memset(plc_mem, 0, sizeof plc_mem);
        read_results.clear();
        write_results.clear();
        calls.clear();
    }
    void TearDown() override
    {
        clear_requests();
        reset_area_tables();
        VGlobComState& g = VGlobComState_Instance();
        std::fill(std::begin(g.keys), std::end(g.keys), 0u);
        g.count = g.slots = 0;
    }

    static void clear_requests()
    {
        std::lock_guard<std::mutex> lock(mutex);
        while (RORT_link_head->next != RORT_link_tail)
            delete_realtime_link(RORT_link_head->next);
    }

    static std::unique_ptr<PortThread> port(int driver_no, int deviceport = 1)
    {
        auto t = std::make_unique<PortThread>();
        t->port = deviceport;
        t->usable = true;
        t->drv.driver_no = driver_no;
        t->drv.read = fake_read;
        t->drv.write = fake_write;
        t->param.param.plc_driver_no = static_cast<uint16_t>(driver_no);
        t->op.port = static_cast<uint32_t>(deviceport);
        t->op.read_fn = fake_read;
        t->op.write_fn = fake_write;
        return t;
    }

    // Queues a request as the client commands do.
    static RORT_node* queue(const REG_ADDR& rec, int type, const std::vector<uint8_t>& data = {},
                            rw_oper rw = {}, int data_len = -1)
    {
        RORT_node* n = new_realtime_node(data_len >= 0 ? data_len : cal_commbuf_size(rec));
        if (!data.empty())
            std::memcpy(n->data, data.data(), std::min<size_t>(data.size(), static_cast<size_t>(n->data_len)));
        n->rw_oper = rw;
        std::lock_guard<std::mutex> lock(mutex);
        insert_realtime_link(n, rec, type);
        return n;
    }

    static std::vector<uint8_t> data(const RORT_node* n) { return std::vector<uint8_t>(n->data, n->data + n->data_len); }
    static std::vector<uint8_t> cache(const ORG_node* o)
    {
        return std::vector<uint8_t>(o->data, o->data + cal_commbuf_size(o->reg_addr));
    }
    static ORG_node* reg(const REG_ADDR& r) { return insert_ORT_FAT(r).org; }
    static int writes()
    {
        return static_cast<int>(std::count_if(calls.begin(), calls.end(), [](const DriverCall& c) { return c.write; }));
    }

    LocalBits bits;
};

rw_oper op(int32_t code, int32_t step = 1, int32_t hi = 100, int32_t lo = 0)
{
    return rw_oper{code, step, hi, lo, 0, 0};
}

TEST_F(RealtimeService, ReadRetriesAndLeavesCachesAlone)
{
    auto t = port(5);
    REG_ADDR rec = make_rec(1, 3, 2, 7, 10, 2);
    rec.addr_unit = 1;
    ORG_node* cached = reg(rec);
    plc_mem[20] = 0x34;
    plc_mem[21] = 0x12;

    RORT_node* lost = queue(rec, 0, bytes({0xAA, 0xBB, 0xCC, 0xDD}));
    read_results = {2, 2, 2};
    port_serve_realtime(*t);
    EXPECT_EQ(lost->status, 2);
    EXPECT_EQ(data(lost), bytes({0xAA, 0xBB, 0xCC, 0xDD}));
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].addr.addr_unit, 0); // reads carry no address unit
    EXPECT_EQ(calls[0].addr.reg_addr_start, 10);
    EXPECT_EQ(calls[0].count, 2);

    calls.clear();
    RORT_node* ok = queue(rec, 0);
    read_results = {3, 0};
    port_serve_realtime(*t);
    EXPECT_EQ(ok->status, 1);
    EXPECT_EQ(calls.size(), 2u);
    EXPECT_EQ(data(ok), bytes({0x34, 0x12, 0, 0}));
    EXPECT_EQ(cache(cached), bytes({0, 0, 0, 0}));
}

TEST_F(RealtimeService, WriteRefreshesCachesUnlessByteAddressedWordsOfWordOrderDriver)
{
    REG_ADDR rec = make_rec(1, 3, 2, 7, 10, 2);
    rec.addr_unit = 1;
    ORG_node* cached = reg(rec);

    auto siemens = port(450);
    RORT_node* w1 = queue(rec, 1, bytes({1, 2, 3, 4}));
    port_serve_realtime(*siemens);
    EXPECT_EQ(w1->status, 1);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].addr.addr_unit, 1);
    EXPECT_EQ(calls[0].data, bytes({1, 2, 3, 4}));
    EXPECT_EQ(cache(cached), bytes({0, 0, 0, 0}));

    auto plain = port(5);
    RORT_node* w2 = queue(rec, 1, bytes({5, 6, 7, 8}));
    port_serve_realtime(*plain);
    EXPECT_EQ(w2->status, 1);
    EXPECT_EQ(cache(cached), bytes({5, 6, 7, 8}));

    // Data shorter than the range: the rest is sent as zeros.
    calls.clear();
    RORT_node* w3 = queue(rec, 1, bytes({9, 9}), {}, 2);
    port_serve_realtime(*plain);
    EXPECT_EQ(w3->status, 1);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].data, bytes({9, 9, 0, 0}));
    EXPECT_EQ(cache(cached), bytes({9, 9, 0, 0}));

    // Three failures: status of the last, every attempt sends the values, caches kept.
    calls.clear();
    write_results = {2, 3, 3};
    RORT_node* w4 = queue(rec, 1, bytes({7, 7, 7, 7}));
    port_serve_realtime(*plain);
    EXPECT_EQ(w4->status, 3);
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[2].data, bytes({7, 7, 7, 7}));
    EXPECT_EQ(cache(cached), bytes({9, 9, 0, 0}));
}

TEST_F(RealtimeService, PulseWritesOneThenZero)
{
    auto t = port(5);
    const REG_ADDR rec = make_rec(1, 3, 2, 7, 4, 1);
    ORG_node* cached = reg(rec);

    // The first write fails: no resetting write, the cache already shows 1.
    write_results = {2};
    testing::internal::CaptureStdout();
    RORT_node* p1 = queue(rec, 2, {}, op(256));
    port_serve_realtime(*t);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("1:rw function code 0x100\n"), std::string::npos);
    EXPECT_EQ(p1->status, 2);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].data, bytes({1, 0}));
    EXPECT_EQ(cache(cached), bytes({1, 0}));

    // Success: 1, then 0 (retried), and the cache follows the request's data.
    calls.clear();
    write_results = {0, 2};
    RORT_node* p2 = queue(rec, 2, {}, op(256));
    testing::internal::CaptureStdout();
    port_serve_realtime(*t);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(p2->status, 1);
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].data, bytes({1, 0}));
    EXPECT_EQ(calls[2].data, bytes({0, 0}));
    EXPECT_EQ(cache(cached), bytes({0, 0}));
}

TEST_F(RealtimeService, ReadModifyWrite)
{
    auto t = port(5);
    const REG_ADDR rec = make_rec(1, 3, 2, 7, 4, 1);
    ORG_node* cached = reg(rec);
    plc_mem[8] = 41;

    // A failed read: its status, no write, operation block untouched.
    read_results = {2};
    RORT_node* failed = queue(rec, 2, {}, op(5));
    port_serve_realtime(*t);
    EXPECT_EQ(failed->status, 2);
    EXPECT_EQ(calls.size(), 1u);
    EXPECT_EQ(writes(), 0);
    EXPECT_EQ(failed->rw_oper.direction, 0);

    // Increment: PLC, request data, direction and cache all see 42.
    calls.clear();
    RORT_node* inc = queue(rec, 2, {}, op(5));
    port_serve_realtime(*t);
    EXPECT_EQ(inc->status, 1);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_TRUE(calls[1].write);
    EXPECT_EQ(plc_mem[8], 42);
    EXPECT_EQ(data(inc), bytes({42, 0}));
    EXPECT_EQ(inc->rw_oper.direction, 2);
    EXPECT_EQ(cache(cached), bytes({42, 0}));
}

TEST_F(RealtimeService, ReadModifyWriteOfDoubleWordInsideCell)
{
    // Byte address 2 of a 32-bit area: the value spans cells 0 and 1, and the
    // write sends one cell starting at the offset.
    REG_ADDR rec = make_rec(1, 3, 4, 7, 0, 2);
    rec.addr_unit = 1;
    rec.byte_offset = 2;
    ORG_node* cached = reg(rec);
    const auto cells = bytes({0xEE, 0xEE, 0x00, 0x00, 0x05, 0x00, 0xEE, 0xEE});

    // Siemens order: the halves are exchanged before the operation (5 + 1).
    auto siemens = port(450);
    std::memcpy(plc_mem, cells.data(), cells.size());
    RORT_node* s1 = queue(rec, 2, {}, op(5, 1, 1000000));
    port_serve_realtime(*siemens);
    EXPECT_EQ(s1->status, 1);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].count, 1);
    EXPECT_EQ(calls[1].data, bytes({6, 0, 0, 0}));
    EXPECT_EQ(data(s1), bytes({0xEE, 0xEE, 6, 0, 0, 0, 0xEE, 0xEE}));
    EXPECT_EQ(cache(cached), std::vector<uint8_t>(8, 0));

    // The other family takes the bytes as they are: 0x00050000 + 1.
    calls.clear();
    auto s2 = port(38);
    std::memcpy(plc_mem, cells.data(), cells.size());
    RORT_node* r2 = queue(rec, 2, {}, op(5, 1, 1000000));
    port_serve_realtime(*s2);
    EXPECT_EQ(r2->status, 1);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].data, bytes({1, 0, 5, 0}));
    EXPECT_EQ(cache(cached), std::vector<uint8_t>(8, 0));
}

TEST_F(RealtimeService, ThreeRequestsPerCycle)
{
    auto t = port(5);
    std::vector<RORT_node*> reqs;
    for (int i = 0; i < 4; ++i)
        reqs.push_back(queue(make_rec(1, 3, 2, 7, i, 1), 0));
    RORT_node* other = queue(make_rec(2, 3, 2, 7, 0, 1), 0);

    port_serve_realtime(*t);
    EXPECT_EQ(calls.size(), 3u);
    EXPECT_EQ(reqs[2]->status, 1);
    EXPECT_EQ(reqs[3]->status, 0);
    port_serve_realtime(*t);
    EXPECT_EQ(reqs[3]->status, 1);
    EXPECT_EQ(calls.size(), 4u);
    EXPECT_EQ(other->status, 0);
}

TEST_F(RealtimeService, UnservableRequestsFailWithoutDriverCall)
{
    auto t = port(5);
    RORT_node* code = queue(make_rec(1, 3, 2, 7, 0, 1), 2, {}, op(300));
    RORT_node* big_read = queue(make_rec(1, 3, 2, 7, 0, 2049), 0, {}, {}, 1);
    RORT_node* big_write = queue(make_rec(1, 3, 2, 7, 0, 2), 1, {}, {}, 4097);
    port_serve_realtime(*t);
    RORT_node* negative = queue(make_rec(1, 3, 2, 7, 0, -4), 0, {}, {}, 1);
    RORT_node* kind = queue(make_rec(1, 3, 2, 7, 0, 1), 0);
    kind->req_type = 7;
    RORT_node* fine = queue(make_rec(1, 3, 2, 7, 0, 2), 2, {}, op(-1)); // negative code: ordinary path
    port_serve_realtime(*t);

    for (RORT_node* n : {code, big_read, big_write, negative, kind})
        EXPECT_EQ(n->status, 3);
    EXPECT_EQ(fine->status, 1);
    EXPECT_EQ(calls.size(), 2u); // the read and write of the last request only
}

TEST_F(RealtimeService, UnusableDriverFailsEveryPendingRequestOfItsPort)
{
    auto t = port(5);
    t->usable = false;
    std::vector<RORT_node*> mine;
    for (int i = 0; i < 5; ++i)
        mine.push_back(queue(make_rec(1, 3, 2, 7, i, 1), i % 3, {}, op(5)));
    RORT_node* other = queue(make_rec(2, 3, 2, 7, 0, 1), 0);
    port_serve_realtime(*t);
    for (RORT_node* n : mine)
        EXPECT_EQ(n->status, 3);
    EXPECT_EQ(other->status, 0);
    EXPECT_TRUE(calls.empty());
}

} // namespace
