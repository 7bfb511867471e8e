// Realtime request list operations.
#include "tables/realtime_list.h"

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

void insert_realtime_link(RORT_node* node, const REG_ADDR& rec, int req_type)
{
    if (node == nullptr) {
        return;
    }
    node->age = 0;
    node->req_type = static_cast<int16_t>(req_type);
    node->status = 0;
    node->reg_addr = rec;

    if (RORT_link_head->next == RORT_link_tail) {
        append_realtime(node);
        return;
    }
    if (real_link_len > REALTIME_LIST_LIMIT) {
        free_realtime_node(node);
        return;
    }
    // Only reads may be merged: the first queued read of the same range
    // decides, and with the merge flag set it serves the new client as well.
    if (req_type == 0) {
        for (RORT_node* n = RORT_link_head->next; n != RORT_link_tail; n = n->next) {
            if (n->req_type == 0 && reg_addr_equal(n->reg_addr, rec)) {
                if (table_flag_merge_realtime_reads()) {
                    free_realtime_node(node);
                    return;
                }
                break;
            }
        }
    }
    append_realtime(node);
}

RORT_node* find_realtime_link(const REG_ADDR& rec, const rw_oper& key, int req_type)
{
    for (RORT_node* n = RORT_link_head->next; n != RORT_link_tail; n = n->next) {
        if (n->req_type != req_type || !reg_addr_equal(n->reg_addr, rec)) {
            continue;
        }
        // A read-modify-write is also identified by its operation, step and
        // limits (the first four fields of the block).
        if (req_type == 2 && std::memcmp(&n->rw_oper, &key, 16) != 0) {
            continue;
        }
        return n;
    }
    return nullptr;
}

void delete_realtime_link(RORT_node* node)
{
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
    std::lock_guard<std::mutex> lock(mutex);
    for (RORT_node* n = RORT_link_head->next; n != RORT_link_tail; n = n->next) {
        if (n->status == 0 && n->reg_addr.deviceport_id == port) {
            return n;
        }
    }
    return nullptr;
}
