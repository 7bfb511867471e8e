// Poll blocks: each port thread merges the registered ranges of its areas
// into blocks under its length and gap limits, and rebuilds the blocks of
// every area whose group changed at the start of each polling cycle.
#pragma once

#include <cstdint>

#include "tables/tables.h"

// Block-length and gap limits, in registers of the area's own type.
struct OPT_limits {
    int32_t bit_len;
    int32_t bit_gap;
    int32_t word_len;
    int32_t word_gap;
    int32_t byte_len;
    int32_t byte_gap;
    int32_t dword_len;
    int32_t dword_gap;
};

// The pair that applies to a register type: 0 bits, 1 bytes, 4 double words,
// 2 and anything else words. A length below 1 comes back as 1.
void opt_limits_for(const OPT_limits& limits, int reg_type, int32_t& max_len, int32_t& max_gap);

// Allocates the two sentinels of a port's block list and links them.
void opt_list_init(OPT_node*& head, OPT_node*& tail);
// Frees every block of the list and both sentinels; head and tail become null.
void opt_list_free(OPT_node*& head, OPT_node*& tail);

// The operations below expect `rwlock` held for writing.

// First FAT node from `from` (inclusive) of the port with change_state != AREA_CURRENT.
FAT_node* find_FAT_new(FAT_node* from, int port);
// Block after which the blocks of an area without blocks are to be inserted.
OPT_node* find_OPT_delete_start(FAT_node* fat, OPT_node* head, OPT_node* tail, int port);
// Deletes the blocks of the FAT node's area that directly follow `pos`.
void delete_OPT_area(OPT_node* pos, FAT_node* fat, OPT_node* tail);
void delete_one_OPT(OPT_node* node);
// Merges the area's group into blocks inserted after `pos`, ascending.
void build_OPT_area(FAT_node* fat, OPT_node* pos, int32_t max_len, int32_t max_gap);
void build_one_opt(int32_t start, int32_t len, FAT_node* fat, ORG_node* org, OPT_node* pos,
                   OPT_node* node);
void insert_OPT(OPT_node* node, OPT_node* pos);
// Unlinks and frees a FAT node whose blocks are gone.
void delete_FAT(FAT_node* fat);

// Moves the cursor to the next block, wrapping from the last block to the
// first; an empty list parks it on the head. Returns true on a wrap.
bool advance_OPT_cursor(OPT_node* head, OPT_node* tail, OPT_node*& cursor);

// One rebuild pass of a port thread: advances the cursor, then, under
// `rwlock` held for writing, rebuilds or removes the blocks of every area of
// the port whose change_state is not AREA_CURRENT, keeping the cursor off freed blocks.
// Returns true when any area was handled. `wrapped` (optional) tells whether
// the advance wrapped to the first block.
bool rebuild_OPT_links(int port, OPT_node* head, OPT_node* tail, OPT_node*& cursor,
                       const OPT_limits& limits, bool* wrapped = nullptr);
