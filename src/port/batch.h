// Batch polling: many poll blocks read in one driver exchange through
// OmronEntry arrays, and the answers spread back into the block caches.
#pragma once

#include <cstdint>

#include "driver/plc_abi.h"
#include "tables/tables.h"

constexpr int BATCH_CHUNK_ENTRIES = 69;

// Number of blocks in the bat batch (driver 1001): the leading blocks worth
// at most 127 entries, stopping at reg_id 128, 129, 131, 132.
int foud_bat_read_opt(OPT_node* list_head, OPT_node* list_tail);
// Number of blocks in the opto batch (driver 404): at most 100.
int foud_opto_num(OPT_node* list_head, OPT_node* list_tail);
// Number of blocks in the batch-class batch: the leading run of the first
// station, stopping at reg_id 128..133 unless the driver is 236. Sets more
// when blocks follow that the batch did not take.
int foud_MQSC_bat_read_opt(OPT_node* list_head, OPT_node* list_tail, bool& more, int driver);

// Entries for the n blocks after prev; at most max_entries are written.
// Returns the number of entries written.
int build_OMRON_buff(OPT_node* prev, OmronEntry* array, int n, int max_entries);
// Entries a block expands to: 1 for a bit block, its width otherwise.
int block_entry_count(const OPT_node* block);

// Lays the values of one block's entries out as a block buffer.
void copy_data(const OPT_node* block, const OmronEntry* entry, uint8_t* dst);

// Copies, refreshes and records n blocks from first on, with their entries.
void refresh_bat_ORG(OPT_node* first, const OmronEntry* entry, uint8_t* buffer, int n, int status);
