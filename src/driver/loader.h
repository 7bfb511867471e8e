// Loading a port's driver plug-in and building the records handed to it.
#pragma once

#include <string>

#include "driver/plc_abi.h"

constexpr int DEVICE_PATH_SIZE = 16;

// Library file of a port: "./drv_p%d.so" for mode 0, "./sim_drv_p%d.so" otherwise.
std::string driver_library_path(int mode, int deviceport);

// Nonzero when the SRAM flag at byte 550 selects the swapped serial lines.
int read_sram_change_uart();

// Copies the device path of a serial port into path (DEVICE_PATH_SIZE bytes).
// A deviceport outside the tables gets an empty path. COMSERVER_SERIAL_PATH_<N>
// replaces the path of line N when it fits the buffer.
void choose_device_path(int deviceport, bool swapped, char* path);

void build_port_device(const com_port_info& rec, char* path, PortDevice& dev);
void build_plc_param(const com_port_info& rec, PlcParamBlock& block);

// Everything a port thread learns from loading its plug-in. Library handles
// stay open for the life of the process.
struct PlcDriver {
    void* handle = nullptr;
    ev_plc_init_fn init = nullptr;
    ev_plc_init2_fn init2 = nullptr;
    ev_plc_read_fn read = nullptr;
    ev_plc_write_fn write = nullptr;
    ev_OMRON_plc_read_fn omron_read = nullptr;
    ev_OMRON_plc_register_fn omron_register = nullptr;
    int driver_no = 0; // the number the thread runs as (with_batch_read_runs_as)
};

// The loading sequence of a serial or 'U' port, with its messages: the slave
// start-up pass when asked for, the main pass, driver-number effects, and
// the init calls. The init calls are made only when the entry points exist.
PlcDriver load_driver(const com_port_info& rec, PortDevice& dev, PlcParamBlock& param);

// A port can be polled only when every entry point it will call exists.
bool driver_usable(const PlcDriver& drv);

// dlsym with the loader's error state cleared first; prints message (when not
// null) and returns null when the symbol is missing.
void* driver_lookup(void* handle, const char* name, const char* message);

// driver_lookup cast to the entry point's type.
template <typename Fn>
Fn lookup_as(void* handle, const char* name, const char* message)
{
    return reinterpret_cast<Fn>(driver_lookup(handle, name, message));
}

// Calls a slave entry point (when there is one) with the process's local
// areas and segment semaphore.
void run_slave_main(ev_plc_slave_main_fn slave, int16_t slave_arg, PlcParam* param);
void* driver_open(const std::string& path);
