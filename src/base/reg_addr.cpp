// Register address record helpers and the local bit primitives.
#include "base/reg_addr.h"

#include <cstring>

#include "base/globals.h"
#include "base/local_areas.h"

bool reg_addr_equal(const REG_ADDR& a, const REG_ADDR& b)
{
    return std::memcmp(&a, &b, sizeof(REG_ADDR)) == 0;
}

int element_bytes(int reg_type)
{
    return (reg_type == 1 || reg_type == 2 || reg_type == 4) ? reg_type : 0;
}

int64_t range_data_bytes(uint8_t reg_type, int64_t n)
{
    if (reg_type == 0) {
        return (n % 8 == 0) ? n / 8 : n / 8 + 1;
    }
    return n * element_bytes(reg_type);
}

int16_t cal_commbuf_size(uint8_t reg_type, int16_t reg_data_width)
{
    return static_cast<int16_t>(range_data_bytes(reg_type, reg_data_width));
}

int16_t cal_commbuf_size(const REG_ADDR& rec)
{
    return cal_commbuf_size(rec.reg_type, rec.reg_data_width);
}

namespace {

// Bit n lies inside the local bit area the segment really has.
bool local_bit_exists(int n)
{
    return local_bit != nullptr && n >= 0 && static_cast<size_t>(n) / 8 < local_bit_size();
}

} // namespace

// The bit area lives in the shared segment, which the parent process writes
// too. On a little-endian word, bit n % 32 of word n / 32 is bit n % 8 of
// byte n / 8, so each primitive touches exactly one byte; set and clear are
// atomic on that byte so that concurrent updates of neighbouring bits by
// threads of this process never undo each other. A bit beyond the area
// (a small segment) reads as 0 and is never written.
uint32_t get_bit(int n)
{
    if (!local_bit_exists(n)) {
        return 0;
    }
    const uint8_t byte = __atomic_load_n(&local_bit[n / 8], __ATOMIC_ACQUIRE);
    if ((byte >> (n % 8)) & 1u) {
        return 1u << (n % 32);
    }
    return 0;
}

void set_bit(int n)
{
    if (!local_bit_exists(n)) {
        return;
    }
    const auto mask = static_cast<uint8_t>(1u << (n % 8));
    __atomic_fetch_or(&local_bit[n / 8], mask, __ATOMIC_ACQ_REL);
}

void clear_bit(int n)
{
    if (!local_bit_exists(n)) {
        return;
    }
    const auto mask = static_cast<uint8_t>(~(1u << (n % 8)));
    __atomic_fetch_and(&local_bit[n / 8], mask, __ATOMIC_ACQ_REL);
}
