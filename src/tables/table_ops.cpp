// FAT and ORG list maintenance: key searches, linking, unlinking and the two
// composite operations that register and unregister a range.
#include "tables/table_ops.h"

#include <cassert>
#include <ctime>
#include <new>
#include <utility>

#include "base/lock_rules.h"
#include "tables/table_checks.h"

namespace {

#ifndef NDEBUG
// The lock each kind of operation needs (see table_ops.h).
bool may_search() { return lock_rules::holds(lock_rules::TABLES); }
bool may_link() { return lock_rules::holds(lock_rules::TABLES_EXCLUSIVE); }
#endif

// True when `org` is a real node (not a sentinel) of the record's area.
bool in_area(const ORG_node* org, const REG_ADDR& rec)
{
    return org != ORT_link_tail && org != ORT_link_head && same_area(org->reg_addr, rec);
}

void copy_key(FAT_node* node, const REG_ADDR& rec)
{
    node->deviceport_id = rec.deviceport_id;
    node->plc_id = rec.plc_id;
    node->reg_type = rec.reg_type;
    node->reg_id = rec.reg_id;
    node->opt_first = nullptr;
}

// A fresh ORG node with a zero-filled cache of the range's size. The cache
// always has at least one byte so that `data` is never null, even for a
// record whose size comes out as 0 or negative.
ORG_node* new_org_node(const REG_ADDR& rec)
{
    ORG_node* node = new (std::nothrow) ORG_node{};
    if (node == nullptr)
        return nullptr;
    int size = cal_commbuf_size(rec);
    if (size < 1)
        size = 1;
    node->data = new (std::nothrow) uint8_t[size]();
    if (node->data == nullptr) {
        delete node;
        return nullptr;
    }
    return node;
}

void free_org_node(ORG_node* node)
{
    delete[] node->data;
    delete node;
}

} // namespace

uint32_t area_key(uint8_t port, uint8_t plc, uint8_t type, uint8_t id)
{
    // Packing the four bytes big-end first makes integer order the
    // lexicographic order of the key.
    return (uint32_t{port} << 24) | (uint32_t{plc} << 16) | (uint32_t{type} << 8) | id;
}

uint32_t area_key(const FAT_node& f) { return area_key(f.deviceport_id, f.plc_id, f.reg_type, f.reg_id); }

uint32_t area_key(const REG_ADDR& r) { return area_key(r.deviceport_id, r.plc_id, r.reg_type, r.reg_id); }

int area_key_compare(const FAT_node& fat, const REG_ADDR& rec)
{
    uint32_t a = area_key(fat);
    uint32_t b = area_key(rec);
    return a < b ? -1 : (a > b ? 1 : 0);
}

bool same_area(const FAT_node& fat, const REG_ADDR& rec) { return area_key(fat) == area_key(rec); }

bool same_area(const REG_ADDR& a, const REG_ADDR& b) { return area_key(a) == area_key(b); }

FAT_node* check_FAT(const REG_ADDR& rec)
{
    assert(may_search());
    FAT_node* f = FAT_link_head->next;
    if (f == FAT_link_tail)
        return nullptr;
    while (f != FAT_link_tail && area_key_compare(*f, rec) < 0)
        f = f->next;
    return f;
}

ORG_node* check_ORG(ORG_node* first, const REG_ADDR& rec)
{
    assert(may_search());
    const int32_t start = rec.reg_addr_start;
    const int16_t width = rec.reg_data_width;

    if (start < first->reg_addr.reg_addr_start ||
        (start == first->reg_addr.reg_addr_start && width > first->reg_addr.reg_data_width))
        return first->prev;

    ORG_node* cur = first;
    for (;;) {
        if (reg_addr_equal(cur->reg_addr, rec))
            return cur;
        ORG_node* next = cur->next;
        if (!in_area(next, rec))
            return cur;
        const int32_t cur_start = cur->reg_addr.reg_addr_start;
        const int32_t next_start = next->reg_addr.reg_addr_start;
        if ((cur_start < start && next_start > start) ||
            (start == next_start && width > next->reg_addr.reg_data_width) ||
            (start == cur_start && start < next_start))
            return cur;
        cur = next;
    }
}

ORG_node* find_ORG_instert(FAT_node* fat)
{
    FAT_node* f = fat->next;
    while (f != FAT_link_tail && f->change_state == AREA_EMPTY)
        f = f->next;
    // The FAT tail's org_first is the ORG tail, so this also yields the last
    // ORG node when no live area follows.
    return f->org_first->prev;
}

FAT_node* find_FAT(const ORG_node* org)
{
    for (FAT_node* f = FAT_link_head->next; f != FAT_link_tail; f = f->next)
        if (same_area(*f, org->reg_addr))
            return f;
    return nullptr;
}

void insert_NULL_FAT(FAT_node* node, const REG_ADDR& rec)
{
    assert(may_link());
    copy_key(node, rec);
    node->prev = FAT_link_head;
    node->next = FAT_link_tail;
    FAT_link_head->next = node;
    FAT_link_tail->prev = node;
}

void insert_FAT(FAT_node* node, const REG_ADDR& rec, FAT_node* pos)
{
    assert(may_link());
    copy_key(node, rec);
    node->prev = pos->prev;
    node->next = pos;
    pos->prev->next = node;
    pos->prev = node;
}

