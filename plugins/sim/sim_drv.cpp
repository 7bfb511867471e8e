// Simulated PLC driver plug-in. Every PLC station is a block of register
// memory; reads and writes go to it, and the control file named by
// COMSERVER_SIM_CONTROL (see sim_control.h) lets tests set memory and
// station behaviour and watch the calls. Without that variable a private
// live memory is used (sim_live.h).
//
// CAN callers pass the SPI mutex as one more trailing argument. The
// simulation has no SPI device, so the entry points keep the serial
// signatures and ignore it (ev_CANOPEN_plc_read names it but does not use it).
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "driver/plc_abi.h"
#include "sim_control.h"
#include "sim_live.h"

#define SIM_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

struct SimBackend {
    SimBackend()
    {
        const char* path = getenv("COMSERVER_SIM_CONTROL");
        if (path && *path) {
            controlled = true;
            control = sim_control_open(path);
            if (!control)
                printf("sim_drv: cannot use control file %s\n", path);
        }
    }

    bool controlled = false;    // a control file was named
    SimControlFile control;     // empty when none was named or it is unusable
    SimLiveMemory live;
};

// Created on the first call; each loaded copy of the plug-in has its own.
SimBackend& backend()
{
    static SimBackend b;
    return b;
}

void log_call(SimCall call)
{
    SimBackend& b = backend();
    if (b.control)
        sim_control_log(*b.control, call);
}

// The behaviour of a station; a named but unusable control file makes every
// station fail.
SimStation station_of(uint32_t bus, uint16_t station)
{
    SimBackend& b = backend();
    if (b.control)
        return sim_control_station(*b.control, bus, station);
    return SimStation{bus, station, 0, 0, b.controlled ? SIM_ERROR : SIM_OK, 0};
}

// Time one exchange takes on the simulated line when the station has no
// delay of its own: COMSERVER_SIM_LINE_US microseconds, default 500. A real
// line never answers at once, and a port thread polling an instant driver
// would only burn CPU.
uint32_t line_time_us()
{
    static const uint32_t us = [] {
        const char* v = std::getenv("COMSERVER_SIM_LINE_US");
        return v != nullptr ? static_cast<uint32_t>(std::strtoul(v, nullptr, 10)) : 500u;
    }();
    return us;
}

void pause_ms(uint32_t ms)
{
    if (ms)
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    else if (line_time_us() != 0)
        std::this_thread::sleep_for(std::chrono::microseconds(line_time_us()));
}

int32_t mem_read(uint32_t bus, uint16_t station, uint8_t reg_id, uint8_t reg_type, int32_t start,
                 int32_t count, uint8_t* buf)
{
    SimBackend& b = backend();
    if (b.control)
        return sim_mem_read(*b.control, bus, station, reg_id, reg_type, start, count, buf);
    return b.live.read(bus, station, reg_id, reg_type, start, count, buf);
}

int32_t mem_write(uint32_t bus, uint16_t station, uint8_t reg_id, uint8_t reg_type, int32_t start,
                  int32_t count, const uint8_t* buf)
{
    SimBackend& b = backend();
    if (b.control)
        return sim_mem_write(*b.control, bus, station, reg_id, reg_type, start, count, buf);
    return b.live.write(bus, station, reg_id, reg_type, start, count, buf);
}

int transfer(SimEntry entry, const DrvRegAddr* addr, DrvDataRef* data, const PlcParam* param)
{
    uint32_t bus = param->drv_param1;
    SimStation st = station_of(bus, addr->plc_id);
    pause_ms(st.delay_ms);
    int32_t result = st.result;
    if (result == SIM_OK) {
        result = entry == SIM_CALL_READ
            ? mem_read(bus, addr->plc_id, addr->reg_id, addr->reg_type, addr->reg_addr_start, data->count, data->data)
            : mem_write(bus, addr->plc_id, addr->reg_id, addr->reg_type, addr->reg_addr_start, data->count, data->data);
    }
    log_call(SimCall{0, entry, bus, addr->plc_id, addr->reg_type, addr->reg_id, addr->reg_addr_start,
                     data->count, result});
    return result;
}

