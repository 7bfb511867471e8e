// Register addressing: client address normalisation, the driver's form of a
// range, Modbus bit views and write splitting.
#pragma once

#include <cstdint>

#include "base/reg_addr.h"
#include "driver/plc_abi.h"

// The driver's form of a range: plc_id, reg_type, reg_id, start and
// byte_offset; addr_unit only when asked for (write paths).
DrvRegAddr drv_reg_addr(const REG_ADDR& r, bool with_addr_unit = false);

// Modbus register kinds with a bit view: a client addresses bits of the
// word kinds through the view kinds MODBUS_BIT_VIEW_SHIFT above them.
constexpr uint8_t MODBUS_INPUT_REGISTERS = 3;
constexpr uint8_t MODBUS_HOLDING_REGISTERS = 4;
constexpr uint8_t MODBUS_BIT_VIEW_SHIFT = 2;
constexpr uint8_t MODBUS_INPUT_REGISTER_BITS = MODBUS_INPUT_REGISTERS + MODBUS_BIT_VIEW_SHIFT;
constexpr uint8_t MODBUS_HOLDING_REGISTER_BITS = MODBUS_HOLDING_REGISTERS + MODBUS_BIT_VIEW_SHIFT;
constexpr int MODBUS_REGISTER_BITS = 16;

void reg_addr_change(REG_ADDR& rec);
void write_reg_addr_change(REG_ADDR& rec);
void change_REG_ADDR_temp_to_Modbus_Extend(REG_ADDR& rec, uint8_t reg_id);
int change_Modbus_Extend_to_REG_ADDR_temp(DrvRegAddr& addr, int count);
int RegAddr_IsModbusExtend(int port, const DrvRegAddr& addr);

int RegAddr_MaxWidth(const DrvRegAddr& addr, const PlcParam& param);
int RegAddr_Bytes(const DrvRegAddr& addr, int count);
void RegAddr_Add(DrvRegAddr& addr, int count);