void insert_NULL_ORG(ORG_node* node, const REG_ADDR& rec)
{
    assert(may_link());
    node->age = 0;
    node->status = STATUS_PENDING;
    node->part_status = STATUS_PENDING;
    node->refresh_time = 0;
    node->reg_addr = rec;
    node->prev = ORT_link_head;
    node->next = ORT_link_tail;
    ORT_link_head->next = node;
    ORT_link_tail->prev = node;
}

void insert_ORG(ORG_node* node, const REG_ADDR& rec, ORG_node* pos)
{
    assert(may_link());
    node->refresh_time = static_cast<uint32_t>(time(nullptr));
    node->age = 0;
    node->part_status = STATUS_PENDING;
    node->status = table_flag_new_range_valid() ? STATUS_OK : STATUS_PENDING;
    node->reg_addr = rec;
    node->prev = pos;
    node->next = pos->next;
    pos->next->prev = node;
    pos->next = node;
}

void delete_ORG(ORG_node* org)
{
    assert(may_link());
    delete[] org->data;
    org->data = nullptr;
    org->prev->next = org->next;
    org->next->prev = org->prev;
    delete org;
}

void FAT_START_ADDR(FAT_node* first_fat, ORG_node* org)
{
    for (FAT_node* f = first_fat; f != FAT_link_tail; f = f->next)
        if (f->org_first == org)
            f->org_first = org->prev;
}

void delete_ORT_FAT(FAT_node* fat, ORG_node* org)
{
    assert(may_link());
    if (fat->org_first != org) {
        FAT_START_ADDR(FAT_link_head->next, org);
        delete_ORG(org);
        fat->change_state = AREA_REBUILD;
    } else if (in_area(org->next, org->reg_addr)) {
        fat->org_first = org->next;
        // An emptied area may still be parked on this node: it was the last
        // node of its group when that area emptied, and ranges appended to
        // the group since then followed it. Move such areas off it too.
        FAT_START_ADDR(FAT_link_head->next, org);
        delete_ORG(org);
        fat->change_state = AREA_REBUILD;
    } else {
        fat->org_first = org->prev;
        FAT_START_ADDR(FAT_link_head->next, org);
        delete_ORG(org);
        fat->change_state = AREA_EMPTY;
    }
}

namespace {

OrtFatResult insert_range(const REG_ADDR& rec)
{
    FAT_node* f = check_FAT(rec);

    if (f != nullptr && f != FAT_link_tail && same_area(*f, rec)) {
        if (f->change_state == AREA_EMPTY) {
            // Refill an emptied area whose FAT node is still in the list.
            ORG_node* node = new_org_node(rec);
            if (node == nullptr)
                return {nullptr, false};
            insert_ORG(node, rec, find_ORG_instert(f));
            f->org_first = node;
            f->change_state = AREA_REBUILD;
            return {node, true};
        }
        ORG_node* pos = check_ORG(f->org_first, rec);
        if (pos != ORT_link_head && reg_addr_equal(pos->reg_addr, rec))
            return {pos, false};
        ORG_node* node = new_org_node(rec);
        if (node == nullptr)
            return {nullptr, false};
        insert_ORG(node, rec, pos);
        if (node->next == f->org_first)
            f->org_first = node;
        f->change_state = AREA_REBUILD;
        return {node, true};
    }

    // A new area: allocate both nodes before linking either.
    ORG_node* node = new_org_node(rec);
    if (node == nullptr)
        return {nullptr, false};
    FAT_node* fat = new (std::nothrow) FAT_node{};
    if (fat == nullptr) {
        free_org_node(node);
        return {nullptr, false};
    }

    if (f == nullptr) {
        insert_NULL_ORG(node, rec);
        insert_NULL_FAT(fat, rec);
    } else {
        // Link the FAT node first so that the group's place is searched
        // from the area that follows it.
        insert_FAT(fat, rec, f);
        if (ORT_link_head->next == ORT_link_tail)
            insert_NULL_ORG(node, rec);
        else
            insert_ORG(node, rec, find_ORG_instert(fat));
    }
    fat->org_first = node;
    fat->change_state = AREA_REBUILD;
    return {node, true};
}

} // namespace

OrtFatResult insert_ORT_FAT(const REG_ADDR& rec)
{
    assert(may_link());
    const OrtFatResult r = insert_range(rec);
    tables_checked();
    return r;
}

namespace {

// The registered range equal to `rec` and its area, or nulls.
std::pair<FAT_node*, ORG_node*> lookup_range(const REG_ADDR& rec)
{
    FAT_node* f = check_FAT(rec);
    if (f == nullptr || f == FAT_link_tail || !same_area(*f, rec) || f->change_state == AREA_EMPTY)
        return {nullptr, nullptr};
    ORG_node* pos = check_ORG(f->org_first, rec);
    if (pos == ORT_link_head || !reg_addr_equal(pos->reg_addr, rec))
        return {nullptr, nullptr};
    return {f, pos};
}

} // namespace

ORG_node* find_ORT_FAT(const REG_ADDR& rec)
{
    return lookup_range(rec).second;
}

void unregister_ORT_FAT(const REG_ADDR& rec)
{
    assert(may_link());
    const auto [fat, org] = lookup_range(rec);
    if (org != nullptr)
        delete_ORT_FAT(fat, org);
    tables_checked();
}
