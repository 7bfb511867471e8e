// Choice of the data a cached or collected value is answered with: the
// Siemens family gets its 16-bit halves swapped, and byte-addressed 32-bit
// ranges of the Siemens and 38/39/57 families start at byte_offset.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tables/tables.h"

enum class ReplyForm { Plain, Swapped };

// Fills scratch (at least size bytes) with the size bytes to answer for a
// node holding `data` for record `rec`, and tells whether they go out
// swapped. Bytes beyond the node's cache (the split case) are zeros.
ReplyForm choose_reply_data(const REG_ADDR& rec, const uint8_t* data, int size, uint8_t* scratch);

// Data reply (commands 3, 4, 6, 8) for a node's data, with the form chosen above.
size_t produce_node_reply(uint8_t* out, uint8_t command, const REG_ADDR& rec, const uint8_t* data, int size);

// Data entry of the multi-area reply (command 19) for a node's data, with the
// form chosen above: [1][u16 size][size bytes]. Returns 3 + size.
size_t produce_node_sub_entry(uint8_t* entry, const REG_ADDR& rec, const uint8_t* data, int size);

