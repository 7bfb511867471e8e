// Client packet protocol: 10-byte header (8 bytes of head, u16 package_len),
// then [command][fields][8-bit sum]. Builders write into a caller's buffer
// and return the number of bytes to send.
#pragma once

#include <cstddef>
#include <cstdint>

// Header: PKT_HEAD_BYTES leading bytes (replies copy them from `head`,
// requests' are ignored), then package_len.
constexpr size_t PKT_HEAD_BYTES = 8;
constexpr size_t PKT_PACKAGE_LEN = PKT_HEAD_BYTES;             // u16 little-endian: body bytes after the header
constexpr size_t PACKET_HEADER_SIZE = PKT_PACKAGE_LEN + 2;
// One packet, and every buffer a request's data pass through on the way
// to or from a driver.
constexpr size_t PACKET_BUF_SIZE = 4096;

// Field offsets of a request, counted from the packet's first byte.
constexpr size_t PKT_COMMAND = PACKET_HEADER_SIZE;     // first body byte
constexpr size_t RECORD_SIZE = 16;                     // one register address record
constexpr size_t PKT_RECORD_COUNT = PKT_COMMAND + 1;   // count-prefixed requests (1, 2, 19)
constexpr size_t PKT_RECORDS = PKT_RECORD_COUNT + 1;   // their records: record i at PKT_RECORDS + RECORD_SIZE * i
constexpr size_t PKT_RECORD = PKT_COMMAND + 1;         // the one record of commands 3..10
constexpr size_t PKT_DATA = PKT_RECORD + RECORD_SIZE;  // after it: write data (5), operation block (9, 10)

// The read-modify-write block of commands 9 and 10: six 32-bit fields. A
// short request leaves out the last one, the value type.
constexpr size_t RW_BLOCK_SIZE = 24;
constexpr size_t RW_BLOCK_SHORT = RW_BLOCK_SIZE - 4;

// Body bytes of the fixed fields, command and sum included.
constexpr int BODY_MIN = 2;                           // command and sum alone
constexpr int BODY_COUNTED_FIXED = 3;                 // command, count, sum
constexpr int BODY_ONE_RECORD = 1 + RECORD_SIZE + 1;  // command, record, sum
constexpr int BODY_RW = BODY_ONE_RECORD + RW_BLOCK_SIZE;
constexpr int BODY_RW_SHORT = BODY_ONE_RECORD + RW_BLOCK_SHORT;

// Field offsets of a reply, counted from the packet's first byte.
constexpr size_t ACK_COMMAND = PACKET_HEADER_SIZE;
constexpr size_t ACK_OK = ACK_COMMAND + 1;          // the ok byte
constexpr size_t ACK_RESULT = ACK_OK + 1;           // result reply: the result byte
constexpr size_t ACK_DATA_SIZE = ACK_OK + 1;        // data reply: u16 size
constexpr size_t ACK_DATA = ACK_DATA_SIZE + 2;      // data reply: the data

// Body bytes of the replies, command and sum included.
constexpr int BODY_STATUS = 4;                                   // [command][ok][err][sum]; the result reply too
constexpr int BODY_DATA_FIXED = static_cast<int>(ACK_DATA - ACK_COMMAND) + 1;  // a data reply but its data

// Largest data size whose data reply still fits the reply buffer.
constexpr size_t MAX_READ_ACK_DATA = PACKET_BUF_SIZE - PACKET_HEADER_SIZE - BODY_DATA_FIXED;

// Multi-area reply (command 19): body [19][n][n x u16 entry offset][entries][sum].
// An entry offset counts from the body's first byte; 0 means no entry.
constexpr size_t SUB_COUNT = 1;           // body offset of n
constexpr size_t SUB_OFFSETS = 2;         // body offset of the offset table
constexpr size_t SUB_OFFSET_SIZE = 2;     // one u16 entry offset
// An entry is [ok 1][u16 size][data] or [ok 0][err].
constexpr size_t SUB_ENTRY_OK = 0;
constexpr size_t SUB_ENTRY_ERR = 1;
constexpr size_t SUB_ENTRY_SIZE = 1;
constexpr size_t SUB_ENTRY_DATA = 3;
constexpr size_t SUB_ENTRY_ERROR_LEN = 2;

extern const uint8_t head[PACKET_HEADER_SIZE];

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

