// Wire bytes of the reply builders and the fixed status packets.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

#include "base/protocol.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytes(const uint8_t* p, size_t n) { return {p, p + n}; }

TEST(Protocol, RepliesOnTheWire)
{
    std::array<uint8_t, PACKET_BUF_SIZE> out{};
    size_t n = produce_ack_pack(out.data(), head, com_read_err_01, 4);
    EXPECT_EQ(bytes(out.data(), n), (Bytes{1, 0, 0, 0, 0, 0, 0, 0, 4, 0, 3, 0, 1, 4}));
    n = produce_ack_pack(out.data(), head, register_ok, 3);
    EXPECT_EQ(bytes(out.data(), n), (Bytes{1, 0, 0, 0, 0, 0, 0, 0, 3, 0, 1, 1, 2}));
    n = produce_rw_ack_pack(out.data(), head, 0x02, CMD_REALTIME_RW);
    EXPECT_EQ(bytes(out.data(), n), (Bytes{1, 0, 0, 0, 0, 0, 0, 0, 4, 0, 9, 1, 2, 0x0c}));
    const uint8_t data[] = {0x11, 0x22, 0x33, 0x44};
    n = produce_read_ack_pack(out.data(), head, 4, CMD_COM_READ, data);
    EXPECT_EQ(bytes(out.data(), n), (Bytes{1, 0, 0, 0, 0, 0, 0, 0, 9, 0, 3, 1, 4, 0, 0x11, 0x22, 0x33, 0x44, 0xb2}));

    const std::pair<const uint8_t*, Bytes> fixed[] = {
        {unregister_ok, {2, 1, 3}}, {com_read_err_02, {3, 0, 2, 5}}, {com_read_err_03, {3, 0, 3, 6}},
        {realtime_read_err_01, {4, 0, 1, 5}}, {write_success, {5, 1, 0, 6}}, {write_err_01, {5, 0, 1, 6}},
        {realtime_readcheck_err_01, {6, 0, 1, 7}}, {realtime_readcheck_err_02, {6, 0, 2, 8}},
        {realtime_readcheck_err_03, {6, 0, 3, 9}}, {writecheck_success, {7, 1, 0, 8}},
        {writecheck_err_01, {7, 0, 1, 8}}, {writecheck_err_02, {7, 0, 2, 9}}, {writecheck_err_03, {7, 0, 3, 10}},
        {com_realtime_read_err_01, {8, 0, 1, 9}}, {realtime_rw_err_01, {9, 0, 1, 10}},
        {realtime_rw_check_err_01, {10, 0, 1, 11}}, {realtime_rw_check_err_02, {10, 0, 2, 12}},
        {realtime_rw_check_err_03, {10, 0, 3, 13}},
    };
    for (const auto& [packet, expect] : fixed)
        EXPECT_EQ(bytes(packet, expect.size()), expect);

    const uint8_t buf[] = {0xff, 0x02, 0x80, 0x80};  // the sum wraps; no bytes sum to 0
    EXPECT_EQ(check_sum(buf, 4), 0x01);
    EXPECT_EQ(check_sum(buf, 0), 0);
    EXPECT_EQ(check_sum(buf, -5), 0);
    const std::vector<uint8_t> ff(1000, 0xff);  // n bytes of 0xff sum to -n modulo 256
    EXPECT_EQ(check_sum(ff.data(), 31), 225);
    EXPECT_EQ(check_sum(ff.data(), 33), 223);
    EXPECT_EQ(check_sum(ff.data(), 1000), 24);
}

TEST(Protocol, SwappedReplyBeyondOldScratchSizeAndOversizedReplies)
{
    std::array<uint8_t, PACKET_BUF_SIZE> out{};
    // An odd trailing pair stays in place; only whole 4-byte groups swap halves.
    const uint8_t six[] = {1, 2, 3, 4, 5, 6};
    ASSERT_EQ(produce_read_ack_pack_simens(out.data(), head, 6, CMD_REALTIME_READCHECK, six), 21u);
    EXPECT_EQ(bytes(out.data() + 8, 12), (Bytes{11, 0, 6, 1, 6, 0, 3, 4, 1, 2, 5, 6}));
    EXPECT_EQ(out[20], check_sum(out.data() + 10, 10));

    // 2048 data bytes: every group is swapped, the last one included.
    Bytes data(2048);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(i * 7);
    ASSERT_EQ(produce_read_ack_pack_simens(out.data(), head, 2048, CMD_COM_READ, data.data()), 2048u + 15u);
    EXPECT_EQ(bytes(out.data() + 14 + 2044, 4), (Bytes{data[2046], data[2047], data[2044], data[2045]}));
    EXPECT_EQ(out[14 + 2048], check_sum(out.data() + 10, 2048 + 4));

    // A reply that cannot fit the 4096-byte buffer is not built.
    Bytes big(PACKET_BUF_SIZE);
    EXPECT_EQ(produce_read_ack_pack(out.data(), head, PACKET_BUF_SIZE - 14, 3, big.data()), 0u);
    EXPECT_EQ(produce_read_ack_pack_simens(out.data(), head, PACKET_BUF_SIZE - 14, 3, big.data()), 0u);
    EXPECT_EQ(produce_read_ack_pack(out.data(), head, PACKET_BUF_SIZE - 15, 3, big.data()), PACKET_BUF_SIZE);
}

TEST(Protocol, SubReadEntries)
{
    uint8_t entry[16] = {};
    const uint8_t data[] = {1, 2, 3, 4, 5};
    EXPECT_EQ(produce_sub_read_ack_pack(entry, 5, data), 8u);
    EXPECT_EQ(bytes(entry, 8), (Bytes{1, 5, 0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(produce_sub_read_ack_pack_simens(entry, 5, data), 8u);
    EXPECT_EQ(bytes(entry, 8), (Bytes{1, 5, 0, 3, 4, 1, 2, 5}));

    // Modbus bit view over words 0x8421, 0x00f0: bits 5..20 are 0x8421 >> 5
    // (11 bits) then the low 5 bits of 0x00f0; every bit of the range is written.
    const uint8_t words[] = {0x21, 0x84, 0xf0, 0x00};
    std::memset(entry, 0xff, sizeof entry);
    EXPECT_EQ(produce_sub_read_ack_pack_Modbus_Extend(entry, 16, words, 5), 5u);
    const uint16_t expect = 0x0421 | (0x10 << 11);
    EXPECT_EQ(bytes(entry, 5), (Bytes{1, 16, 0, uint8_t(expect & 0xff), uint8_t(expect >> 8)}));
    // 3 bits leave the rest of their byte alone.
    std::memset(entry, 0xff, sizeof entry);
    EXPECT_EQ(produce_sub_read_ack_pack_Modbus_Extend(entry, 3, words, 15), 4u);
    EXPECT_EQ(entry[3], 0xf8 | 0x01);
}

}  // namespace
