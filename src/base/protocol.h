// Client packet protocol: 10-byte header (8 bytes of head, u16 package_len),
// then [command][fields][8-bit sum]. Builders write into a caller's buffer
// and return the number of bytes to send.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t PACKET_BUF_SIZE = 4096;
constexpr size_t PACKET_HEADER_SIZE = 10;

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

// Fixed status packets [command][ok][err][sum]; the two acknowledgements are 3 bytes.
extern const uint8_t register_ok[3];
extern const uint8_t unregister_ok[3];
extern const uint8_t com_read_err_01[4];
extern const uint8_t com_read_err_02[4];
extern const uint8_t com_read_err_03[4];
extern const uint8_t realtime_read_err_01[4];
extern const uint8_t write_success[4];
extern const uint8_t write_err_01[4];
extern const uint8_t realtime_readcheck_err_01[4];
extern const uint8_t realtime_readcheck_err_02[4];
extern const uint8_t realtime_readcheck_err_03[4];
extern const uint8_t writecheck_success[4];
extern const uint8_t writecheck_err_01[4];
extern const uint8_t writecheck_err_02[4];
extern const uint8_t writecheck_err_03[4];
extern const uint8_t com_realtime_read_err_01[4];
extern const uint8_t realtime_rw_err_01[4];
extern const uint8_t realtime_rw_check_err_01[4];
extern const uint8_t realtime_rw_check_err_02[4];
extern const uint8_t realtime_rw_check_err_03[4];

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
