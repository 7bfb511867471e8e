// The realtime request list: reads, writes and read-modify-writes that
// clients queue for a port thread, kept in order of arrival.
#pragma once

#include "tables/tables.h"

// Most requests the list holds beyond which a new one is refused.
constexpr int32_t REALTIME_LIST_LIMIT = 2000;

// Allocates a request node with a zero-filled data buffer of data_len bytes.
// The buffer always has at least one byte, so `data` is never null; the
// node's data_len records the usable size (0 for data_len < 1, at most 32767).
// Returns nullptr when memory runs out.
RORT_node* new_realtime_node(int data_len);

// Frees a node that is not (or no longer) linked, together with its data.
void free_realtime_node(RORT_node* node);

// The caller holds `mutex` for the three operations below.

// Sets age, req_type, status and the record, then appends the node, or frees
// it when the list is full or (table flag bit 14) an equal read is queued.
void insert_realtime_link(RORT_node* node, const REG_ADDR& rec, int req_type);

// First request of the kind with the same record (and for kind 2 the same
// first 16 bytes of the operation block), whatever its status.
RORT_node* find_realtime_link(const REG_ADDR& rec, const rw_oper& key, int req_type);

// Unlinks and frees a node of the list.
void delete_realtime_link(RORT_node* node);

// Oldest pending request of the port, or nullptr. Takes `mutex` itself.
RORT_node* check_realtime_link(int port);
