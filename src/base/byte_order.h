// Byte order and bit copy helpers shared by every layer. They work on plain
// byte buffers and never check sizes: the caller owns the bounds.
#pragma once

#include <cstdint>

// Exchanges the 16-bit halves of each of the n 32-bit elements at buf
// (Siemens word order).
void simens_change(uint8_t* buf, int n);

void int_to_char_bigending(uint8_t* out, uint32_t value);
uint32_t char_to_int_bigending(const uint8_t* in);
void short_to_char_bigending(uint8_t* out, uint16_t value);
int char_to_short_bigending(const uint8_t* in);

void CvtBits2Bytes(const uint8_t* bits, int first, int count, uint8_t* out);
void CvtBytes2Bits(const uint8_t* in, int count, uint8_t* bits, int first);
