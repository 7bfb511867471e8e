// Byte order and bit copy helpers shared by every layer. They work on plain
// byte buffers and never check sizes: the caller owns the bounds.
#pragma once

#include <cstdint>

// Exchanges the 16-bit halves of each of the n 32-bit elements at buf
// (Siemens word order).
void simens_change(uint8_t* buf, int n);

void CvtBits2Bytes(const uint8_t* bits, int first, int count, uint8_t* out);
