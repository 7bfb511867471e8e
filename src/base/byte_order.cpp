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
