// The list-rule checks of table_checks.h. They only read the lists; each
// returns at the first broken rule, naming it and the area (as 8 hex digits
// of port, station, kind and id) where it broke.
#include "tables/table_checks.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <vector>

#include "tables/table_ops.h"

namespace {

int64_t end_of(const REG_ADDR& r) { return int64_t{r.reg_addr_start} + r.reg_data_width; }

std::string broken(const std::string& what, uint32_t key = 0)
{
    char area[24];
    std::snprintf(area, sizeof area, " (area 0x%08x)", static_cast<unsigned>(key));
    return what + area;
}

// The ORG list's links, caches, group order and range order; fills `orgs`
// with its real nodes in list order.
std::string check_org_list(std::vector<ORG_node*>& orgs)
{
    std::set<std::string> records;
    for (ORG_node* o = ORT_link_head; o != ORT_link_tail; o = o->next) {
        if (o->next == nullptr || o->next->prev != o)
            return broken("ORG links broken");
        if (o == ORT_link_head)
            continue;
        const REG_ADDR& c = o->reg_addr;
        if (o->data == nullptr)
            return broken("ORG node without cache", area_key(c));
        if (!records.insert(std::string(reinterpret_cast<const char*>(&c), sizeof c)).second)
            return broken("duplicate record", area_key(c));
        if (!orgs.empty()) {
            const REG_ADDR& p = orgs.back()->reg_addr;
            if (area_key(p) > area_key(c))
                return broken("ORG groups out of area order", area_key(c));
            if (area_key(p) == area_key(c) &&
                (p.reg_addr_start > c.reg_addr_start ||
                 (p.reg_addr_start == c.reg_addr_start && p.reg_data_width < c.reg_data_width)))
                return broken("ranges out of order at " + std::to_string(c.reg_addr_start), area_key(c));
        }
        orgs.push_back(o);
    }
    return {};
}

// One FAT node's org_first against its group's first node (null: no ranges).
std::string check_area_anchor(const FAT_node& f, const ORG_node* first, const std::set<const ORG_node*>& live)
{
    const uint32_t k = area_key(f);
    if (f.change_state == AREA_EMPTY) {
        // Emptied: parked on a live node (or the head) sorting before the area.
        if (first != nullptr)
            return broken("emptied area with ranges", k);
        if (live.count(f.org_first) == 0)
            return broken("emptied area parked on a freed node", k);
        if (f.org_first != ORT_link_head && area_key(f.org_first->reg_addr) >= k)
            return broken("emptied area parked after its place", k);
        return {};
    }
    if (f.change_state != AREA_CURRENT && f.change_state != AREA_REBUILD)
        return broken("bad change_state " + std::to_string(f.change_state), k);
    if (first == nullptr)
        return broken("empty area not marked emptied", k);
    if (f.org_first != first)
        return broken("org_first is not the group's first node", k);
    return {};
}

// A port's blocks in list order, after checking their links, port, size,
// order and the cursor.
std::string collect_blocks(int port, OPT_node* head, OPT_node* tail, OPT_node* cursor, const OPT_limits& limits,
                           std::vector<OPT_node*>& blocks)
{
    if (head->prev != nullptr || tail->next != nullptr)
        return broken("OPT sentinels changed");
    bool cursor_seen = cursor == head;
    for (OPT_node* b = head->next; b != tail; b = b->next) {
        if (b == nullptr || b->next == nullptr || b->next->prev != b || b->prev->next != b)
            return broken("OPT links broken");
        const REG_ADDR& r = b->reg_addr;
        int32_t len = 0;
        int32_t gap = 0;
        opt_limits_for(limits, r.reg_type, len, gap);
        if (r.deviceport_id != port || r.reg_data_width < 1 || r.reg_data_width > len)
            return broken("block of another port, empty or over its limit", area_key(r));
        if (!blocks.empty()) {
            const REG_ADDR& p = blocks.back()->reg_addr;
            if (area_key(p) > area_key(r) || (area_key(p) == area_key(r) && end_of(p) > r.reg_addr_start))
                return broken("blocks out of order or overlapping", area_key(r));
        }
        cursor_seen = cursor_seen || cursor == b;
        blocks.push_back(b);
    }
    return cursor_seen ? std::string() : broken("cursor off the list");
}

// The blocks [first, last) of a current area against its ranges.
std::string check_area_blocks(const FAT_node& f, const std::vector<OPT_node*>& blocks, size_t first, size_t last)
{
    const uint32_t k = area_key(f);
    std::vector<const ORG_node*> ranges;
    for (const ORG_node* o = f.org_first; o != ORT_link_tail && area_key(o->reg_addr) == k; o = o->next)
        ranges.push_back(o);
    auto inside = [&](int64_t reg) {
        return std::any_of(ranges.begin(), ranges.end(), [&](const ORG_node* o) {
            return o->reg_addr.reg_addr_start <= reg && reg < end_of(o->reg_addr);
        });
    };
    for (size_t i = first; i < last; ++i) {
        const REG_ADDR& b = blocks[i]->reg_addr;
        const ORG_node* o = blocks[i]->org;
        if (!inside(b.reg_addr_start) || !inside(end_of(b) - 1))
            return broken("block does not start and end inside ranges", k);
        if (std::find(ranges.begin(), ranges.end(), o) == ranges.end() ||
            o->reg_addr.reg_addr_start >= end_of(b) || end_of(o->reg_addr) <= b.reg_addr_start)
            return broken("block's first range is not a covered range of the area", k);
    }
    for (const ORG_node* o : ranges) {
        int64_t reg = o->reg_addr.reg_addr_start;
        for (size_t i = first; i < last && reg < end_of(o->reg_addr); ++i)
            if (blocks[i]->reg_addr.reg_addr_start <= reg && reg < end_of(blocks[i]->reg_addr))
                reg = end_of(blocks[i]->reg_addr);
        if (reg < end_of(o->reg_addr))
            return broken("register " + std::to_string(reg) + " of a range in no block", k);
    }
    return {};
}

} // namespace

