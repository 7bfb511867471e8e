// Poll-block list operations and the rebuild pass.
#include "tables/opt_builder.h"

#include <algorithm>
#include <cassert>
#include <new>

#include "tables/table_checks.h"
#include "tables/table_ops.h"

namespace {

// Emits one block [start, end) of the area after `pos`; returns the new node,
// or nullptr when no memory was left (the block is then simply missing).
OPT_node* emit_block(int64_t start, int64_t end, FAT_node* fat, ORG_node* org, OPT_node* pos)
{
    OPT_node* node = new (std::nothrow) OPT_node{};
    if (node == nullptr) {
        return nullptr;
    }
    build_one_opt(static_cast<int32_t>(start), static_cast<int32_t>(end - start), fat, org, pos,
                  node);
    return node;
}

} // namespace

void opt_limits_for(const OPT_limits& limits, int reg_type, int32_t& max_len, int32_t& max_gap)
{
    switch (reg_type) {
    case 0:
        max_len = limits.bit_len;
        max_gap = limits.bit_gap;
        break;
    case 1:
        max_len = limits.byte_len;
        max_gap = limits.byte_gap;
        break;
    case 4:
        max_len = limits.dword_len;
        max_gap = limits.dword_gap;
        break;
    default:
        max_len = limits.word_len;
        max_gap = limits.word_gap;
        break;
    }
    if (max_len < 1) {
        max_len = 1;
    }
}

// Sentinels are allocated when a port thread starts and live as long as it;
// like every start-up allocation they use plain new (see links_init).
void opt_list_init(OPT_node*& head, OPT_node*& tail)
{
    head = new OPT_node{};
    tail = new OPT_node{};
    head->next = tail;
    tail->prev = head;
}

void opt_list_free(OPT_node*& head, OPT_node*& tail)
{
    if (head != nullptr && tail != nullptr) {
        while (head->next != tail) {
            delete_one_OPT(head->next);
        }
    }
    delete head;
    delete tail;
    head = nullptr;
    tail = nullptr;
}

FAT_node* find_FAT_new(FAT_node* from, int port)
{
    if (from == nullptr) {
        return nullptr;
    }
    for (FAT_node* f = from; f != FAT_link_tail && f != nullptr; f = f->next) {
        if (f->deviceport_id == port && f->change_state != AREA_CURRENT) {
            return f;
        }
    }
    return nullptr;
}

OPT_node* find_OPT_delete_start(FAT_node* fat, OPT_node* head, OPT_node* tail, int port)
{
    if (head->next == tail) {
        return head;
    }
    // The blocks of the next area of this port that has any come after ours.
    for (FAT_node* f = fat->next; f != FAT_link_tail && f != nullptr; f = f->next) {
        if (f->deviceport_id == port && f->opt_first != nullptr) {
            return f->opt_first->prev;
        }
    }
    return tail->prev;
}

void delete_one_OPT(OPT_node* node)
{
    node->prev->next = node->next;
    node->next->prev = node->prev;
    delete node;
}

void delete_OPT_area(OPT_node* pos, FAT_node* fat, OPT_node* tail)
{
    while (pos->next != tail && pos->next != nullptr && same_area(*fat, pos->next->reg_addr)) {
        delete_one_OPT(pos->next);
    }
}

void insert_OPT(OPT_node* node, OPT_node* pos)
{
    node->prev = pos;
    node->next = pos->next;
    pos->next->prev = node;
    pos->next = node;
}

void build_one_opt(int32_t start, int32_t len, FAT_node* fat, ORG_node* org, OPT_node* pos,
                   OPT_node* node)
{
    node->reg_addr = REG_ADDR{};
    node->reg_addr.deviceport_id = fat->deviceport_id;
    node->reg_addr.plc_id = fat->plc_id;
    node->reg_addr.reg_type = fat->reg_type;
    node->reg_addr.reg_id = fat->reg_id;
    node->reg_addr.byte_offset = fat->org_first->reg_addr.byte_offset;
    node->reg_addr.reg_addr_start = start;
    node->reg_addr.reg_data_width = static_cast<int16_t>(len);
    node->org = org;
    insert_OPT(node, pos);
}

