// Client address normalisation, write splitting and the local bit primitives.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <tuple>
#include <vector>

#include "base/byte_order.h"
#include "base/globals.h"
#include "base/local_areas.h"
#include "store/addressing.h"

namespace {

REG_ADDR make_rec(uint8_t unit, uint8_t type, int32_t start, int16_t width, uint8_t reg_id = 1)
{
    return {.addr_unit = unit, .reg_type = type, .reg_id = reg_id, .reg_addr_start = start, .reg_data_width = width};
}

TEST(Addressing, ClientAddressNormalisation)
{
    // unit, type, start, width -> start, byte_offset, width (read), width (write)
    struct { uint8_t unit, type; int32_t start; int16_t width; int32_t start2; uint16_t off; int16_t rw, ww; } cases[] = {
        {1, 4, 12, 2, 3, 0, 2, 2}, {1, 4, 13, 2, 3, 1, 3, 2}, {1, 4, 10, 1, 2, 2, 2, 1},
        {1, 2, 10, 1, 5, 0, 1, 1}, {2, 4, 7, 1, 3, 0, 1, 1},   {4, 2, 3, 1, 6, 0, 1, 1},
        {2, 2, 9, 1, 9, 0, 1, 1},  {0, 4, 13, 2, 13, 0, 2, 2}, {3, 2, 10, 1, 10, 0, 1, 1},
    };
    for (const auto& c : cases) {
        REG_ADDR r = make_rec(c.unit, c.type, c.start, c.width);
        REG_ADDR w = r;
        reg_addr_change(r);
        write_reg_addr_change(w);
        SCOPED_TRACE(::testing::Message() << int(c.unit) << "/" << int(c.type) << "@" << c.start);
        EXPECT_EQ(std::tuple(r.reg_addr_start, r.byte_offset, r.reg_data_width), std::tuple(c.start2, c.off, c.rw));
        EXPECT_EQ(std::tuple(w.reg_addr_start, w.byte_offset, w.reg_data_width), std::tuple(c.start2, c.off, c.ww));
    }
}

TEST(Addressing, WriteSplitting)
{
    PlcParam p{};
    DrvRegAddr a{.reg_type = 4};
    p.plc_driver_no = 1001;
    EXPECT_EQ(RegAddr_MaxWidth(a, p), 8);
    p.plc_driver_no = 1000;
    p.max_words = 64;
    p.max_bits = 200;
    EXPECT_EQ(RegAddr_MaxWidth(a, p), 32);
    a.reg_type = 0;
    EXPECT_EQ(RegAddr_MaxWidth(a, p), 200);

    // Driver addresses count elements whatever the address unit.
    struct { uint8_t type; uint16_t unit; int count; int bytes; } cases[] = {
        {2, 1, 10, 20}, {4, 2, 3, 12}, {1, 1, 5, 5}, {0, 1, 9, 2}, {4, 0, 3, 12},
    };
    for (const auto& c : cases) {
        DrvRegAddr d{.reg_type = c.type, .reg_addr_start = 100, .addr_unit = c.unit};
        EXPECT_EQ(RegAddr_Bytes(d, c.count), c.bytes);
        RegAddr_Add(d, c.count);
        EXPECT_EQ(d.reg_addr_start, 100 + c.count) << int(c.type) << "/" << c.unit;
    }
}

TEST(Addressing, LocalBitPrimitives)
{
    alignas(4) uint8_t area[16] = {};
    local_bit = area;
    local_areas_init(12, 0, 0);
    set_bit(63);
    EXPECT_EQ(area[7], 0x80);
    set_bit(96); // past the area's 12 bytes: never touched
    EXPECT_EQ(area[12], 0);
    EXPECT_EQ(get_bit(63), 0x80000000u); // the bit within its 32-bit word
    // Threads flipping neighbouring bits of one byte never lose each other's bits.
    std::atomic<int> lost{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &lost] {
            const int n = 64 + t;
            for (int i = 0; i < 20000; ++i) {
                set_bit(n);
                if (get_bit(n) == 0) ++lost;
                clear_bit(n);
                if (get_bit(n) != 0) ++lost;
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(lost.load(), 0);
    local_bit = nullptr;
    local_areas_init(0, 0, 0);
}

} // namespace
