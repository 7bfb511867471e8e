// Batch polling: many poll blocks read in one driver exchange through
// OmronEntry arrays, and the answers spread back into the block caches.
#pragma once

#include <cstdint>

#include "driver/plc_abi.h"
#include "tables/tables.h"

// Most entries one registration or read call carries.
constexpr int BATCH_CHUNK_ENTRIES = 69;
// Cost limit of the bat batch (driver 1001), in 16-bit words.
constexpr int BAT_MAX_COST = 127;
// Block limit of the opto batch (driver 404).
constexpr int OPTO_MAX_BLOCKS = 100;

// Number of blocks in the bat batch (driver 1001): the leading blocks worth
// at most 127 words, stopping at reg_id 128, 129, 131, 132.
int foud_bat_read_opt(OPT_node* list_head, OPT_node* list_tail);
// Number of blocks in the opto batch: at most 100.
int foud_opto_num(OPT_node* list_head, OPT_node* list_tail);
// Number of blocks in the batch-class batch: the leading run of the first
// station, stopping at reg_id 128..133 unless the driver's batches take them.
// Sets more when blocks follow that the batch did not take.
int foud_MQSC_bat_read_opt(OPT_node* list_head, OPT_node* list_tail, bool& more, int driver);

// Words a block costs toward the bat limit: a bit block 1 when it stays
// inside one 16-bit word, else 2; any other block its width.
int bat_block_cost(const OPT_node* block);

// Entries for the n blocks after prev, in list order: one per bit block, one
// per register otherwise. Only whole blocks are written: the walk stops
// before a block whose entries would take the count above max_entries, and
// at the list's tail sentinel. Value fields are left as they are. Returns
// the number of entries written.
int build_OMRON_buff(OPT_node* prev, OmronEntry* array, int n, int max_entries);
// Entries a block expands to: 1 for a bit block, its width (at least 0) otherwise.
int block_entry_count(const OPT_node* block);
// How many of the (at most n) blocks from first on fit, whole, into one call
// of max_entries entries; *entries, when given, gets their entry count. 0
// when the first block alone has more entries than one call carries.
int blocks_fitting(OPT_node* first, int n, int max_entries, int* entries = nullptr);
// The node n blocks after `node`, stopping at the list's tail sentinel.
OPT_node* advance_blocks(OPT_node* node, int n);

// Writes the block_entry_count(block) entries of one block to out: one
// entry for a bit block, one per register otherwise.
void fill_block_entries(const OPT_node* block, OmronEntry* out);

// Lays the values of one block's entries out as a block buffer: a bit block
// takes the entry's bit field (its first cal_commbuf_size bytes, at most 4;
// bytes beyond the 32nd bit are cleared), other blocks one value of 1, 2 or
// 4 bytes per register, back to back. dst holds cal_commbuf_size bytes.
void copy_data(const OPT_node* block, const OmronEntry* entry, uint8_t* dst);

// For n blocks from first on, with their entries from entry on: lays out
// each block's values in buffer, refreshes the caches it covers and records
// it in the register data file store with status (1, 2 or 3).
void refresh_bat_ORG(OPT_node* first, const OmronEntry* entry, uint8_t* buffer, int n, int status);
