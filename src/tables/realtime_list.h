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
//
// Identity of a request: its kind, its 16-byte record and, for a
// read-modify-write, the first 16 bytes of its operation block; and the
// connection (owner) that queued it. A new request retires every older
// request of the same owner and identity, so that owner's next check can
// only collect the newest one: a retired request that is done is deleted at
// once, a pending one is still served (a write still reaches the PLC in
// order) but never collected, and the sweeper deletes it once done.

enum class RealtimeInsert { queued, merged, refused };

// Sets age, req_type, status, owner and the record, retires older requests
// as above, then appends the node; or frees it and answers merged (table flag
// bit 14, and an equal read of any owner is still pending: that read serves
// both) or refused (the list is full, or node is null).
RealtimeInsert insert_realtime_link(RORT_node* node, const REG_ADDR& rec, int req_type, uint32_t owner = 0);

// The request a check of `owner` collects: the newest request of the
// identity that owner queued; when it has none, the newest of any owner (a
// request queued by an earlier connection of the same client, or the read
// an equal read was merged into). Retired requests are never returned.
RORT_node* find_realtime_link(const REG_ADDR& rec, const rw_oper& key, int req_type, uint32_t owner = 0);

// Unlinks and frees a node of the list.
void delete_realtime_link(RORT_node* node);

// Oldest pending request of the port, or nullptr. Takes `mutex` itself.
RORT_node* check_realtime_link(int port);
