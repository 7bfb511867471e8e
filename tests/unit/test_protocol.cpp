// Wire bytes of the reply builders and the fixed status packets.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

#include "server/protocol.h"

namespace {

std::vector<uint8_t> bytes(const uint8_t* p, size_t n)
{
    return {p, p + n};
}

TEST(Protocol, StatusPacketOnTheWire)
{
    std::array<uint8_t, PACKET_BUF_SIZE> out{};
    size_t n = produce_ack_pack(out.data(), head, com_read_err_01, 4);
    EXPECT_EQ(bytes(out.data(), n),
              (std::vector<uint8_t>{0x01, 0, 0, 0, 0, 0, 0, 0, 0x04, 0x00, 0x03, 0x00, 0x01, 0x04}));

    n = produce_ack_pack(out.data(), head, register_ok, 3);
    EXPECT_EQ(bytes(out.data(), n),
              (std::vector<uint8_t>{0x01, 0, 0, 0, 0, 0, 0, 0, 0x03, 0x00, 0x01, 0x01, 0x02}));
}

TEST(Protocol, EveryStatusPacketCarriesItsSum)
{
    struct Item {
        const uint8_t* p;
        uint8_t command, ok, err;
    };
    const Item items[] = {
        {com_read_err_01, 3, 0, 1},           {com_read_err_02, 3, 0, 2},
        {com_read_err_03, 3, 0, 3},           {realtime_read_err_01, 4, 0, 1},
        {write_success, 5, 1, 0},             {write_err_01, 5, 0, 1},
        {realtime_readcheck_err_01, 6, 0, 1}, {realtime_readcheck_err_02, 6, 0, 2},
        {realtime_readcheck_err_03, 6, 0, 3}, {writecheck_success, 7, 1, 0},
        {writecheck_err_01, 7, 0, 1},         {writecheck_err_02, 7, 0, 2},
        {writecheck_err_03, 7, 0, 3},         {com_realtime_read_err_01, 8, 0, 1},
        {realtime_rw_err_01, 9, 0, 1},        {realtime_rw_check_err_01, 10, 0, 1},
        {realtime_rw_check_err_02, 10, 0, 2}, {realtime_rw_check_err_03, 10, 0, 3},
    };
    for (const Item& it : items) {
        SCOPED_TRACE(int(it.command) * 10 + it.err);
        EXPECT_EQ(it.p[0], it.command);
        EXPECT_EQ(it.p[1], it.ok);
        EXPECT_EQ(it.p[2], it.err);
        EXPECT_EQ(it.p[3], check_sum(it.p, 3));
    }
    EXPECT_EQ(bytes(register_ok, 3), (std::vector<uint8_t>{1, 1, 2}));
    EXPECT_EQ(bytes(unregister_ok, 3), (std::vector<uint8_t>{2, 1, 3}));
    EXPECT_EQ(writecheck_err_03[3], 0x0a);
    EXPECT_EQ(realtime_rw_check_err_03[3], 0x0d);
}

TEST(Protocol, CheckSumWrapsAndIgnoresNonPositiveLength)
{
    const uint8_t buf[] = {0xff, 0x02, 0x80, 0x80};
    EXPECT_EQ(check_sum(buf, 4), 0x01);
    EXPECT_EQ(check_sum(buf, 1), 0xff);
    EXPECT_EQ(check_sum(buf, 0), 0);
    EXPECT_EQ(check_sum(buf, -5), 0);
}

TEST(Protocol, DataReplyExample)
{
    std::array<uint8_t, PACKET_BUF_SIZE> out{};
    const uint8_t data[] = {0x11, 0x22, 0x33, 0x44};
    size_t n = produce_read_ack_pack(out.data(), head, 4, CMD_COM_READ, data);
    EXPECT_EQ(bytes(out.data(), n), (std::vector<uint8_t>{0x01, 0, 0, 0, 0, 0, 0, 0, 0x09, 0x00, 0x03,
                                                         0x01, 0x04, 0x00, 0x11, 0x22, 0x33, 0x44, 0xb2}));
    EXPECT_EQ(parse_package_len(out.data()), 9);
    EXPECT_EQ(parse_command(out.data()), 3);
}

TEST(Protocol, SwappedReplyExchangesWholeGroupsOnly)
{
    std::array<uint8_t, PACKET_BUF_SIZE> out{};
    const uint8_t data[] = {1, 2, 3, 4, 5, 6};
    size_t n = produce_read_ack_pack_simens(out.data(), head, 6, CMD_REALTIME_READCHECK, data);
    ASSERT_EQ(n, 21u);
    EXPECT_EQ(parse_package_len(out.data()), 11);
    EXPECT_EQ(bytes(out.data() + 10, 4), (std::vector<uint8_t>{6, 1, 6, 0}));
    EXPECT_EQ(bytes(out.data() + 14, 6), (std::vector<uint8_t>{3, 4, 1, 2, 5, 6}));
    EXPECT_EQ(out[20], check_sum(out.data() + 10, 10));
}

TEST(Protocol, SwappedReplyBeyondOldScratchSizeAndOversizedReplies)
{
    // 2048 data bytes: every group is swapped, the last one included.
    std::vector<uint8_t> data(2048);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(i * 7);
    std::array<uint8_t, PACKET_BUF_SIZE> out{};
    size_t n = produce_read_ack_pack_simens(out.data(), head, 2048, CMD_COM_READ, data.data());
    ASSERT_EQ(n, 2048u + 15u);
    EXPECT_EQ(bytes(out.data() + 14 + 2044, 4),
              (std::vector<uint8_t>{data[2046], data[2047], data[2044], data[2045]}));
    EXPECT_EQ(out[14 + 2048], check_sum(out.data() + 10, 2048 + 4));

    // A reply that cannot fit the 4096-byte buffer is not built.
    std::vector<uint8_t> big(PACKET_BUF_SIZE);
    EXPECT_EQ(produce_read_ack_pack(out.data(), head, PACKET_BUF_SIZE - 14, 3, big.data()), 0u);
    EXPECT_EQ(produce_read_ack_pack_simens(out.data(), head, PACKET_BUF_SIZE - 14, 3, big.data()), 0u);
    EXPECT_EQ(produce_read_ack_pack(out.data(), head, PACKET_BUF_SIZE - 15, 3, big.data()), PACKET_BUF_SIZE);
}

TEST(Protocol, ResultReply)
{
    std::array<uint8_t, PACKET_BUF_SIZE> out{};
    size_t n = produce_rw_ack_pack(out.data(), head, 0x02, CMD_REALTIME_RW);
    EXPECT_EQ(bytes(out.data(), n),
              (std::vector<uint8_t>{0x01, 0, 0, 0, 0, 0, 0, 0, 0x04, 0x00, 0x09, 0x01, 0x02, 0x0c}));
}

TEST(Protocol, SubReadEntries)
{
    uint8_t entry[16] = {};
    const uint8_t data[] = {1, 2, 3, 4, 5};
    EXPECT_EQ(produce_sub_read_ack_pack(entry, 5, data), 8u);
    EXPECT_EQ(bytes(entry, 8), (std::vector<uint8_t>{1, 5, 0, 1, 2, 3, 4, 5}));

    std::memset(entry, 0, sizeof entry);
    EXPECT_EQ(produce_sub_read_ack_pack_simens(entry, 5, data), 8u);
    EXPECT_EQ(bytes(entry, 8), (std::vector<uint8_t>{1, 5, 0, 3, 4, 1, 2, 5}));
}

TEST(Protocol, ModbusExtendEntryTakesBitsAcrossWords)
{
    // Words 0x8421 and 0x00f0, little-endian.
    const uint8_t words[] = {0x21, 0x84, 0xf0, 0x00};
    uint8_t entry[8];
    std::memset(entry, 0xff, sizeof entry);  // every bit of the range must be written
    // Bits 5..20: bits 5..15 of word 0, then bits 0..4 of word 1.
    EXPECT_EQ(produce_sub_read_ack_pack_Modbus_Extend(entry, 16, words, 5), 5u);
    EXPECT_EQ(entry[0], 1);
    EXPECT_EQ(entry[1], 16);
    EXPECT_EQ(entry[2], 0);
    // 0x8421 >> 5 = 0x0421 (11 bits), then the low 5 bits of 0x00f0 = 0x10.
    uint16_t expect = static_cast<uint16_t>(0x0421 | (0x10 << 11));
    EXPECT_EQ(entry[3], expect & 0xff);
    EXPECT_EQ(entry[4], expect >> 8);

    // 3 bits leave the rest of their byte alone.
    std::memset(entry, 0xff, sizeof entry);
    EXPECT_EQ(produce_sub_read_ack_pack_Modbus_Extend(entry, 3, words, 15), 4u);
    EXPECT_EQ(entry[3], 0xf8 | 0x01);  // bit 15 of word 0 set, bits 0, 1 of word 1 clear
}

TEST(Protocol, RequestAccessors)
{
    uint8_t pkt[40] = {};
    pkt[8] = 22;  // a write of 4 data bytes
    pkt[10] = CMD_WRITE;
    pkt[11] = 7;
    EXPECT_EQ(parse_command(pkt), CMD_WRITE);
    EXPECT_EQ(parse_REG_ADDR_NUM(pkt), 7);
    EXPECT_EQ(parse_package_len(pkt), 22);
    EXPECT_EQ(cal_write_data_length(pkt), 4);
    pkt[8] = 0x34;
    pkt[9] = 0x12;
    EXPECT_EQ(parse_package_len(pkt), 0x1234);
}

}  // namespace
