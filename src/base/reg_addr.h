// The register address record every layer passes around, the size of the
// data it names, the local bit primitives and the outcome statuses of ranges
// and requests. The record's layout is the wire layout: never reorder or pad
// it.
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

// reg_id classes. 249 addresses the local word area bit by bit; 254 and 255
// are the local bit area; 250..253 the SRAM.
constexpr uint8_t REG_ID_LOCAL_WORD_BITS = 249;
constexpr uint8_t REG_ID_SRAM_BASE_BITS = 250;   // bits counted from the SRAM base word
constexpr uint8_t REG_ID_SRAM_BASE_WORDS = 251;  // words counted from the SRAM base word
constexpr uint8_t REG_ID_SRAM_BITS = 252;        // bits counted from data word 0
constexpr uint8_t REG_ID_SRAM_WORDS = 253;       // words counted from data word 0
inline bool is_plc_area(uint8_t reg_id) { return reg_id < 241; }
inline bool is_no_area(uint8_t reg_id) { return reg_id >= 241 && reg_id <= 248; }
inline bool is_local_area(uint8_t reg_id) { return reg_id == REG_ID_LOCAL_WORD_BITS || reg_id == 254 || reg_id == 255; }
inline bool is_sram_area(uint8_t reg_id) { return reg_id >= REG_ID_SRAM_BASE_BITS && reg_id <= REG_ID_SRAM_WORDS; }

// Read-modify-write block: six little-endian 32-bit fields. step and the two
// limits hold IEEE single floats for RW_VALUE_FLOAT and RW_VALUE_DOUBLE.
struct rw_oper {
    int32_t op_code;
    int32_t step;
    int32_t limit_high;
    int32_t limit_low;
    int32_t direction;
    int32_t value_type;
};
static_assert(sizeof(rw_oper) == 24);

// rw_oper::op_code. "Clamp" and "reset" test the upper limit, "wrap" jumps
// to the other limit; ping-pong swings between the limits by direction.
enum : int32_t {
    RW_TOGGLE = 1,      // XOR 1
    RW_ADD_RESET = 2,   // add the step, 0 above the upper limit
    RW_SUB_CLAMP = 3,   // subtract the step, the upper limit below it
    RW_PING_PONG = 4,
    RW_ADD_WRAP = 5,    // add the step, the lower limit above the upper
    RW_SUB_WRAP = 6,    // subtract the step, the upper limit below the lower
    RW_NOTHING = 7,
    RW_ADD_CLAMP = 8,   // add the step, the upper limit above it
    RW_PULSE = 256,     // PLC registers only: write 1, then 0
};

// rw_oper::value_type.
enum : int32_t {
    RW_VALUE_INTEGER = 0,   // signed, in the register's own width
    RW_VALUE_UNSIGNED = 1,  // unsigned 32-bit
    RW_VALUE_FLOAT = 2,
    RW_VALUE_DOUBLE = 3,
};

// rw_oper::direction: ping-pong's way, in and out; the other operations
// (but RW_ADD_CLAMP, which leaves it) report RW_NO_DIRECTION.
enum : int32_t {
    RW_DOWN = 0,
    RW_UP = 1,
    RW_NO_DIRECTION = 2,
};

// Bytes of one element of a byte, word or double-word range; 0 for bits and
// for unknown types.
int element_bytes(int reg_type);

// Data bytes of a range, without any cut: bit ranges take whole bytes.
int64_t range_data_bytes(uint8_t reg_type, int64_t reg_data_width);
inline int64_t range_data_bytes(const REG_ADDR& rec) { return range_data_bytes(rec.reg_type, rec.reg_data_width); }

// Data bytes of a range cut to signed 16 bits, as the record's width is.
int16_t cal_commbuf_size(const REG_ADDR& rec);
int16_t cal_commbuf_size(uint8_t reg_type, int16_t reg_data_width);

// Local bit n is bit n % 32 of little-endian word n / 32 of local_bit.
// These do not take the segment semaphore. A bit outside the local bit area
// (local_areas.h; none before local_areas_init) reads as 0 and is not written.
uint32_t get_bit(int n);
void set_bit(int n);
void clear_bit(int n);

// Outcome stored in a range (ORG_node::status, part_status) and in a
// realtime request (RORT_node::status). The values are the err bytes the
// client protocol answers for 2 and 3, and they are what the data files
// record; never renumber them.
enum : int16_t {
    STATUS_PENDING = 0,    // no outcome yet: a range not read yet, a request not served yet
    STATUS_OK = 1,         // valid data / done
    STATUS_NO_ANSWER = 2,  // the PLC did not answer
    STATUS_FAILED = 3,     // the driver or the request failed
};
