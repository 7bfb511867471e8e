// Register addressing and byte order shared by every layer: buffer sizes,
// client address normalisation, Modbus bit views, write splitting, the
// Siemens word swap, small converters and the local bit primitives.
#pragma once

#include <cstdint>

#include "driver/plc_abi.h"
#include "tables/tables.h"

// The driver's form of a range: plc_id, reg_type, reg_id, start and
// byte_offset; addr_unit only when asked for (write paths).
DrvRegAddr drv_reg_addr(const REG_ADDR& r, bool with_addr_unit = false);

// Data bytes of a range (signed 16-bit, as the record's width is).
int16_t cal_commbuf_size(const REG_ADDR& rec);
int16_t cal_commbuf_size(uint8_t reg_type, int16_t reg_data_width);

void reg_addr_change(REG_ADDR& rec);
void write_reg_addr_change(REG_ADDR& rec);
void change_REG_ADDR_temp_to_Modbus_Extend(REG_ADDR& rec, uint8_t reg_id);
int change_Modbus_Extend_to_REG_ADDR_temp(DrvRegAddr& addr, int count);
int RegAddr_IsModbusExtend(int port, const DrvRegAddr& addr);

int RegAddr_MaxWidth(const DrvRegAddr& addr, const PlcParam& param);
int RegAddr_Bytes(const DrvRegAddr& addr, int count);
void RegAddr_Add(DrvRegAddr& addr, int count);

void simens_change(uint8_t* buf, int n);

void CvtBits2Bytes(const uint8_t* bits, int first, int count, uint8_t* out);

// Local bit n is bit n % 32 of little-endian word n / 32 of local_bit.
// These do not take the segment semaphore. A bit outside the local bit area
// (local_areas.h; none before local_areas_init) reads as 0 and is not written.
uint32_t get_bit(int n);
void set_bit(int n);
void clear_bit(int n);

// Driver families with special byte order handling.
bool is_siemens_driver(int plc_driver_no);   // 1, 21, 169, 450, 452, 454, 456, 480, 510, 522, 550
bool is_s2_driver(int plc_driver_no);        // 38, 39, 57
