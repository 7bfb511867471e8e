// Copying driver replies and written values into the register group caches.
#pragma once

#include <cstdint>

#include "tables/tables.h"

// The part of a completed realtime request that a cache refresh needs: the
// written range, the completion status and the values written.
struct RealtimeImage {
    REG_ADDR reg_addr;
    int16_t status;
    const uint8_t* data;   // cal_commbuf_size(reg_addr) bytes
};

// Bit i of dst becomes bit src_bit + i of src, for i = 0 .. n - 1.
void bit_cpy(uint8_t* dst, const uint8_t* src, int n, int src_bit);
// Bit dst_bit + i of dst becomes bit i of src, for i = 0 .. n - 1.
void tessel_bit_cpy(uint8_t* dst, const uint8_t* src, int n, int dst_bit);

// Each refresh takes `rwlock` for writing for its whole walk. `buf` holds the
// block's data, cal_commbuf_size(block->reg_addr) bytes; status is STATUS_OK,
// STATUS_NO_ANSWER or STATUS_FAILED.
void refresh_ORG_buff(const OPT_node* block, const uint8_t* buf, int status);
// Variant for drivers that deliver one register per block, starting at the
// block's first group. Skipped while the area waits for a rebuild.
void refresh_ORG_buff_omron(const OPT_node* block, const uint8_t* buf, int status);
// Copies the values of a successful write into the caches that hold them.
void refresh_writeOK_ORG(RealtimeImage image);
