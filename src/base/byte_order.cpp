// Byte order and bit copy helpers shared by every layer.
#include "base/byte_order.h"

#include <cstddef>

void simens_change(uint8_t* buf, int n)
{
    for (int i = 0; i < n; ++i) {
        uint8_t* e = buf + 4 * static_cast<size_t>(i);
        const uint8_t b0 = e[0];
        const uint8_t b1 = e[1];
        e[0] = e[2];
        e[1] = e[3];
        e[2] = b0;
        e[3] = b1;
    }
}

void int_to_char_bigending(uint8_t* out, uint32_t value)
{
    out[0] = static_cast<uint8_t>(value >> 24);
    out[1] = static_cast<uint8_t>(value >> 16);
    out[2] = static_cast<uint8_t>(value >> 8);
    out[3] = static_cast<uint8_t>(value);
}

uint32_t char_to_int_bigending(const uint8_t* in)
{
    return (static_cast<uint32_t>(in[0]) << 24) | (static_cast<uint32_t>(in[1]) << 16) |
           (static_cast<uint32_t>(in[2]) << 8) | static_cast<uint32_t>(in[3]);
}

void short_to_char_bigending(uint8_t* out, uint16_t value)
{
    out[0] = static_cast<uint8_t>(value >> 8);
    out[1] = static_cast<uint8_t>(value);
}

int char_to_short_bigending(const uint8_t* in)
{
    return static_cast<int16_t>(static_cast<uint16_t>(in[0] << 8 | in[1]));
}

// Negative bit numbers name no bit of the array; such calls do nothing.
void CvtBits2Bytes(const uint8_t* bits, int first, int count, uint8_t* out)
{
    if (count < 1 || first < 0) {
        return;
    }
    for (int i = 0; i < count; ++i) {
        out[i] = bit_of(bits, int64_t{first} + i) ? 1 : 0;
    }
}

void CvtBytes2Bits(const uint8_t* in, int count, uint8_t* bits, int first)
{
    if (count < 1 || first < 0) {
        return;
    }
    for (int i = 0; i < count; ++i) {
        put_bit(bits, int64_t{first} + i, (in[i] & 1u) != 0);
    }
}
