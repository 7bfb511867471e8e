// Helpers shared by the unit tests and the fuzz targets: records, checkers of
// every ordering and linkage rule of the FAT and ORG lists and of a port's
// block list, one reset of every process-wide list and table, a fake PLC
// behind the block read/write entry points, and expected packets built by
// hand (never with the builders under test).
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <numeric>
#include <set>
#include <string>
#include <vector>

#include "base/globals.h"
#include "base/local_areas.h"
#include "driver/plc_abi.h"
#include "port/com_state.h"
#include "store/addressing.h"
#include "tables/opt_builder.h"
#include "tables/realtime_list.h"
#include "tables/table_ops.h"
#include "tables/tables.h"

namespace table_test {

inline uint32_t key_of(uint8_t port, uint8_t plc, uint8_t type, uint8_t id)
{
    return (uint32_t{port} << 24) | (uint32_t{plc} << 16) | (uint32_t{type} << 8) | id;
}
inline uint32_t key_of(const REG_ADDR& r) { return key_of(r.deviceport_id, r.plc_id, r.reg_type, r.reg_id); }
inline uint32_t key_of(const FAT_node& f) { return key_of(f.deviceport_id, f.plc_id, f.reg_type, f.reg_id); }

inline REG_ADDR make_rec(uint8_t port, uint8_t plc, uint8_t type, uint8_t id, int32_t start,
                         int16_t width, uint8_t bcd = 0)
{
    return REG_ADDR{0, port, plc, 0, type, id, 0, start, width, bcd, 0};
}

inline testing::AssertionResult area_failure(const std::string& what, uint32_t key)
{
    char area[16];
    std::snprintf(area, sizeof area, "%08x", key);
    return testing::AssertionFailure() << what << " (area 0x" << area << ")";
}

// Checks the FAT and ORG lists against every rule they must keep, after any
// sequence of registrations, unregistrations, sweeps and rebuilds.
inline testing::AssertionResult tables_consistent()
{
    auto fail = [](const std::string& what, uint32_t key = 0) { return area_failure(what, key); };
    if (FAT_link_head->prev || FAT_link_tail->next || ORT_link_head->prev || ORT_link_tail->next ||
        FAT_link_head->org_first != ORT_link_head || FAT_link_tail->org_first != ORT_link_tail)
        return fail("sentinels changed");

    // ORG list: links, caches, groups in area order, ranges ordered, no duplicates.
    std::vector<ORG_node*> orgs;
    std::set<ORG_node*> live{ORT_link_head};
    std::set<std::string> records;
    for (ORG_node* o = ORT_link_head; o != ORT_link_tail; o = o->next) {
        if (o->next == nullptr || o->next->prev != o)
            return fail("ORG links broken");
        if (o == ORT_link_head)
            continue;
        const REG_ADDR& c = o->reg_addr;
        if (o->data == nullptr)
            return fail("ORG node without cache", key_of(c));
        if (!records.insert(std::string(reinterpret_cast<const char*>(&c), sizeof c)).second)
            return fail("duplicate record", key_of(c));
        if (!orgs.empty()) {
            const REG_ADDR& p = orgs.back()->reg_addr;
            if (key_of(p) > key_of(c))
                return fail("ORG groups out of area order", key_of(c));
            if (key_of(p) == key_of(c) &&
                (p.reg_addr_start > c.reg_addr_start ||
                 (p.reg_addr_start == c.reg_addr_start && p.reg_data_width < c.reg_data_width)))
                return fail("ranges out of order at " + std::to_string(c.reg_addr_start), key_of(c));
        }
        orgs.push_back(o);
        live.insert(o);
    }

    // FAT list: links, strictly ascending keys, each area's group and org_first.
    std::set<uint32_t> fat_keys;
    for (FAT_node* f = FAT_link_head->next; f != FAT_link_tail; f = f->next) {
        const uint32_t k = key_of(*f);
        if (f->next == nullptr || f->next->prev != f || f->prev->next != f)
            return fail("FAT links broken", k);
        if (f->prev != FAT_link_head && key_of(*f->prev) >= k)
            return fail("FAT keys not strictly ascending", k);
        fat_keys.insert(k);
        auto it = std::find_if(orgs.begin(), orgs.end(), [k](ORG_node* o) { return key_of(o->reg_addr) == k; });
        ORG_node* first = it == orgs.end() ? nullptr : *it;
        if (f->change_state == 2) {
            // Emptied: parked on a live node (or the head) sorting before the area.
            if (first != nullptr)
                return fail("change_state 2 with ranges", k);
            if (live.count(f->org_first) == 0)
                return fail("emptied area parked on a freed node", k);
            if (f->org_first != ORT_link_head && key_of(f->org_first->reg_addr) >= k)
                return fail("emptied area parked after its place", k);
        } else if (f->change_state != 0 && f->change_state != 1) {
            return fail("bad change_state " + std::to_string(f->change_state), k);
        } else if (first == nullptr) {
            return fail("empty area without change_state 2", k);
        } else if (f->org_first != first) {
            return fail("org_first is not the group's first node", k);
        }
    }
    for (ORG_node* o : orgs)
        if (fat_keys.count(key_of(o->reg_addr)) == 0)
            return fail("ORG node without FAT node", key_of(o->reg_addr));
    return testing::AssertionSuccess();
}

// Checks one port's block list: its links, only the port's blocks, areas in
// FAT order with ascending disjoint blocks no longer than their limit, each
// area's opt_first on its first block, and the cursor on the head or a block.
// For an area whose blocks are current (change_state 0) the blocks must
// cover every register of its ranges, start and end inside ranges, and name
// a covered range of the area as their first.
inline testing::AssertionResult opt_consistent(int port, OPT_node* head, OPT_node* tail, OPT_node* cursor,
                                               const OPT_limits& limits)
{
    auto fail = [](const std::string& what, uint32_t key = 0) { return area_failure(what, key); };
    auto end_of = [](const REG_ADDR& r) { return int64_t{r.reg_addr_start} + r.reg_data_width; };
    if (head->prev != nullptr || tail->next != nullptr)
        return fail("OPT sentinels changed");
    std::vector<OPT_node*> blocks;
    bool cursor_seen = cursor == head;
    for (OPT_node* b = head->next; b != tail; b = b->next) {
        if (b == nullptr || b->next == nullptr || b->next->prev != b || b->prev->next != b)
            return fail("OPT links broken");
        const REG_ADDR& r = b->reg_addr;
        int32_t len = 0, gap = 0;
        opt_limits_for(limits, r.reg_type, len, gap);
        if (r.deviceport_id != port || r.reg_data_width < 1 || r.reg_data_width > len)
            return fail("block of another port, empty or over its limit", key_of(r));
        if (!blocks.empty()) {
            const REG_ADDR& p = blocks.back()->reg_addr;
            if (key_of(p) > key_of(r) || (key_of(p) == key_of(r) && end_of(p) > r.reg_addr_start))
                return fail("blocks out of order or overlapping", key_of(r));
        }
        cursor_seen = cursor_seen || cursor == b;
        blocks.push_back(b);
    }
    if (!cursor_seen)
        return fail("cursor off the list");

    size_t next = 0;   // areas' blocks stand in FAT order, so one walk matches them
    for (FAT_node* f = FAT_link_head->next; f != FAT_link_tail; f = f->next) {
        if (f->deviceport_id != port)
            continue;
        const uint32_t k = key_of(*f);
        if (next < blocks.size() && key_of(blocks[next]->reg_addr) < k)
            return fail("blocks of an area without FAT node", key_of(blocks[next]->reg_addr));
        const size_t first = next;
        while (next < blocks.size() && key_of(blocks[next]->reg_addr) == k)
            ++next;
        if (f->opt_first != (first == next ? nullptr : blocks[first]))
            return fail("opt_first is not the area's first block", k);
        if (f->change_state != 0)
            continue;
        std::vector<const ORG_node*> ranges;
        for (const ORG_node* o = f->org_first; o != ORT_link_tail && key_of(o->reg_addr) == k; o = o->next)
            ranges.push_back(o);
        auto inside = [&](int64_t reg) {
            return std::any_of(ranges.begin(), ranges.end(), [&](const ORG_node* o) {
                return o->reg_addr.reg_addr_start <= reg && reg < end_of(o->reg_addr);
            });
        };
        for (size_t i = first; i < next; ++i) {
            const REG_ADDR& b = blocks[i]->reg_addr;
            const ORG_node* o = blocks[i]->org;
            if (!inside(b.reg_addr_start) || !inside(end_of(b) - 1))
                return fail("block does not start and end inside ranges", k);
            if (std::find(ranges.begin(), ranges.end(), o) == ranges.end() ||
                o->reg_addr.reg_addr_start >= end_of(b) || end_of(o->reg_addr) <= b.reg_addr_start)
                return fail("block's first range is not a covered range of the area", k);
        }
        for (const ORG_node* o : ranges) {
            int64_t reg = o->reg_addr.reg_addr_start;
            for (size_t i = first; i < next && reg < end_of(o->reg_addr); ++i)
                if (blocks[i]->reg_addr.reg_addr_start <= reg && reg < end_of(blocks[i]->reg_addr))
                    reg = end_of(blocks[i]->reg_addr);
            if (reg < end_of(o->reg_addr))
                return fail("register " + std::to_string(reg) + " of a range in no block", k);
        }
    }
    if (next != blocks.size())
        return fail("blocks of an area without FAT node", key_of(blocks[next]->reg_addr));
    return testing::AssertionSuccess();
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

inline int fat_count()
{
    int n = 0;
    for (FAT_node* f = FAT_link_head->next; f != FAT_link_tail; f = f->next)
        ++n;
    return n;
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
