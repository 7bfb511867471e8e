// Helpers shared by the unit tests and the fuzz targets: records, the list
// rule checks as test assertions, one reset of every process-wide list and
// table, a fake PLC behind the block read/write entry points, and expected
// packets built by hand (never with the builders under test).
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <mutex>
#include <numeric>
#include <string>
#include <vector>

#include "base/globals.h"
#include "base/local_areas.h"
#include "driver/plc_abi.h"
#include "port/com_state.h"
#include "store/addressing.h"
#include "tables/opt_builder.h"
#include "tables/realtime_list.h"
#include "tables/table_checks.h"
#include "tables/table_ops.h"
#include "tables/tables.h"

namespace table_test {

inline REG_ADDR make_rec(uint8_t port, uint8_t plc, uint8_t type, uint8_t id, int32_t start,
                         int16_t width, uint8_t bcd = 0)
{
    return REG_ADDR{0, port, plc, 0, type, id, 0, start, width, bcd, 0};
}

// Every rule of the FAT and ORG lists (table_checks.h), after any sequence of
// registrations, unregistrations, sweeps and rebuilds.
inline testing::AssertionResult tables_consistent()
{
    const std::string broken = tables_check();
    return broken.empty() ? testing::AssertionSuccess() : testing::AssertionFailure() << broken;
}

// The ranges of the ORG list, in list order, as "start/width" strings.
inline std::vector<std::string> org_ranges()
{
    std::vector<std::string> out;
    for (ORG_node* o = ORT_link_head->next; o != ORT_link_tail; o = o->next)
        out.push_back(std::to_string(o->reg_addr.reg_addr_start) + "/" +
                      std::to_string(o->reg_addr.reg_data_width));
    return out;
}

// Empties the FAT and ORG lists (first use: creates them). FAT nodes, which
// only a port thread's rebuild pass frees in the server, are unlinked directly.
inline void reset_area_tables()
{
    if (FAT_link_head == nullptr)
        return links_init();
    std::unique_lock lock(rwlock);
    while (ORT_link_head->next != ORT_link_tail)
        delete_ORG(ORT_link_head->next);
    while (FAT_link_head->next != FAT_link_tail) {
        FAT_node* f = FAT_link_head->next;
        FAT_link_head->next = f->next;
        f->next->prev = FAT_link_head;
        delete f;
    }
}

// Empties the realtime list, the FAT and ORG lists and the station time-out table.
inline void reset_tables()
{
    reset_area_tables();
    {
        std::lock_guard lock(mutex);
        while (RORT_link_head->next != RORT_link_tail)
            delete_realtime_link(RORT_link_head->next);
    }
    VGlobComState& g = VGlobComState_Instance();
    std::fill(std::begin(g.keys), std::end(g.keys), 0u);
    g.count = g.slots = 0;
}

using Bytes = std::vector<uint8_t>;

// The fake PLC: a byte memory addressed as start * element size, with
// scripted results (0 once a script is exhausted) and a log of every call.
struct DriverCall {
    DrvRegAddr addr;
    int32_t count;
    Bytes data; // what a write sent
};
struct FakePlc {
    uint8_t mem[8192] = {};
    std::deque<int> read_results, write_results;
    std::vector<DriverCall> calls;
};
inline FakePlc plc;

inline int fake_call(bool write, const DrvRegAddr* a, DrvDataRef* ref)
{
    const auto n = static_cast<size_t>(RegAddr_Bytes(*a, ref->count));
    uint8_t* mem = plc.mem + static_cast<size_t>(a->reg_addr_start) * std::max<int>(a->reg_type, 1);
    plc.calls.push_back({*a, ref->count, write ? Bytes(ref->data, ref->data + n) : Bytes{}});
    std::deque<int>& q = write ? plc.write_results : plc.read_results;
    const int r = q.empty() ? 0 : q.front();
    if (!q.empty())
        q.pop_front();
    if (r == 0)
        std::memcpy(write ? mem : ref->data, write ? ref->data : mem, n);
    return r;
}
inline int fake_read(const DrvRegAddr* a, DrvDataRef* ref, PlcParam*) { return fake_call(false, a, ref); }
inline int fake_write(const DrvRegAddr* a, DrvDataRef* ref, PlcParam*) { return fake_call(true, a, ref); }

// A reply packet: header, body, checksum byte.
inline Bytes packet(Bytes body)
{
    const size_t len = body.size() + 1;
    body.push_back(static_cast<uint8_t>(std::accumulate(body.begin(), body.end(), 0)));
    body.insert(body.begin(), {1, 0, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(len), static_cast<uint8_t>(len >> 8)});
    return body;
}
inline Bytes status_reply(uint8_t cmd, uint8_t ok, uint8_t err) { return packet({cmd, ok, err}); }
inline Bytes data_reply(uint8_t cmd, Bytes data)
{
    data.insert(data.begin(), {cmd, 1, static_cast<uint8_t>(data.size()), static_cast<uint8_t>(data.size() >> 8)});
    return packet(data);
}

// The table and list operations check in debug builds that their caller
// holds the lock they need; tests call them through these.
inline OrtFatResult reg_range(const REG_ADDR& r)
{
    std::unique_lock lock(rwlock);
    return insert_ORT_FAT(r);
}
inline void unreg_range(const REG_ADDR& r)
{
    std::unique_lock lock(rwlock);
    unregister_ORT_FAT(r);
}
inline RealtimeInsert queue_locked(RORT_node* n, const REG_ADDR& r, int req_type, uint32_t owner = 0)
{
    std::lock_guard lock(mutex);
    return insert_realtime_link(n, r, req_type, owner);
}

// Points the global local bit area at a zeroed buffer for the test's life.
class LocalBits {
public:
    LocalBits() : saved_(local_bit)
    {
        local_bit = buf_;
        local_areas_init(sizeof buf_, 0, 0);
    }
    ~LocalBits()
    {
        local_bit = saved_;
        local_areas_init(0, 0, 0);
    }
    LocalBits(const LocalBits&) = delete;
    LocalBits& operator=(const LocalBits&) = delete;

    // Table flag bit 12 (bit 4 of byte 1157): new ranges start valid.
    void set_new_range_valid(bool on)
    {
        buf_[1157] = static_cast<uint8_t>(on ? buf_[1157] | 0x10 : buf_[1157] & ~0x10);
    }

private:
    uint8_t* saved_;
    uint8_t buf_[2048]{};
};

} // namespace table_test
