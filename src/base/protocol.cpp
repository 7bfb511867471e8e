// Packet builders of the client protocol.
#include "base/protocol.h"

#include <cstring>

#include "base/byte_order.h"

const uint8_t head[PACKET_HEADER_SIZE] = {0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0};

namespace {

// Header: the leading bytes of head, then package_len.
void write_header(uint8_t* out, const uint8_t* hd, uint16_t package_len)
{
    std::memcpy(out, hd, PKT_HEAD_BYTES);
    put_le16(out + PKT_PACKAGE_LEN, package_len);
}

// Data reply [command][1][u16 size][data][sum]; the caller has put the data
// bytes at out + ACK_DATA already.
size_t finish_read_ack(uint8_t* out, const uint8_t* hd, uint16_t size, uint8_t command)
{
    const int body = size + BODY_DATA_FIXED;
    write_header(out, hd, static_cast<uint16_t>(body));
    out[ACK_COMMAND] = command;
    out[ACK_OK] = REPLY_ANSWERED;
    put_le16(out + ACK_DATA_SIZE, size);
    out[ACK_COMMAND + body - 1] = check_sum(out + ACK_COMMAND, body - 1);
    return PACKET_HEADER_SIZE + static_cast<size_t>(body);
}

}  // namespace

// The byte sum modulo 256. Bytes are first summed into CHECK_SUM_LANES
// separate 8-bit lanes (a fixed-length inner loop the compiler turns into
// vector byte additions), then the lanes and the tail: the same sum, as
// addition modulo 256 does not care about order.
uint8_t check_sum(const uint8_t* buf, int n)
{
    constexpr int CHECK_SUM_LANES = 32;
    uint8_t lane[CHECK_SUM_LANES] = {};
    int i = 0;
    for (; i + CHECK_SUM_LANES <= n; i += CHECK_SUM_LANES) {
        for (int k = 0; k < CHECK_SUM_LANES; ++k) {
            lane[k] = static_cast<uint8_t>(lane[k] + buf[i + k]);
        }
    }
    uint8_t sum = 0;
    for (const uint8_t l : lane) {
        sum = static_cast<uint8_t>(sum + l);
    }
    for (; i < n; ++i) {
        sum = static_cast<uint8_t>(sum + buf[i]);
    }
    return sum;
}

size_t produce_ack_pack(uint8_t* out, const uint8_t* hd, const uint8_t* packet, int len)
{
    if (len < 0)
        len = 0;
    write_header(out, hd, static_cast<uint16_t>(len));
    std::memcpy(out + PACKET_HEADER_SIZE, packet, static_cast<size_t>(len));
    return PACKET_HEADER_SIZE + static_cast<size_t>(len);
}

size_t produce_read_ack_pack(uint8_t* out, const uint8_t* hd, uint16_t size, uint8_t command,
                             const uint8_t* data)
{
    if (size > MAX_READ_ACK_DATA)
        return 0;
    std::memcpy(out + ACK_DATA, data, size);
    return finish_read_ack(out, hd, size, command);
}

// The halves are exchanged in the output itself, so any size that fits the
// reply buffer is served; no separate scratch area limits it.
size_t produce_read_ack_pack_simens(uint8_t* out, const uint8_t* hd, uint16_t size, uint8_t command,
                                    const uint8_t* data)
{
    if (size > MAX_READ_ACK_DATA)
        return 0;
    std::memcpy(out + ACK_DATA, data, size);
    simens_change(out + ACK_DATA, size / 4);
    return finish_read_ack(out, hd, size, command);
}

size_t produce_rw_ack_pack(uint8_t* out, const uint8_t* hd, uint8_t result, uint8_t command)
{
    write_header(out, hd, BODY_STATUS);
    out[ACK_COMMAND] = command;
    out[ACK_OK] = REPLY_ANSWERED;
    out[ACK_RESULT] = result;
    out[ACK_COMMAND + BODY_STATUS - 1] = check_sum(out + ACK_COMMAND, BODY_STATUS - 1);
    return PACKET_HEADER_SIZE + BODY_STATUS;
}

size_t produce_refusal_pack(uint8_t* out, uint8_t command)
{
    return produce_ack_pack(out, head, status_error(command, REPLY_FAILED), BODY_STATUS);
}

size_t produce_sub_read_error_entry(uint8_t* entry, uint8_t err)
{
    entry[SUB_ENTRY_OK] = REPLY_ERR_FOLLOWS;
    entry[SUB_ENTRY_ERR] = err;
    return SUB_ENTRY_ERROR_LEN;
}

size_t produce_sub_read_ack_pack(uint8_t* entry, uint16_t size, const uint8_t* data)
{
    entry[SUB_ENTRY_OK] = REPLY_ANSWERED;
    put_le16(entry + SUB_ENTRY_SIZE, size);
    std::memcpy(entry + SUB_ENTRY_DATA, data, size);
    return SUB_ENTRY_DATA + size;
}

size_t produce_sub_read_ack_pack_simens(uint8_t* entry, uint16_t size, const uint8_t* data)
{
    size_t n = produce_sub_read_ack_pack(entry, size, data);
    simens_change(entry + SUB_ENTRY_DATA, size / 4);
    return n;
}

// Bit i of the entry is bit (bit_offset + i) of the little-endian 16-bit
// words, which is bit (b % 8) of byte b / 8 of their bytes. Positions before
// the first word (a negative offset) read as 0.
size_t produce_sub_read_ack_pack_Modbus_Extend(uint8_t* entry, uint16_t count, const uint8_t* words,
                                               int bit_offset)
{
    entry[SUB_ENTRY_OK] = REPLY_ANSWERED;
    put_le16(entry + SUB_ENTRY_SIZE, count);
    uint8_t* bits = entry + SUB_ENTRY_DATA;
    for (int i = 0; i < count; ++i) {
        const int b = bit_offset + i;
        put_bit(bits, i, b >= 0 && bit_of(words, b));
    }
    return SUB_ENTRY_DATA + (count + 7u) / 8u;
}

uint8_t parse_command(const uint8_t* packet)
{
    return packet[PKT_COMMAND];
}

uint8_t parse_REG_ADDR_NUM(const uint8_t* packet)
{
    return packet[PKT_RECORD_COUNT];
}

uint16_t parse_package_len(const uint8_t* packet)
{
    return get_le16(packet + PKT_PACKAGE_LEN);
}

int cal_write_data_length(const uint8_t* packet)
{
    return parse_package_len(packet) - BODY_ONE_RECORD;
}
