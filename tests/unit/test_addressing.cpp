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

TEST(Addressing, BitRecordWithAddressUnitIsReportedAndKept)
{
    for (auto fn : {reg_addr_change, write_reg_addr_change}) {
        REG_ADDR r = make_rec(2, 0, 17, 5);
        const REG_ADDR before = r;
        testing::internal::CaptureStdout();
        fn(r);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "reg_addr_change org_reg_addr->reg_type should not be zero!\n");
        EXPECT_TRUE(reg_addr_equal(r, before));
    }
}

TEST(Addressing, ModbusBitViews)
{
    struct { uint8_t id; int32_t s; int16_t n; uint8_t id2; int32_t s2; int16_t n2; } cases[] = {
        {5, 20, 16, 3, 1, 2}, {6, 16, 16, 4, 1, 1}, {5, 0, 1, 3, 0, 1}, {5, 15, 2, 3, 0, 2},
    };
    for (const auto& c : cases) {
        REG_ADDR r = make_rec(0, 0, c.s, c.n, c.id);
        change_REG_ADDR_temp_to_Modbus_Extend(r, r.reg_id);
        EXPECT_EQ(std::tuple(r.reg_id, r.reg_type, r.reg_addr_start, r.reg_data_width),
                  std::tuple(c.id2, uint8_t{2}, c.s2, c.n2)) << c.s << "+" << c.n;
    }

    DrvRegAddr a{.reg_type = 2, .reg_id = 4, .reg_addr_start = 7};
    EXPECT_EQ(change_Modbus_Extend_to_REG_ADDR_temp(a, 3), 48);
    EXPECT_EQ(std::tuple(a.reg_id, a.reg_type, a.reg_addr_start), std::tuple(uint8_t{6}, uint8_t{0}, 112));

    // Only the word kinds 3 and 4 of a Modbus port (driver 50) have bit views.
    const auto saved = com_info;
    com_info.assign(2, com_port_info{});
    com_info[0].plc_driver_no = 5;
    com_info[1].plc_driver_no = 50;
    port_num = 2;
    for (uint8_t id : {3, 4, 5, 6}) {
        DrvRegAddr a{};
        a.reg_id = id;
        EXPECT_EQ(RegAddr_IsModbusExtend(1, a), (id == 3 || id == 4) ? 1 : 0) << int(id);
        EXPECT_EQ(RegAddr_IsModbusExtend(0, a) + RegAddr_IsModbusExtend(2, a) + RegAddr_IsModbusExtend(-1, a), 0);
    }
    com_info = saved;
    port_num = static_cast<int>(saved.size());
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

TEST(Addressing, ByteOrderAndBitArrays)
{
    uint8_t buf[] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
    simens_change(buf, 2);
    EXPECT_EQ(std::vector<uint8_t>(buf, buf + 8),
              (std::vector<uint8_t>{0x33, 0x44, 0x11, 0x22, 0x77, 0x88, 0x55, 0x66}));

    uint8_t out[4];
    int_to_char_bigending(out, 0xA1B2C3D4u);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 4), (std::vector<uint8_t>{0xA1, 0xB2, 0xC3, 0xD4}));
    EXPECT_EQ(char_to_int_bigending(out), 0xA1B2C3D4u);
    short_to_char_bigending(out, 0xFFFE);
    EXPECT_EQ(out[0] << 8 | out[1], 0xFFFE);
    EXPECT_EQ(char_to_short_bigending(out), -2); // signed

    const uint8_t packed[] = {0x05, 0x80};
    uint8_t bytes[6] = {9, 9, 9, 9, 9, 9};
    CvtBits2Bytes(packed, 0, 4, bytes);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 5), (std::vector<uint8_t>{1, 0, 1, 0, 9}));
    CvtBits2Bytes(packed, 14, 2, bytes);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 2), (std::vector<uint8_t>{0, 1}));

    uint8_t bits[2] = {0xFF, 0x00};
    const uint8_t in[] = {0, 2, 3};   // only the lowest bit counts
    CvtBytes2Bits(in, 3, bits, 6);
    EXPECT_EQ(std::vector<uint8_t>(bits, bits + 2), (std::vector<uint8_t>{0x3F, 0x01}));
    EXPECT_EQ(GetMin(-3, 2), -3);
    EXPECT_EQ(GetMax(-3, 2), 2);
}

TEST(Addressing, LocalBitPrimitives)
{
    local_bit = nullptr;
    set_bit(5); // no area: nothing happens
    EXPECT_EQ(get_bit(5), 0u);

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
