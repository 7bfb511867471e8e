// The register address record every layer passes around, the size of the
// data it names, and the local bit primitives. The record's layout is the
// wire layout: never reorder or pad it.
#pragma once

#include <cstddef>
#include <cstdint>

// Register address record: the same 16 bytes travel in client packets and in
// every table node. Two records name the same range only when all 16 bytes match.
struct REG_ADDR {
    uint8_t rec_tag;
    uint8_t deviceport_id;
    uint8_t plc_id;
    uint8_t addr_unit;
    uint8_t reg_type;       // 0 bit, 1 byte, 2 word, 4 double word
    uint8_t reg_id;         // <241 PLC kind, 241..248 none, 249..255 local / SRAM
    uint16_t byte_offset;
    int32_t reg_addr_start;
    int16_t reg_data_width;
    uint8_t bcd_flag;
    uint8_t reserved;       // carried and compared, never interpreted
};
static_assert(sizeof(REG_ADDR) == 16);
static_assert(offsetof(REG_ADDR, byte_offset) == 6);
static_assert(offsetof(REG_ADDR, reg_addr_start) == 8);
static_assert(offsetof(REG_ADDR, reg_data_width) == 12);
static_assert(offsetof(REG_ADDR, bcd_flag) == 14);

bool reg_addr_equal(const REG_ADDR& a, const REG_ADDR& b);

// Read-modify-write block: six little-endian 32-bit fields. step and the two
// limits hold IEEE single floats for value types 2 and 3.
struct rw_oper {
    int32_t op_code;
    int32_t step;
    int32_t limit_high;
    int32_t limit_low;
    int32_t direction;
    int32_t value_type;
};
static_assert(sizeof(rw_oper) == 24);

// Data bytes of a range (signed 16-bit, as the record's width is).
int16_t cal_commbuf_size(const REG_ADDR& rec);
int16_t cal_commbuf_size(uint8_t reg_type, int16_t reg_data_width);

// Local bit n is bit n % 32 of little-endian word n / 32 of local_bit.
// These do not take the segment semaphore. A bit outside the local bit area
// (local_areas.h; none before local_areas_init) reads as 0 and is not written.
uint32_t get_bit(int n);
void set_bit(int n);
void clear_bit(int n);
