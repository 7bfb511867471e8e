// Client packet protocol: 10-byte header (8 bytes of head, u16 package_len),
// then [command][fields][8-bit sum]. Builders write into a caller's buffer
// and return the number of bytes to send.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t PACKET_HEADER_SIZE = 10;
// One packet, and every buffer a request's data pass through on the way
// to or from a driver.
constexpr size_t PACKET_BUF_SIZE = 4096;
// Largest data size whose data reply [command][1][u16 size][data][sum]
// still fits the reply buffer.
constexpr size_t MAX_READ_ACK_DATA = PACKET_BUF_SIZE - PACKET_HEADER_SIZE - 5;

// Field offsets of a request, counted from the packet's first byte.
constexpr size_t PKT_PACKAGE_LEN = 8;                  // u16 little-endian: body bytes after the header
constexpr size_t PKT_COMMAND = PACKET_HEADER_SIZE;     // first body byte
constexpr size_t RECORD_SIZE = 16;                     // one register address record
constexpr size_t PKT_RECORD_COUNT = PKT_COMMAND + 1;   // count-prefixed requests (1, 2, 19)
constexpr size_t PKT_RECORDS = PKT_RECORD_COUNT + 1;   // their records: record i at PKT_RECORDS + RECORD_SIZE * i
constexpr size_t PKT_RECORD = PKT_COMMAND + 1;         // the one record of commands 3..10
constexpr size_t PKT_DATA = PKT_RECORD + RECORD_SIZE;  // after it: write data (5), operation block (9, 10)

// Body bytes of the fixed fields, command and sum included.
constexpr int BODY_COUNTED_FIXED = 3;                 // command, count, sum
constexpr int BODY_ONE_RECORD = 1 + RECORD_SIZE + 1;  // command, record, sum

extern const uint8_t head[10];

// Command codes.
enum : uint8_t {
    CMD_REGISTER = 1,
    CMD_UNREGISTER = 2,
    CMD_COM_READ = 3,
    CMD_REALTIME_READ = 4,
    CMD_WRITE = 5,
    CMD_REALTIME_READCHECK = 6,
    CMD_WRITECHECK = 7,
    CMD_COM_REALTIME_READ = 8,
    CMD_REALTIME_RW = 9,
    CMD_REALTIME_RW_CHECK = 10,
    CMD_SUB_READ = 19,
};

// Reply status in the err byte of a status packet.
enum : uint8_t {
    REPLY_NO_ERROR = 0,
    REPLY_NOT_YET = 1,    // no value or answer yet: the request is queued or registered
    REPLY_NO_ANSWER = 2,  // the PLC did not answer
    REPLY_FAILED = 3,     // the PLC answered with an error, or the request is refused
};

// A fixed packet body that passes wherever its bytes are wanted.
template <size_t N>
struct FixedPacket {
    uint8_t bytes[N];
    constexpr operator const uint8_t*() const { return bytes; }
};

// [command][ok][err][sum]: the sum byte is computed, never typed.
constexpr FixedPacket<4> status_packet(uint8_t command, uint8_t ok, uint8_t err)
{
    return {{command, ok, err, static_cast<uint8_t>(command + ok + err)}};
}
constexpr FixedPacket<4> status_error(uint8_t command, uint8_t err) { return status_packet(command, 0, err); }
constexpr FixedPacket<4> status_success(uint8_t command) { return status_packet(command, 1, REPLY_NO_ERROR); }

// [command][1][sum]: the acknowledgement of a registration or unregistration.
constexpr FixedPacket<3> ack_packet(uint8_t command)
{
    return {{command, 1, static_cast<uint8_t>(command + 1)}};
}

