// Shared configuration records that the parent process writes into the
// System V segment: the header at the start and one 32-byte record per port.
#pragma once

#include <cstddef>
#include <cstdint>

// Port configuration record, copied verbatim out of the segment.
struct com_port_info {
    uint8_t deviceport;     // physical line: device-path index and %d of the driver library
    uint8_t working_mode;   // 160 unused, 16 CAN, 85 ('U') no serial path, else serial
    uint8_t line_param_lo;
    uint8_t line_param_hi;
    uint32_t line_value;
    uint8_t line_option;
    uint8_t slave_flag;     // non-zero: run the driver's slave entry point first
    uint16_t plc_driver_no; // 65535 = no driver
    uint32_t drv_param1;
    uint32_t drv_param2;
    uint32_t drv_param3;
    int16_t slave_arg;
    uint16_t max_words;     // largest word poll block, in 16-bit words
    uint16_t max_bits;      // largest bit poll block, in bits
    uint8_t word_gap;
    uint8_t bit_gap;
};
static_assert(sizeof(com_port_info) == 32);
static_assert(offsetof(com_port_info, line_value) == 4);
static_assert(offsetof(com_port_info, line_option) == 8);
static_assert(offsetof(com_port_info, plc_driver_no) == 10);
static_assert(offsetof(com_port_info, drv_param1) == 12);
static_assert(offsetof(com_port_info, slave_arg) == 24);
static_assert(offsetof(com_port_info, max_words) == 26);
static_assert(offsetof(com_port_info, max_bits) == 28);
static_assert(offsetof(com_port_info, word_gap) == 30);
static_assert(offsetof(com_port_info, bit_gap) == 31);

constexpr uint8_t WORKING_MODE_UNUSED = 160;
constexpr uint8_t WORKING_MODE_CAN = 16;
constexpr uint8_t WORKING_MODE_U = 'U';
constexpr uint16_t PLC_DRIVER_NONE = 65535;

// Shared configuration header at offset 0 of the segment. Bytes named
// reserved belong to the parent process and are never read here.
struct shm_head {
    uint8_t reserved0[12];
    uint32_t local_short_offset; // 0x0C
    uint8_t reserved1[4];
    uint32_t local_bit_offset;   // 0x14
    uint8_t reserved2[12];
    uint16_t PORT;               // 0x24
    uint8_t port_num;            // 0x26
    uint8_t reserved3[5];
    uint32_t server_pid;         // 0x2C
};
static_assert(sizeof(shm_head) == 0x30);
static_assert(offsetof(shm_head, local_short_offset) == 0x0C);
static_assert(offsetof(shm_head, local_bit_offset) == 0x14);
static_assert(offsetof(shm_head, PORT) == 0x24);
static_assert(offsetof(shm_head, port_num) == 0x26);
static_assert(offsetof(shm_head, server_pid) == 0x2C);

constexpr size_t SHM_PORT_RECORDS = 0x30; // record i at 0x30 + 32 * i
