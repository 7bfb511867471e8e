// Client and driver forms of register addresses and write splitting. Pure
// functions of their arguments: no state, no locks.
#include "store/addressing.h"

#include <cstdio>

#include "base/byte_order.h"
#include "base/globals.h"
#include "driver/driver_traits.h"

namespace {

// Shared part of the read and write normalisation. grow_width: a byte address
// that falls inside a 4-byte cell makes the range span one more cell.
void normalise_addr(REG_ADDR& rec, bool grow_width)
{
    const int u = rec.addr_unit;
    const int w = rec.reg_type;
    if (u != 1 && u != 2 && u != 4) {
        return;
    }
    if (u == 1 && w == 4) {
        const int32_t offset = rec.reg_addr_start % 4;
        rec.byte_offset = static_cast<uint16_t>(offset);
        if (grow_width && offset != 0) {
            rec.reg_data_width = static_cast<int16_t>(rec.reg_data_width + 1);
        }
    }
    if (w == 0) {
        puts("reg_addr_change org_reg_addr->reg_type should not be zero!");
        return;
    }
    rec.reg_addr_start = wrap_mul(rec.reg_addr_start, u) / w;
}

} // namespace

void reg_addr_change(REG_ADDR& rec)
{
    normalise_addr(rec, true);
}

void write_reg_addr_change(REG_ADDR& rec)
{
    // A write covers exactly the elements the client sent.
    normalise_addr(rec, false);
}

void change_REG_ADDR_temp_to_Modbus_Extend(REG_ADDR& rec, uint8_t /*reg_id*/)
{
    const int32_t s = rec.reg_addr_start;
    const int32_t bits = wrap_add(s % MODBUS_REGISTER_BITS, rec.reg_data_width);
    rec.reg_id = static_cast<uint8_t>(rec.reg_id - MODBUS_BIT_VIEW_SHIFT);
    rec.reg_type = 2;
    rec.reg_data_width =
        static_cast<int16_t>(bits / MODBUS_REGISTER_BITS + (bits % MODBUS_REGISTER_BITS != 0 ? 1 : 0));
    rec.reg_addr_start = s / MODBUS_REGISTER_BITS;
}

int change_Modbus_Extend_to_REG_ADDR_temp(DrvRegAddr& addr, int count)
{
    addr.reg_id = static_cast<uint8_t>(addr.reg_id + MODBUS_BIT_VIEW_SHIFT);
    addr.reg_type = 0;
    addr.reg_addr_start = wrap_mul(addr.reg_addr_start, MODBUS_REGISTER_BITS);
    return wrap_mul(count, MODBUS_REGISTER_BITS);
}

int RegAddr_IsModbusExtend(int port, const DrvRegAddr& addr)
{
    const com_port_info* info = com_port(port);
    if (info == nullptr || !driver_traits(info->plc_driver_no).modbus) {
        return 0;
    }
    return (addr.reg_id == MODBUS_INPUT_REGISTERS || addr.reg_id == MODBUS_HOLDING_REGISTERS) ? 1 : 0;
}

int RegAddr_MaxWidth(const DrvRegAddr& addr, const PlcParam& param)
{
    if (addr.reg_type == 0) {
        return param.max_bits;
    }
    const int bytes = driver_write_piece_bytes(param.plc_driver_no, param.max_words);
    return bytes / addr.reg_type;
}

int RegAddr_Bytes(const DrvRegAddr& addr, int count)
{
    switch (addr.reg_type) {
    case 0:
        return static_cast<int>((static_cast<uint32_t>(count) + 7u) / 8u);
    case 1:
    case 2:
    case 4:
        return wrap_mul(count, addr.reg_type);
    default:
        return 0;
    }
}

void RegAddr_Add(DrvRegAddr& addr, int count)
{
    // A driver address counts elements (registers, or bits of a bit range)
    // whatever its address unit: client addresses are normalised to elements
    // before any driver sees them, and the unit only travels along to tell
    // the driver how its PLC counts. So the next piece starts count on.
    addr.reg_addr_start = wrap_add(addr.reg_addr_start, count);
}

DrvRegAddr drv_reg_addr(const REG_ADDR& r, bool with_addr_unit)
{
    DrvRegAddr a{};
    a.plc_id = r.plc_id;
    a.reg_type = r.reg_type;
    a.reg_id = r.reg_id;
    a.reg_addr_start = r.reg_addr_start;
    a.byte_offset = r.byte_offset;
    if (with_addr_unit) {
        a.addr_unit = r.addr_unit;
    }
    return a;
}
