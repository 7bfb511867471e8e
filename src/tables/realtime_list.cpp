// Realtime request list operations.
#include "tables/realtime_list.h"

#include <cassert>
#include <cstddef>
#include <cstring>
#include <limits>
#include <new>

RORT_node* new_realtime_node(int data_len)
{
    constexpr int max_len = std::numeric_limits<int16_t>::max();
    int len = data_len < 1 ? 0 : (data_len > max_len ? max_len : data_len);

    RORT_node* node = new (std::nothrow) RORT_node{};
    if (node == nullptr) {
        return nullptr;
    }
    node->data = new (std::nothrow) uint8_t[len < 1 ? 1 : len]();
    if (node->data == nullptr) {
        delete node;
        return nullptr;
    }
    node->data_len = static_cast<int16_t>(len);
    return node;
}

void free_realtime_node(RORT_node* node)
{
    if (node == nullptr) {
        return;
    }
    delete[] node->data;
    node->data = nullptr;
    delete node;
}

static void append_realtime(RORT_node* node)
{
    RORT_node* last = RORT_link_tail->prev;
    node->prev = last;
    node->next = RORT_link_tail;
    last->next = node;
    RORT_link_tail->prev = node;
    ++real_link_len;
}

namespace {

bool same_request(const RORT_node* n, const REG_ADDR& rec, const rw_oper& key, int req_type)
{
    // A read-modify-write is also identified by its operation, step and
    // limits (the fields before direction).
    return n->req_type == req_type && reg_addr_equal(n->reg_addr, rec) &&
           (req_type != REQ_RMW || std::memcmp(&n->rw_oper, &key, offsetof(rw_oper, direction)) == 0);
}

// Older requests of the owner with the new request's identity can no longer
// be collected: done ones go now, pending ones once the sweeper sees them done.
void retire_older(const RORT_node* node)
{
    for (RORT_node* n = RORT_link_head->next; n != RORT_link_tail;) {
        RORT_node* next = n->next;
        if (!n->retired && n->owner == node->owner &&
            same_request(n, node->reg_addr, node->rw_oper, node->req_type)) {
            n->retired = true;
            if (n->status != STATUS_PENDING) {
                delete_realtime_link(n);
            }
        }
        n = next;
    }
}

// A pending read of the same range that has not been superseded.
bool pending_equal_read(const REG_ADDR& rec)
{
    for (RORT_node* n = RORT_link_head->next; n != RORT_link_tail; n = n->next) {
        if (n->req_type == REQ_READ && n->status == STATUS_PENDING && !n->retired && reg_addr_equal(n->reg_addr, rec)) {
            return true;
        }
    }
    return false;
}

} // namespace

RealtimeInsert insert_realtime_link(RORT_node* node, const REG_ADDR& rec, int req_type, uint32_t owner)
{
    assert(lock_rules::holds(lock_rules::REALTIME_LIST));
    if (node == nullptr) {
        return RealtimeInsert::refused;
    }
    node->age = 0;
    node->req_type = static_cast<int16_t>(req_type);
    node->status = STATUS_PENDING;
    node->reg_addr = rec;
    node->owner = owner;
    node->retired = false;

    if (RORT_link_head->next != RORT_link_tail && real_link_len > REALTIME_LIST_LIMIT) {
        free_realtime_node(node);
        return RealtimeInsert::refused;
    }
    retire_older(node);
    // Only reads may be merged, and only into one that is still to be
    // served: a done read would hand the new client values from before its
    // request.
    if (req_type == REQ_READ && table_flag_merge_realtime_reads() && pending_equal_read(rec)) {
        free_realtime_node(node);
        return RealtimeInsert::merged;
    }
    append_realtime(node);
    return RealtimeInsert::queued;
}

RORT_node* find_realtime_link(const REG_ADDR& rec, const rw_oper& key, int req_type, uint32_t owner)
{
    assert(lock_rules::holds(lock_rules::REALTIME_LIST));
    RORT_node* newest_any = nullptr;
    for (RORT_node* n = RORT_link_tail->prev; n != RORT_link_head; n = n->prev) {
        if (n->retired || !same_request(n, rec, key, req_type)) {
            continue;
        }
        if (n->owner == owner) {
            return n;
        }
        if (newest_any == nullptr) {
            newest_any = n;
        }
    }
    return newest_any;
}

void delete_realtime_link(RORT_node* node)
{
    assert(lock_rules::holds(lock_rules::REALTIME_LIST));
    if (node == nullptr || node == RORT_link_head || node == RORT_link_tail) {
        return;
    }
    node->prev->next = node->next;
    node->next->prev = node->prev;
    free_realtime_node(node);
    --real_link_len;
}

RORT_node* check_realtime_link(int port)
{
    std::lock_guard lock(mutex);
    for (RORT_node* n = RORT_link_head->next; n != RORT_link_tail; n = n->next) {
        if (n->status == STATUS_PENDING && n->reg_addr.deviceport_id == port) {
            return n;
        }
    }
    return nullptr;
}
