// Arithmetic operations on registers (step, limits, direction) for every value type.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <vector>

#include "store/rw_operation.h"

namespace {

int32_t f(float v) { return std::bit_cast<int32_t>(v); }

struct Case {
    int line;
    uint8_t reg_type;
    int16_t width;
    uint8_t bcd;
    rw_oper op;       // op_code, step, limit_high, limit_low, direction, value_type
    uint64_t in, out; // first 8 buffer bytes, little-endian
    int32_t dir;      // direction afterwards
};

// Runs one case on a 16-byte buffer whose bytes 8..15 must stay untouched.
void run(const Case& c, int siemens = 0)
{
    uint8_t buf[16];
    std::memset(buf, 0xEE, sizeof buf);
    for (int i = 0; i < 8; ++i) buf[i] = static_cast<uint8_t>(c.in >> (8 * i));
    REG_ADDR reg{};
    reg.reg_type = c.reg_type;
    reg.reg_data_width = c.width;
    reg.bcd_flag = c.bcd;
    rw_oper op = c.op;
    process_rw_operation(reg, buf, op, siemens);
    uint64_t out = 0;
    for (int i = 0; i < 8; ++i) out |= static_cast<uint64_t>(buf[i]) << (8 * i);
    SCOPED_TRACE(::testing::Message() << "case at line " << c.line);
    EXPECT_EQ(out, c.out);
    EXPECT_EQ(op.direction, c.dir);
    EXPECT_EQ(std::vector<uint8_t>(buf + 8, buf + 16), std::vector<uint8_t>(8, 0xEE));
}

#define L __LINE__

// The buffer holds a double's high word first, each word little-endian.
uint64_t dbl(double v)
{
    const auto bits = std::bit_cast<uint64_t>(v);
    return (bits >> 32) | (bits << 32);
}

// Every operation on every value type: signed and unsigned integers (the
// unsigned ones turn at the exact limit), floats, doubles in word order with
// the Siemens flag, bit registers and BCD.
TEST(RwOperation, EveryOperationOnEveryValueType)
{
    auto u = [](float v) { return static_cast<uint64_t>(std::bit_cast<uint32_t>(v)); };
    const Case cases[] = {
        {L, 2, 1, 0, {1, 0, 0, 0, 5, 0}, 4, 5, 2},
        {L, 2, 1, 0, {2, 5, 100, 0, 5, 0}, 98, 0, 2},
        {L, 2, 1, 0, {3, 3, 8, 0, 5, 0}, 10, 8, 2},
        {L, 2, 1, 0, {4, 10, 100, 0, 1, 0}, 95, 100, 0},
        {L, 2, 1, 0, {4, 10, 100, 0, 1, 0}, 90, 100, 1},     // reached, not passed
        {L, 2, 1, 0, {5, 2, 100, 10, 5, 0}, 99, 10, 2},
        {L, 2, 1, 0, {8, 5, 100, 0, 5, 0}, 99, 100, 5},
        {L, 2, 1, 0, {2, 1, 10, 0, 5, 0}, 0xFFFE, 0xFFFFFFFF, 2},  // -2 + 1
        {L, 1, 1, 0, {2, 1, 1000, 0, 5, 0}, 0xFF, 0x100, 2},      // bytes are unsigned
        {L, 4, 1, 0, {8, 1, 0x7FFFFFFF, 0, 5, 0}, 0x7FFFFFFF, 0x80000000, 5},  // wraps
        {L, 2, 1, 0, {2, 1, 10, 0, 5, 0}, 0x1234000000000005, 0x1234000000000006, 2},
        {L, 4, 1, 0, {1, 1, 9, 0, 5, 1}, 4, 4, 5},
        {L, 4, 1, 0, {2, 2, 100, 0, 5, 1}, 98, 100, 2},
        {L, 4, 1, 0, {2, 2, 100, 0, 5, 1}, 100, 0, 2},
        {L, 4, 1, 0, {2, 0x20, -1, 0, 5, 1}, 0xFFFFFFF0, 0, 2},      // overflow
        {L, 4, 1, 0, {3, 10, 2, 0, 5, 1}, 5, 2, 2},                   // underflow
        {L, 4, 1, 0, {4, 10, 100, 10, 0, 1}, 20, 10, 1},
        {L, 4, 1, 0, {8, 1, -1, 0, 5, 1}, 0xFFFFFFFF, 0xFFFFFFFF, 5},
        {L, 2, 1, 0, {8, 1, 70000, 0, 5, 1}, 0xFFFE, 0xFFFF, 5},      // zero-extended
        {L, 4, 2, 0, {8, 1, -1, 0, 5, 1}, 0x1111111100000005, 0x1111111100000006, 5},  // cut to 4 bytes
        {L, 4, 1, 0, {1, f(1), f(9), 0, 5, 2}, u(1.5f), u(1.5f), 5},
        {L, 4, 1, 0, {2, f(0.25f), f(2.0f), 0, 5, 2}, u(1.5f), u(1.75f), 2},
        {L, 4, 1, 0, {3, f(0.5f), f(0.75f), 0, 5, 2}, u(1.0f), u(0.75f), 2},
        {L, 4, 1, 0, {4, f(1), f(10), f(0), 1, 2}, u(9.5f), u(10.0f), 0},
        {L, 4, 1, 0, {5, f(1), f(10), f(2), 5, 2}, u(9.5f), u(2.0f), 2},
        {L, 4, 1, 1, {8, f(1), f(10), f(2), 5, 2}, u(2.0f), u(3.0f), 5},   // BCD ignored
        {L, 4, 1, 0, {2, f(1), f(10), 0, 5, 2}, u(std::nanf("")), u(std::nanf("")), 2}, // no wrap to 0
        {L, 4, 2, 0, {2, f(0.5f), f(3.0f), 0, 5, 3}, dbl(2.75), dbl(0.0), 2},
        {L, 4, 2, 0, {8, f(0.5f), f(100), 0, 5, 3}, dbl(1.1), dbl(1.1 + 0.5), 5},
        {L, 4, 2, 0, {3, f(0.5f), f(1.0f), 0, 5, 3}, dbl(1.1), dbl(1.0), 2},
        {L, 4, 2, 0, {4, f(0.1f), f(2), f(1), 1, 3}, dbl(1.5), dbl(1.5 + double(0.1f)), 1},
        {L, 4, 2, 0, {5, f(1), f(2), f(1), 5, 3}, dbl(1.5), dbl(1.0), 2},
        {L, 4, 2, 1, {1, f(1), f(2), f(1), 5, 3}, dbl(1.5), dbl(1.5), 5},
        // A 4-byte register holds only the high word; the low word reads as 0.
        {L, 4, 1, 0, {8, f(1), f(100), 0, 5, 3}, dbl(2.0) | 0xDEADBEEF00000000, dbl(3.0), 5},
        // Registers longer than 8 bytes use their first 8 (bytes 8..15 stay).
        {L, 4, 4, 0, {8, f(1), f(100), 0, 5, 3}, dbl(2.0), dbl(3.0), 5},
        {L, 0, 1, 0, {1, 0, 0, 0, 5, 0}, 0x01, 0x00, 2},
        {L, 0, 1, 0, {1, 0, 0, 0, 5, 7}, 0x00, 0x01, 2},   // any value type
        {L, 0, 1, 1, {1, 0, 0, 0, 5, 0}, 0x00, 0x00, 2},   // no BCD digits: 0
        {L, 0, 1, 1, {7, 0, 0, 0, 5, 1}, 0x01, 0x00, 5},
        {L, 2, 1, 1, {8, 1, 9999, 0, 5, 0}, 0x0099, 0x0100, 5},
        {L, 2, 1, 1, {0, 1, 9999, 0, 5, 0}, 0x00AB, 0x0111, 5},  // decoded, encoded
        {L, 1, 1, 1, {2, 1, 99, 0, 5, 0}, 0x99, 0x00, 2},
        {L, 4, 1, 1, {8, 1, 0x7FFFFFFF, 0, 5, 0}, 0x99999999, 0x00000000, 5},
        {L, 2, 1, 1, {1, 1, 9999, 0, 5, 1}, 0x001F, 0x0025, 5},   // unsigned op 1
        {L, 2, 1, 0, {1, 1, 1, 1, 5, 7}, 0x1234, 0x1234, 5},      // unknown value type
    };
    for (const auto& c : cases) run(c);

    // Siemens data: the second word still has its 16-bit halves swapped;
    // the result comes back with both words in client order.
    const uint64_t d = dbl(1.1);
    const uint64_t driver_order = (d & 0xFFFFFFFFu) | (d >> 48) << 32 | (d >> 32 & 0xFFFF) << 48;
    run({L, 4, 2, 0, {8, f(0.5f), f(100), 0, 5, 3}, driver_order, dbl(1.1 + 0.5), 5}, 1);
    run({L, 4, 2, 0, {7, 0, 0, 0, 5, 3}, driver_order, dbl(1.1), 5}, 3);

    EXPECT_EQ(bcd_decode(0x12345678, 3), 678u);
    EXPECT_EQ(bcd_encode(12345678, 4), 0x5678u);
}

#undef L

} // namespace
