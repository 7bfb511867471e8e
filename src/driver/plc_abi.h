// The contract with the driver plug-ins: records passed by pointer and the
// extern "C" entry points looked up by name. Fields stand in the order and,
// on a 32-bit target, at the offsets the plug-ins expect.
#pragma once

#include <cstddef>
#include <cstdint>
#include <pthread.h>

#include "base/port_config.h"

extern "C" {

// The port's line description. Serial form: dev_path, line bytes 3, 2.
// 'U' form: no path; bytes 8..9 hold record bytes 2..3 as one u16.
struct PortDevice {
    char* dev_path;
    uint32_t line_value;
    uint8_t line_param_a;   // serial: record byte 3; 'U': record byte 2
    uint8_t line_param_b;   // serial: record byte 2; 'U': record byte 3
    uint8_t line_option;
    uint8_t working_mode;
};

struct PlcParam {
    uint32_t first_word;    // not set; a CAN port keeps the SPI descriptor here
    uint16_t working_mode;
    uint16_t plc_driver_no; // as configured (106 stays 106)
    uint32_t drv_param1;
    uint32_t drv_param2;
    uint32_t drv_param3;
    uint16_t max_words;
    uint16_t max_bits;
};

// PlcParam followed by a copy of the port record; ev_plc_init2 receives a
// pointer to the record copy.
struct PlcParamBlock {
    PlcParam param;
    com_port_info record;
};

struct DrvRegAddr {
    uint16_t plc_id;
    uint8_t reg_type;
    uint8_t reg_id;
    int32_t reg_addr_start;
    uint16_t byte_offset;
    uint16_t unused10;
    uint16_t addr_unit;     // set on write and read-modify-write paths only
    uint16_t unused14;
};

struct DrvDataRef {
    int32_t count;          // element count
    uint8_t* data;
};

struct OmronEntry {
    uint16_t plc_id;
    uint8_t reg_type;
    uint8_t reg_id;
    uint32_t address;
    uint16_t count;
    uint16_t byte_offset;
    uint32_t unused12;
    uint8_t value[4];       // filled by the driver: u8, u16 or u32 by reg_type, or a bit field
};

typedef int (*ev_plc_init_fn)(PortDevice*, PlcParam*);
typedef int (*ev_plc_init2_fn)(PortDevice*, PlcParam*, com_port_info*);
typedef int (*ev_plc_read_fn)(const DrvRegAddr*, DrvDataRef*, PlcParam*);
typedef int (*ev_plc_write_fn)(const DrvRegAddr*, DrvDataRef*, PlcParam*);
typedef int (*ev_plc_slave_main_fn)(int16_t, uint8_t* local_bit, uint8_t* local_short, int semid, PlcParam*);
typedef int (*ev_OMRON_plc_read_fn)(OmronEntry*, int, PlcParam*);
typedef int (*ev_OMRON_plc_register_fn)(OmronEntry*, int, PlcParam*);

// CAN ports pass the process-wide SPI mutex as an extra last argument.
typedef int (*ev_can_plc_init_fn)(PortDevice*, PlcParam*, pthread_mutex_t*);
typedef int (*ev_can_plc_read_fn)(const DrvRegAddr*, DrvDataRef*, PlcParam*, pthread_mutex_t*);
typedef int (*ev_can_plc_write_fn)(const DrvRegAddr*, DrvDataRef*, PlcParam*, pthread_mutex_t*);
typedef int (*ev_CANOPEN_plc_read_fn)(OmronEntry*, int, PlcParam*, pthread_mutex_t*);

} // extern "C"

// A bit entry carries its bits in the 4-byte value field.
constexpr int OMRON_ENTRY_BITS = 8 * sizeof(OmronEntry::value);

static_assert(sizeof(PlcParam) == 24);
static_assert(offsetof(PlcParam, working_mode) == 4);
static_assert(offsetof(PlcParam, plc_driver_no) == 6);
static_assert(offsetof(PlcParam, drv_param1) == 8);
static_assert(offsetof(PlcParam, max_words) == 20);
static_assert(offsetof(PlcParam, max_bits) == 22);
static_assert(sizeof(PlcParamBlock) == 56);
static_assert(offsetof(PlcParamBlock, record) == 24);
static_assert(sizeof(DrvRegAddr) == 16);
static_assert(offsetof(DrvRegAddr, reg_addr_start) == 4);
static_assert(offsetof(DrvRegAddr, byte_offset) == 8);
static_assert(offsetof(DrvRegAddr, addr_unit) == 12);
static_assert(sizeof(OmronEntry) == 20);
static_assert(offsetof(OmronEntry, address) == 4);
static_assert(offsetof(OmronEntry, count) == 8);
static_assert(offsetof(OmronEntry, byte_offset) == 10);
static_assert(offsetof(OmronEntry, value) == 16);
// Records holding a pointer match their 32-bit layout only where pointers are 4 bytes.
static_assert(sizeof(void*) != 4 || sizeof(PortDevice) == 12);
static_assert(sizeof(void*) != 4 || offsetof(PortDevice, line_value) == 4);
static_assert(sizeof(void*) != 4 || offsetof(PortDevice, line_param_a) == 8);
static_assert(sizeof(void*) != 4 || offsetof(PortDevice, working_mode) == 11);
static_assert(sizeof(void*) != 4 || sizeof(DrvDataRef) == 8);
static_assert(sizeof(void*) != 4 || offsetof(DrvDataRef, data) == 4);
