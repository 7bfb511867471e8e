// Read-modify-write operations applied in place on the caller's value buffer,
// which holds at least 8 bytes from the value's start.
#include "store/rw_operation.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "base/byte_order.h"
#include "store/addressing.h"

const uint32_t power10_X[10] = {
    1u, 10u, 100u, 1000u, 10000u, 100000u, 1000000u, 10000000u, 100000000u, 1000000000u,
};

namespace {

// Values are little-endian in the buffer whatever the host order.
uint32_t load_le(const uint8_t* p, int nbytes)
{
    uint32_t v = 0;
    for (int i = 0; i < nbytes; ++i) {
        v |= static_cast<uint32_t>(p[i]) << (8 * i);
    }
    return v;
}

void store_le32(uint8_t* p, uint32_t v)
{
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

uint64_t load_le64(const uint8_t* p, int nbytes)
{
    uint64_t v = 0;
    for (int i = 0; i < nbytes; ++i) {
        v |= static_cast<uint64_t>(p[i]) << (8 * i);
    }
    return v;
}

void store_le64(uint8_t* p, uint64_t v)
{
    for (int i = 0; i < 8; ++i) {
        p[i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

// Value size in bytes; requests larger than the value type holds are cut to
// its first limit bytes.
int value_bytes(const REG_ADDR& reg, int limit)
{
    return std::clamp(static_cast<int>(reg.reg_type) * reg.reg_data_width, 0, limit);
}

// BCD digits of a value: two per byte, at most the 8 that 32 bits hold.
int bcd_digits(const REG_ADDR& reg)
{
    return std::clamp(2 * static_cast<int>(reg.reg_type) * reg.reg_data_width, 0, 8);
}

int32_t wrap_sub(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

// Signed 32-bit operations; the limits are tested after the step, so the
// direction turns only once a limit has been passed.
void apply_signed(int32_t& v, rw_oper& rw)
{
    const int32_t s = rw.step;
    const int32_t hi = rw.limit_high;
    const int32_t lo = rw.limit_low;
    switch (rw.op_code) {
    case RW_TOGGLE:
        v ^= 1;
        rw.direction = RW_NO_DIRECTION;
        break;
    case RW_ADD_RESET:
        v = wrap_add(v, s);
        if (v > hi) v = 0;
        rw.direction = RW_NO_DIRECTION;
        break;
    case RW_SUB_CLAMP:
        v = wrap_sub(v, s);
        if (v < hi) v = hi;
        rw.direction = RW_NO_DIRECTION;
        break;
    case RW_PING_PONG:
        if (rw.direction == RW_UP) {
            v = wrap_add(v, s);
            if (v > hi) {
                v = hi;
                rw.direction = RW_DOWN;
            }
        } else {
            v = wrap_sub(v, s);
            if (v < lo) {
                v = lo;
                rw.direction = RW_UP;
            }
        }
        break;
    case RW_ADD_WRAP:
        v = wrap_add(v, s);
        if (v > hi) v = lo;
        rw.direction = RW_NO_DIRECTION;
        break;
    case RW_SUB_WRAP:
        v = wrap_sub(v, s);
        if (v < lo) v = hi;
        rw.direction = RW_NO_DIRECTION;
        break;
    case RW_ADD_CLAMP:
        v = wrap_add(v, s);
        if (v > hi) v = hi;
        break;
    default:
        break;
    }
}

// Unsigned 32-bit operations. The limits are tested on the value before the
// step and on the step's overflow, so reaching a limit exactly turns the
// direction.
void apply_unsigned(uint32_t& v, rw_oper& rw)
{
    const auto s = static_cast<uint32_t>(rw.step);
    const auto hi = static_cast<uint32_t>(rw.limit_high);
    const auto lo = static_cast<uint32_t>(rw.limit_low);
    // Sum or difference when it stays in range and within the limit test.
    const auto up_ok = [&](uint32_t& r) { r = v + s; return r >= v && r <= hi; };
    const auto down_ok = [&](uint32_t& r, uint32_t floor) {
        if (s > v) return false;
        r = v - s;
        return r >= floor;
    };
    uint32_t r = 0;
    switch (rw.op_code) {
    case RW_ADD_RESET:
        v = (v < hi && up_ok(r)) ? r : 0;
        rw.direction = RW_NO_DIRECTION;
        break;
    case RW_SUB_CLAMP:
        v = (v > hi && down_ok(r, hi)) ? r : hi;
        rw.direction = RW_NO_DIRECTION;
        break;
    case RW_PING_PONG:
        if (rw.direction == RW_UP) {
            if (v < hi && up_ok(r)) {
                v = r;
                if (r == hi) rw.direction = RW_DOWN;
            } else {
                v = hi;
                rw.direction = RW_DOWN;
            }
        } else {
            if (v > lo && down_ok(r, lo)) {
                v = r;
                if (r == lo) rw.direction = RW_UP;
            } else {
                v = lo;
                rw.direction = RW_UP;
            }
        }
        break;
    case RW_ADD_WRAP:
        v = (v < hi && up_ok(r)) ? r : lo;
        rw.direction = RW_NO_DIRECTION;
        break;
    case RW_SUB_WRAP:
        v = (v > lo && down_ok(r, lo)) ? r : hi;
        rw.direction = RW_NO_DIRECTION;
        break;
    case RW_ADD_CLAMP:
        v = (v < hi && up_ok(r)) ? r : hi;
        break;
    default: // RW_TOGGLE, RW_NOTHING and unknown codes: no change
        break;
    }
}

// Float and double operations; step and limits travel as single floats.
// NaN compares false, so a NaN result is kept.
template <typename T>
void apply_real(T& v, rw_oper& rw)
{
    const T s = static_cast<T>(std::bit_cast<float>(rw.step));
    const T hi = static_cast<T>(std::bit_cast<float>(rw.limit_high));
    const T lo = static_cast<T>(std::bit_cast<float>(rw.limit_low));
    switch (rw.op_code) {
    case RW_ADD_RESET:
        v = v + s;
        if (v > hi) v = 0;
        rw.direction = RW_NO_DIRECTION;
        break;
    case RW_SUB_CLAMP:
        v = v - s;
        if (v < hi) v = hi;
        rw.direction = RW_NO_DIRECTION;
        break;
    case RW_PING_PONG:
        if (rw.direction == RW_UP) {
            v = v + s;
            if (v > hi) {
                v = hi;
                rw.direction = RW_DOWN;
            }
        } else {
            v = v - s;
            if (v < lo) {
                v = lo;
                rw.direction = RW_UP;
            }
        }
        break;
    case RW_ADD_WRAP:
        v = v + s;
        if (v > hi) v = lo;
        rw.direction = RW_NO_DIRECTION;
        break;
    case RW_SUB_WRAP:
        v = v - s;
        if (v < lo) v = hi;
        rw.direction = RW_NO_DIRECTION;
        break;
    case RW_ADD_CLAMP:
        v = v + s;
        if (v > hi) v = hi;
        break;
    default: // RW_TOGGLE (no toggle for real values), RW_NOTHING and unknown codes
        break;
    }
}

// Integer path: RW_VALUE_INTEGER in the register's own width, and every bit
// register whatever its value type.
void rw_integer(const REG_ADDR& reg, uint8_t* value, rw_oper& rw)
{
    const int size = static_cast<int>(reg.reg_type) * reg.reg_data_width;
    int32_t v = 0;
    if (reg.reg_type == 0 || size == 1) {
        v = value[0];
    } else if (size == 2) {
        v = static_cast<int16_t>(load_le(value, 2));
    } else if (size == 4) {
        v = static_cast<int32_t>(load_le(value, 4));
    }
    // A bit register has no BCD digits: with bcd_flag set it always ends up 0.
    const int digits = bcd_digits(reg);
    if (reg.bcd_flag != 0) {
        v = static_cast<int32_t>(bcd_decode(static_cast<uint32_t>(v), digits));
    }
    apply_signed(v, rw);
    if (reg.bcd_flag != 0) {
        v = static_cast<int32_t>(bcd_encode(static_cast<uint32_t>(v), digits));
    }
    store_le32(value, static_cast<uint32_t>(v));
}

// Operation on the full 8 bytes of a little-endian double.
void rw_double_bytes(uint8_t* value, int nbytes, rw_oper& rw)
{
    auto v = std::bit_cast<double>(load_le64(value, nbytes));
    apply_real(v, rw);
    store_le64(value, std::bit_cast<uint64_t>(v));
}

} // namespace

uint32_t bcd_decode(uint32_t raw, int digits)
{
    digits = std::clamp(digits, 0, 8);
    uint32_t v = 0;
    for (int i = 0; i < digits; ++i) {
        v += ((raw >> (4 * i)) & 0xFu) * power10_X[i];
    }
    return v;
}

uint32_t bcd_encode(uint32_t v, int digits)
{
    digits = std::clamp(digits, 0, 8);
    uint32_t raw = 0;
    for (int i = 0; i < digits; ++i) {
        raw |= ((v / power10_X[i]) % 10u) << (4 * i);
    }
    return raw;
}

void Swap2DWs(uint8_t* value)
{
    uint8_t tmp[4];
    std::memcpy(tmp, value, 4);
    std::memcpy(value, value + 4, 4);
    std::memcpy(value + 4, tmp, 4);
}

void process_rw_operation_unsigned(const REG_ADDR& reg, uint8_t* value, rw_oper& rw)
{
    uint32_t v = load_le(value, value_bytes(reg, 4));
    const int digits = 2 * value_bytes(reg, 4);
    if (reg.bcd_flag != 0) {
        v = bcd_decode(v, digits);
    }
    apply_unsigned(v, rw);
    if (reg.bcd_flag != 0) {
        v = bcd_encode(v, digits);
    }
    store_le32(value, v);
}

void process_rw_operation_float(const REG_ADDR& reg, uint8_t* value, rw_oper& rw)
{
    auto v = std::bit_cast<float>(load_le(value, value_bytes(reg, 4)));
    apply_real(v, rw);
    store_le32(value, std::bit_cast<uint32_t>(v));
}

void process_rw_operation_double(const REG_ADDR& reg, uint8_t* value, rw_oper& rw)
{
    rw_double_bytes(value, value_bytes(reg, 8), rw);
}

void process_rw_operation(const REG_ADDR& reg, uint8_t* value, rw_oper& rw, int siemens_flag)
{
    if (rw.value_type == RW_VALUE_INTEGER || reg.reg_type == 0) {
        rw_integer(reg, value, rw);
        return;
    }
    switch (rw.value_type) {
    case RW_VALUE_UNSIGNED:
        process_rw_operation_unsigned(reg, value, rw);
        break;
    case RW_VALUE_FLOAT:
        process_rw_operation_float(reg, value, rw);
        break;
    case RW_VALUE_DOUBLE: {
        // The buffer holds the double's high word first. Bytes beyond the
        // register's size read as 0.
        uint8_t pair[8] = {};
        std::memcpy(pair, value, static_cast<size_t>(value_bytes(reg, 8)));
        if (siemens_flag & 1) {
            // The caller has put the first word into client order already.
            simens_change(pair + 4, 1);
        }
        Swap2DWs(pair);
        rw_double_bytes(pair, 8, rw);
        // The halves of the second word stay in client order.
        Swap2DWs(pair);
        std::memcpy(value, pair, 8);
        break;
    }
    default:
        break;
    }
}