inline constexpr FixedPacket<3> register_ok = ack_packet(CMD_REGISTER);
inline constexpr FixedPacket<3> unregister_ok = ack_packet(CMD_UNREGISTER);
inline constexpr FixedPacket<4> com_read_err_01 = status_error(CMD_COM_READ, REPLY_NOT_YET);
inline constexpr FixedPacket<4> com_read_err_02 = status_error(CMD_COM_READ, REPLY_NO_ANSWER);
inline constexpr FixedPacket<4> com_read_err_03 = status_error(CMD_COM_READ, REPLY_FAILED);
inline constexpr FixedPacket<4> realtime_read_err_01 = status_error(CMD_REALTIME_READ, REPLY_NOT_YET);
inline constexpr FixedPacket<4> write_success = status_success(CMD_WRITE);
inline constexpr FixedPacket<4> write_err_01 = status_error(CMD_WRITE, REPLY_NOT_YET);
inline constexpr FixedPacket<4> realtime_readcheck_err_01 = status_error(CMD_REALTIME_READCHECK, REPLY_NOT_YET);
inline constexpr FixedPacket<4> realtime_readcheck_err_02 = status_error(CMD_REALTIME_READCHECK, REPLY_NO_ANSWER);
inline constexpr FixedPacket<4> realtime_readcheck_err_03 = status_error(CMD_REALTIME_READCHECK, REPLY_FAILED);
inline constexpr FixedPacket<4> writecheck_success = status_success(CMD_WRITECHECK);
inline constexpr FixedPacket<4> writecheck_err_01 = status_error(CMD_WRITECHECK, REPLY_NOT_YET);
inline constexpr FixedPacket<4> writecheck_err_02 = status_error(CMD_WRITECHECK, REPLY_NO_ANSWER);
inline constexpr FixedPacket<4> writecheck_err_03 = status_error(CMD_WRITECHECK, REPLY_FAILED);
inline constexpr FixedPacket<4> com_realtime_read_err_01 = status_error(CMD_COM_REALTIME_READ, REPLY_NOT_YET);
inline constexpr FixedPacket<4> realtime_rw_err_01 = status_error(CMD_REALTIME_RW, REPLY_NOT_YET);
inline constexpr FixedPacket<4> realtime_rw_check_err_01 = status_error(CMD_REALTIME_RW_CHECK, REPLY_NOT_YET);
inline constexpr FixedPacket<4> realtime_rw_check_err_02 = status_error(CMD_REALTIME_RW_CHECK, REPLY_NO_ANSWER);
inline constexpr FixedPacket<4> realtime_rw_check_err_03 = status_error(CMD_REALTIME_RW_CHECK, REPLY_FAILED);

uint8_t check_sum(const uint8_t* buf, int n);

// Each returns the length of the whole packet written to out.
size_t produce_ack_pack(uint8_t* out, const uint8_t* head, const uint8_t* packet, int len);
size_t produce_read_ack_pack(uint8_t* out, const uint8_t* head, uint16_t size, uint8_t command, const uint8_t* data);
size_t produce_read_ack_pack_simens(uint8_t* out, const uint8_t* head, uint16_t size, uint8_t command, const uint8_t* data);
size_t produce_rw_ack_pack(uint8_t* out, const uint8_t* head, uint8_t result, uint8_t command);
// [command][0][3][sum]: a request the server refuses.
size_t produce_refusal_pack(uint8_t* out, uint8_t command);

// Entries of the multi-area reply; each returns the entry length written.
size_t produce_sub_read_ack_pack(uint8_t* entry, uint16_t size, const uint8_t* data);
size_t produce_sub_read_ack_pack_simens(uint8_t* entry, uint16_t size, const uint8_t* data);
size_t produce_sub_read_ack_pack_Modbus_Extend(uint8_t* entry, uint16_t count, const uint8_t* words, int bit_offset);

// Accessors on a received packet.
uint8_t parse_command(const uint8_t* packet);
uint8_t parse_REG_ADDR_NUM(const uint8_t* packet);
uint16_t parse_package_len(const uint8_t* packet);
int cal_write_data_length(const uint8_t* packet);