// The ok byte of a reply or multi-area entry: REPLY_ANSWERED when it carries
// the answer (data, result or success), REPLY_ERR_FOLLOWS when an err byte
// follows instead.
enum : uint8_t {
    REPLY_ERR_FOLLOWS = 0,
    REPLY_ANSWERED = 1,
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

using StatusPacket = FixedPacket<BODY_STATUS>;

// [command][ok][err][sum]: the sum byte is computed, never typed.
constexpr StatusPacket status_packet(uint8_t command, uint8_t ok, uint8_t err)
{
    return {{command, ok, err, static_cast<uint8_t>(command + ok + err)}};
}
constexpr StatusPacket status_error(uint8_t command, uint8_t err)
{
    return status_packet(command, REPLY_ERR_FOLLOWS, err);
}
constexpr StatusPacket status_success(uint8_t command) { return status_packet(command, REPLY_ANSWERED, REPLY_NO_ERROR); }

// [command][1][sum]: the acknowledgement of a registration or unregistration.
constexpr FixedPacket<3> ack_packet(uint8_t command)
{
    return {{command, REPLY_ANSWERED, static_cast<uint8_t>(command + REPLY_ANSWERED)}};
}

inline constexpr FixedPacket<3> register_ok = ack_packet(CMD_REGISTER);
inline constexpr FixedPacket<3> unregister_ok = ack_packet(CMD_UNREGISTER);
inline constexpr StatusPacket com_read_err_01 = status_error(CMD_COM_READ, REPLY_NOT_YET);
inline constexpr StatusPacket com_read_err_02 = status_error(CMD_COM_READ, REPLY_NO_ANSWER);
inline constexpr StatusPacket com_read_err_03 = status_error(CMD_COM_READ, REPLY_FAILED);
inline constexpr StatusPacket realtime_read_err_01 = status_error(CMD_REALTIME_READ, REPLY_NOT_YET);
inline constexpr StatusPacket write_success = status_success(CMD_WRITE);
inline constexpr StatusPacket write_err_01 = status_error(CMD_WRITE, REPLY_NOT_YET);
inline constexpr StatusPacket realtime_readcheck_err_01 = status_error(CMD_REALTIME_READCHECK, REPLY_NOT_YET);
inline constexpr StatusPacket realtime_readcheck_err_02 = status_error(CMD_REALTIME_READCHECK, REPLY_NO_ANSWER);
inline constexpr StatusPacket realtime_readcheck_err_03 = status_error(CMD_REALTIME_READCHECK, REPLY_FAILED);
inline constexpr StatusPacket writecheck_success = status_success(CMD_WRITECHECK);
inline constexpr StatusPacket writecheck_err_01 = status_error(CMD_WRITECHECK, REPLY_NOT_YET);
inline constexpr StatusPacket writecheck_err_02 = status_error(CMD_WRITECHECK, REPLY_NO_ANSWER);
inline constexpr StatusPacket writecheck_err_03 = status_error(CMD_WRITECHECK, REPLY_FAILED);
inline constexpr StatusPacket com_realtime_read_err_01 = status_error(CMD_COM_REALTIME_READ, REPLY_NOT_YET);
inline constexpr StatusPacket realtime_rw_err_01 = status_error(CMD_REALTIME_RW, REPLY_NOT_YET);
inline constexpr StatusPacket realtime_rw_check_err_01 = status_error(CMD_REALTIME_RW_CHECK, REPLY_NOT_YET);
inline constexpr StatusPacket realtime_rw_check_err_02 = status_error(CMD_REALTIME_RW_CHECK, REPLY_NO_ANSWER);
inline constexpr StatusPacket realtime_rw_check_err_03 = status_error(CMD_REALTIME_RW_CHECK, REPLY_FAILED);

uint8_t check_sum(const uint8_t* buf, int n);

// Each returns the length of the whole packet written to out.
size_t produce_ack_pack(uint8_t* out, const uint8_t* head, const uint8_t* packet, int len);
size_t produce_read_ack_pack(uint8_t* out, const uint8_t* head, uint16_t size, uint8_t command, const uint8_t* data);
size_t produce_read_ack_pack_simens(uint8_t* out, const uint8_t* head, uint16_t size, uint8_t command, const uint8_t* data);
size_t produce_rw_ack_pack(uint8_t* out, const uint8_t* head, uint8_t result, uint8_t command);
// [command][0][3][sum]: a request the server refuses.
size_t produce_refusal_pack(uint8_t* out, uint8_t command);

// Entries of the multi-area reply; each returns the entry length written.
size_t produce_sub_read_error_entry(uint8_t* entry, uint8_t err);
size_t produce_sub_read_ack_pack(uint8_t* entry, uint16_t size, const uint8_t* data);
size_t produce_sub_read_ack_pack_simens(uint8_t* entry, uint16_t size, const uint8_t* data);
size_t produce_sub_read_ack_pack_Modbus_Extend(uint8_t* entry, uint16_t count, const uint8_t* words, int bit_offset);

// Accessors on a received packet.
uint8_t parse_command(const uint8_t* packet);
uint8_t parse_REG_ADDR_NUM(const uint8_t* packet);
uint16_t parse_package_len(const uint8_t* packet);
int cal_write_data_length(const uint8_t* packet);
