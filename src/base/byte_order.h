// Byte order and bit copy helpers shared by every layer. They work on plain
// byte buffers and never check sizes: the caller owns the bounds.
#pragma once

#include <cstdint>

// Little-endian fields: the byte order of the client packets, the segment
// and the data files.
inline uint16_t get_le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

inline uint32_t get_le32(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

inline void put_le16(uint8_t* p, uint16_t v)
{
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

inline void put_le32(uint8_t* p, uint32_t v)
{
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

// Bit b of a packed bit string: bit b % 8 of byte b / 8.
inline bool bit_of(const uint8_t* p, int64_t b) { return ((p[b >> 3] >> (b & 7)) & 1) != 0; }

inline void put_bit(uint8_t* p, int64_t b, bool v)
{
    const auto mask = static_cast<uint8_t>(1u << (b & 7));
    if (v) {
        p[b >> 3] = static_cast<uint8_t>(p[b >> 3] | mask);
    } else {
        p[b >> 3] = static_cast<uint8_t>(p[b >> 3] & ~mask);
    }
}

// Signed 32-bit arithmetic that wraps instead of overflowing.
inline int32_t wrap_add(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

inline int32_t wrap_mul(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

// Exchanges the 16-bit halves of each of the n 32-bit elements at buf
// (Siemens word order).
void simens_change(uint8_t* buf, int n);

void CvtBits2Bytes(const uint8_t* bits, int first, int count, uint8_t* out);