// Fills the value field of one batch entry: the register at its address, or
// for a bit entry up to 32 bits from its address as a little-endian bit field.
int32_t fill_entry(uint32_t bus, OmronEntry& e)
{
    std::memset(e.value, 0, sizeof e.value);
    int32_t count = e.reg_type == 0 ? std::min<int32_t>(e.count, 32) : 1;
    return mem_read(bus, e.plc_id, e.reg_id, e.reg_type, static_cast<int32_t>(e.address), count, e.value);
}

// A batch call answers with the first failing station's result after the
// longest delay of the stations it names.
int batch(SimEntry entry, OmronEntry* entries, int n, const PlcParam* param)
{
    uint32_t bus = param->drv_param1;
    int32_t result = SIM_OK;
    uint32_t delay = 0;
    for (int i = 0; i < n; ++i) {
        SimStation st = station_of(bus, entries[i].plc_id);
        delay = std::max(delay, st.delay_ms);
        if (result == SIM_OK)
            result = st.result;
    }
    pause_ms(delay);
    if (result == SIM_OK && entry != SIM_CALL_OMRON_REGISTER) {
        for (int i = 0; i < n && result == SIM_OK; ++i)
            result = fill_entry(bus, entries[i]);
    }
    SimCall call{0, entry, bus, 0, 0, 0, 0, n, result};
    if (n > 0) {
        call.plc_id = entries[0].plc_id;
        call.reg_type = entries[0].reg_type;
        call.reg_id = entries[0].reg_id;
        call.start = static_cast<int32_t>(entries[0].address);
    }
    log_call(call);
    return result;
}

} // namespace

SIM_EXPORT int ev_plc_init(PortDevice*, PlcParam* param)
{
    log_call(SimCall{0, SIM_CALL_INIT, param->drv_param1, 0, 0, 0, param->plc_driver_no, param->working_mode, 0});
    return 0;
}

#ifndef SIM_NO_INIT2
SIM_EXPORT int ev_plc_init2(PortDevice*, PlcParam* param, com_port_info* record)
{
    log_call(SimCall{0, SIM_CALL_INIT2, param->drv_param1, record->deviceport, 0, 0, record->plc_driver_no,
                     record->working_mode, 0});
    return 0;
}
#endif

SIM_EXPORT int ev_plc_read(const DrvRegAddr* addr, DrvDataRef* data, PlcParam* param)
{
    return transfer(SIM_CALL_READ, addr, data, param);
}

SIM_EXPORT int ev_plc_write(const DrvRegAddr* addr, DrvDataRef* data, PlcParam* param)
{
    return transfer(SIM_CALL_WRITE, addr, data, param);
}

// A simulated slave has nothing to serve: it records the call and hands the
// port back to master operation.
SIM_EXPORT int ev_plc_slave_main(int16_t arg, uint8_t*, uint8_t*, int, PlcParam* param)
{
    log_call(SimCall{0, SIM_CALL_SLAVE, param->drv_param1, 0, 0, 0, arg, 0, 0});
    return 0;
}

SIM_EXPORT int ev_OMRON_plc_read(OmronEntry* entries, int n, PlcParam* param)
{
    return batch(SIM_CALL_OMRON_READ, entries, n, param);
}

SIM_EXPORT int ev_OMRON_plc_register(OmronEntry* entries, int n, PlcParam* param)
{
    return batch(SIM_CALL_OMRON_REGISTER, entries, n, param);
}

SIM_EXPORT int ev_CANOPEN_plc_read(OmronEntry* entries, int n, PlcParam* param, pthread_mutex_t*)
{
    return batch(SIM_CALL_CANOPEN_READ, entries, n, param);
}
