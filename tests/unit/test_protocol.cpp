// Reply builders whose cases the end-to-end tests do not reach: the checksum
// at its lane boundaries, swapped halves, replies too large for the buffer
// and multi-area entries.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

#include "base/protocol.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytes(const uint8_t* p, size_t n) { return {p, p + n}; }

TEST(Protocol, ChecksumWrapsAcrossLanes)
{
    const uint8_t buf[] = {0xff, 0x02, 0x80, 0x80};  // the sum wraps; no bytes sum to 0
    EXPECT_EQ(check_sum(buf, 4), 0x01);
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

// Multi-area entries: [1][size][data] with the word-swapped form's halves
// exchanged, and a Modbus bit view of 3 bits that leaves the rest of its byte.
TEST(Protocol, SwappedSubReadEntryAndPartialBitView)
{
    uint8_t entry[8];
    const uint8_t data[] = {1, 2, 3, 4, 5};
    EXPECT_EQ(produce_sub_read_ack_pack_simens(entry, 5, data), 8u);
    EXPECT_EQ(bytes(entry, 8), (Bytes{1, 5, 0, 3, 4, 1, 2, 5}));
    const uint8_t words[] = {0x21, 0x84, 0xf0, 0x00}; // bits 15..17: 1, 0, 0
    std::memset(entry, 0xff, sizeof entry);
    EXPECT_EQ(produce_sub_read_ack_pack_Modbus_Extend(entry, 3, words, 15), 4u);
    EXPECT_EQ(entry[3], 0xf9);
}

}  // namespace
