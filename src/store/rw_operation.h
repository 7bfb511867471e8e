// Read-modify-write operations on a register value: toggle, count up or
// down within limits, wrap around, swing between two limits. They work in
// place on the caller's value buffer, which must hold at least 8 bytes from
// the value's start, and update the block's direction field.
#pragma once

#include <cstdint>

#include "base/reg_addr.h"

// Powers of ten used by the BCD conversions: 1, 10, ... 1000000000.
extern const uint32_t power10_X[10];

// Decimal value of the first digits BCD digits of raw (least significant
// digit in the lowest 4 bits). At most 8 digits fit in 32 bits.
uint32_t bcd_decode(uint32_t raw, int digits);
// BCD form of v with the given number of digits; higher digits are dropped.
uint32_t bcd_encode(uint32_t v, int digits);

// Exchanges the two 32-bit halves of an 8-byte value.
void Swap2DWs(uint8_t* value);

// Applies rw.op_code to the value. siemens_flag bit 0 (double values only):
// the second 32-bit word of the buffer still has its 16-bit halves in the
// driver's order.
void process_rw_operation(const REG_ADDR& reg_addr, uint8_t* value, rw_oper& rw, int siemens_flag);

// Workers for value types 1 (unsigned 32-bit), 2 (single float) and
// 3 (double, little-endian 8 bytes at value).
void process_rw_operation_unsigned(const REG_ADDR& reg_addr, uint8_t* value, rw_oper& rw);
void process_rw_operation_float(const REG_ADDR& reg_addr, uint8_t* value, rw_oper& rw);
void process_rw_operation_double(const REG_ADDR& reg_addr, uint8_t* value, rw_oper& rw);
