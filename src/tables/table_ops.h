// Operations on the area table (FAT) and the register-group list (ORG).
// Every function expects the caller to hold rwlock: for writing whenever
// nodes may be linked or unlinked, for reading around pure searches.
#pragma once

#include "tables/tables.h"

// An area's key (deviceport_id, plc_id, reg_type, reg_id) as one number
// whose integer order is the key order.
uint32_t area_key(uint8_t port, uint8_t plc, uint8_t type, uint8_t id);
uint32_t area_key(const FAT_node& fat);
uint32_t area_key(const REG_ADDR& rec);

// Area key order: deviceport_id, plc_id, reg_type, reg_id as unsigned bytes.
// Negative when the FAT node's key sorts before the record's, 0 when equal,
// positive after.
int area_key_compare(const FAT_node& fat, const REG_ADDR& rec);
bool same_area(const FAT_node& fat, const REG_ADDR& rec);
bool same_area(const REG_ADDR& a, const REG_ADDR& b);

// Searches.

// Null when the FAT list is empty; otherwise the first FAT node whose key is
// not smaller than the record's, or the FAT tail when all keys are smaller.
FAT_node* check_FAT(const REG_ADDR& rec);

// Within the non-empty group starting at `first`: the node whose 16-byte
// record equals `rec`, or the node after which a node for `rec` belongs.
ORG_node* check_ORG(ORG_node* first, const REG_ADDR& rec);

// The ORG node after which a group for `fat` is placed: the node before the
// group of the first later FAT node whose change_state is not AREA_EMPTY, else the
// last ORG node.
ORG_node* find_ORG_instert(FAT_node* fat);

// The FAT node of the ORG node's area; null only on an inconsistent table.
FAT_node* find_FAT(const ORG_node* org);

// Linking. Nodes and caches are allocated by the caller.
void insert_NULL_FAT(FAT_node* node, const REG_ADDR& rec);
void insert_FAT(FAT_node* node, const REG_ADDR& rec, FAT_node* pos);   // before pos
void insert_NULL_ORG(ORG_node* node, const REG_ADDR& rec);
void insert_ORG(ORG_node* node, const REG_ADDR& rec, ORG_node* pos);   // after pos
void delete_ORG(ORG_node* org);
void FAT_START_ADDR(FAT_node* first_fat, ORG_node* org);
void delete_ORT_FAT(FAT_node* fat, ORG_node* org);

// Result of registering a range: its ORG node and whether it was created by
// this call. `org` is null only when a node or cache could not be allocated;
// then nothing was linked and the caller should treat the range as unknown.
struct OrtFatResult {
    ORG_node* org;
    bool created;
};

// Finds the range's ORG node or registers it (new node, new or refilled area,
// area marked for a poll-block rebuild).
OrtFatResult insert_ORT_FAT(const REG_ADDR& rec);

// The range's ORG node when it is registered, else null. Only searches, so
// rwlock held for reading is enough.
ORG_node* find_ORT_FAT(const REG_ADDR& rec);

// Deletes the range's ORG node if it is registered; ignores anything else.
void unregister_ORT_FAT(const REG_ADDR& rec);