std::string tables_check()
{
    if (FAT_link_head->prev || FAT_link_tail->next || ORT_link_head->prev || ORT_link_tail->next ||
        FAT_link_head->org_first != ORT_link_head || FAT_link_tail->org_first != ORT_link_tail)
        return broken("sentinels changed");
    std::vector<ORG_node*> orgs;
    if (std::string e = check_org_list(orgs); !e.empty())
        return e;
    std::set<const ORG_node*> live(orgs.begin(), orgs.end());
    live.insert(ORT_link_head);

    std::set<uint32_t> fat_keys;
    for (FAT_node* f = FAT_link_head->next; f != FAT_link_tail; f = f->next) {
        const uint32_t k = area_key(*f);
        if (f->next == nullptr || f->next->prev != f || f->prev->next != f)
            return broken("FAT links broken", k);
        if (f->prev != FAT_link_head && area_key(*f->prev) >= k)
            return broken("FAT keys not strictly ascending", k);
        fat_keys.insert(k);
        auto it = std::find_if(orgs.begin(), orgs.end(), [k](ORG_node* o) { return area_key(o->reg_addr) == k; });
        if (std::string e = check_area_anchor(*f, it == orgs.end() ? nullptr : *it, live); !e.empty())
            return e;
    }
    for (const ORG_node* o : orgs)
        if (fat_keys.count(area_key(o->reg_addr)) == 0)
            return broken("ORG node without FAT node", area_key(o->reg_addr));
    return {};
}

std::string opt_check(int port, OPT_node* head, OPT_node* tail, OPT_node* cursor, const OPT_limits& limits)
{
    std::vector<OPT_node*> blocks;
    if (std::string e = collect_blocks(port, head, tail, cursor, limits, blocks); !e.empty())
        return e;
    size_t next = 0; // areas' blocks stand in FAT order, so one walk matches them
    for (FAT_node* f = FAT_link_head->next; f != FAT_link_tail; f = f->next) {
        if (f->deviceport_id != port)
            continue;
        const uint32_t k = area_key(*f);
        if (next < blocks.size() && area_key(blocks[next]->reg_addr) < k)
            return broken("blocks of an area without FAT node", area_key(blocks[next]->reg_addr));
        const size_t first = next;
        while (next < blocks.size() && area_key(blocks[next]->reg_addr) == k)
            ++next;
        if (f->opt_first != (first == next ? nullptr : blocks[first]))
            return broken("opt_first is not the area's first block", k);
        if (f->change_state != AREA_CURRENT)
            continue;
        if (std::string e = check_area_blocks(*f, blocks, first, next); !e.empty())
            return e;
    }
    if (next != blocks.size())
        return broken("blocks of an area without FAT node", area_key(blocks[next]->reg_addr));
    return {};
}

void table_rule_broken(const std::string& what)
{
    std::fprintf(stderr, "area table rule broken: %s\n", what.c_str());
    std::abort();
}