void build_OPT_area(FAT_node* fat, OPT_node* pos, int32_t max_len, int32_t max_gap)
{
    assert(lock_rules::holds(lock_rules::TABLES_EXCLUSIVE));
    fat->opt_first = nullptr;
    ORG_node* r = fat->org_first;
    if (r == nullptr || r == ORT_link_tail || r == ORT_link_head || !same_area(*fat, r->reg_addr)) {
        return;
    }
    // 64-bit arithmetic keeps start + width and S + L free of overflow.
    const int64_t L = max_len < 1 ? 1 : max_len;
    const int64_t G = max_gap;
    int64_t S = r->reg_addr.reg_addr_start;
    int64_t E = S + r->reg_addr.reg_data_width;
    ORG_node* first = r;
    OPT_node* last = pos;

    auto emit = [&](int64_t end) {
        OPT_node* node = emit_block(S, end, fat, first, last);
        if (node != nullptr) {
            if (fat->opt_first == nullptr) {
                fat->opt_first = node;
            }
            last = node;
        }
    };
    auto restart_at = [&](ORG_node* range) {
        S = range->reg_addr.reg_addr_start;
        E = S + range->reg_addr.reg_data_width;
        first = range;
    };

    // Each branch that starts a new block looks at the same range again,
    // so a range is only left behind once its end fits the current block.
    while (r != ORT_link_tail && same_area(*fat, r->reg_addr)) {
        const int64_t rs = r->reg_addr.reg_addr_start;
        const int64_t re = rs + r->reg_addr.reg_data_width;
        const int64_t limit = S + L;
        if (re <= limit) {
            if (rs <= E || rs - E <= G) {
                E = std::max(E, re);
                r = r->next;
            } else {
                emit(E);
                restart_at(r);
            }
        } else if (rs >= limit) {
            emit(E);
            restart_at(r);
        } else if (rs < E || rs - E <= G) {
            // The range crosses the limit: cut a full block and carry on
            // exactly at the limit.
            emit(limit);
            S = limit;
            E = re;
            first = r;
        } else {
            emit(E);
            restart_at(r);
        }
    }
    emit(E);
}

void delete_FAT(FAT_node* fat)
{
    assert(lock_rules::holds(lock_rules::TABLES_EXCLUSIVE));
    fat->change_state = AREA_CURRENT;
    fat->opt_first = nullptr;
    fat->prev->next = fat->next;
    fat->next->prev = fat->prev;
    delete fat;
}

bool advance_OPT_cursor(OPT_node* head, OPT_node* tail, OPT_node*& cursor)
{
    if (head->next == tail) {
        cursor = head;
        return false;
    }
    if (cursor == head) {
        cursor = head->next;
        return false;
    }
    if (cursor == tail || cursor->next == tail || cursor->next == nullptr) {
        cursor = head->next;
        return true;
    }
    cursor = cursor->next;
    return false;
}

bool rebuild_OPT_links(int port, OPT_node* head, OPT_node* tail, OPT_node*& cursor,
                       const OPT_limits& limits, bool* wrapped)
{
    const bool wrap = advance_OPT_cursor(head, tail, cursor);
    if (wrapped != nullptr) {
        *wrapped = wrap;
    }

    std::unique_lock lock(rwlock);
    bool handled = false;
    FAT_node* from = FAT_link_head->next;
    while (from != FAT_link_tail) {
        FAT_node* fat = find_FAT_new(from, port);
        if (fat == nullptr) {
            break;
        }
        handled = true;
        OPT_node* pos = fat->opt_first != nullptr ? fat->opt_first->prev
                                                  : find_OPT_delete_start(fat, head, tail, port);
        // A cursor on one of the area's blocks is parked in front of them so
        // that it never points at a freed block.
        const bool on_area = cursor != head && cursor != tail && same_area(*fat, cursor->reg_addr);
        if (on_area) {
            cursor = pos;
        }
        delete_OPT_area(pos, fat, tail);

        if (fat->change_state == AREA_EMPTY) {
            FAT_node* next = fat->next;
            delete_FAT(fat);
            if (on_area) {
                cursor = pos->next == tail ? head : pos->next;
            }
            from = next;
            continue;
        }
        int32_t max_len = 1;
        int32_t max_gap = 0;
        opt_limits_for(limits, fat->reg_type, max_len, max_gap);
        build_OPT_area(fat, pos, max_len, max_gap);
        if (on_area) {
            cursor = pos->next == tail ? head : pos->next;
        }
        fat->change_state = AREA_CURRENT;
        from = fat->next;
    }
    if (handled) {
        // Only a pass that rebuilt something can have broken a rule.
        tables_checked();
        opt_checked(port, head, tail, cursor, limits);
    }
    return handled;
}
