// Loading of driver plug-ins by dlopen and filling of the records handed to
// them. Records are filled field by field from the port record; a field the
// driver does not expect stays zero.
#include "driver/loader.h"

#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include "base/globals.h"
#include "base/paths.h"
#include "base/shm_sem.h"
#include "driver/driver_traits.h"

namespace {

const char* const ttyp[] = {
    "/dev/ttyS1", "/dev/ttyS2", "/dev/ttyS0", "/dev/ttyS3",
    "/dev/ttyXR1", "/dev/ttyXR2", "/dev/ttyXR3",
};
const char* const ttyp_change[] = {
    "/dev/ttyS2", "/dev/ttyS1", "/dev/ttyS0", "/dev/ttyS4",
};

} // namespace

void run_slave_main(ev_plc_slave_main_fn slave, int16_t slave_arg, PlcParam* param)
{
    if (slave != nullptr) {
        slave(slave_arg, local_bit, local_short, semid, param);
    }
}

std::string driver_library_path(int mode, int deviceport)
{
    char path[64];
    std::snprintf(path, sizeof path, mode == 0 ? "./drv_p%d.so" : "./sim_drv_p%d.so", deviceport);
    return path;
}

int read_sram_change_uart()
{
    ShmSemGuard sem(semid);
    int fd = ::open(sram_path().c_str(), O_RDWR);
    if (fd < 0) {
        std::puts("SRAM open error\r");
        return 0;
    }
    uint8_t v[2] = {0, 0};
    ssize_t n = ::pread(fd, v, 2, 550);
    ::close(fd);
    return (n == 2 && v[0] == 1 && v[1] == 0) ? 1 : 0;
}

void choose_device_path(int deviceport, bool swapped, char* path)
{
    std::memset(path, 0, DEVICE_PATH_SIZE);
    const char* p = nullptr;
    if (swapped && deviceport >= 0 && deviceport < 4) {
        p = ttyp_change[deviceport];
    } else if (deviceport >= 0 && deviceport < 7) {
        // Lines 4..6 have no swapped counterpart and keep their normal path.
        p = ttyp[deviceport];
    }
    // An override names the line's device outright, whatever the swap flag says.
    const std::string over = serial_path_override(deviceport);
    if (over.size() >= DEVICE_PATH_SIZE) {
        std::printf("COMSERVER_SERIAL_PATH_%d is longer than %d characters: ignored\r\n", deviceport,
                    DEVICE_PATH_SIZE - 1);
    } else if (!over.empty()) {
        p = over.c_str();
    }
    if (p != nullptr) {
        std::strncpy(path, p, DEVICE_PATH_SIZE - 1);
    }
}

void build_port_device(const com_port_info& rec, char* path, PortDevice& dev)
{
    dev = PortDevice{};
    dev.line_value = rec.line_value;
    dev.line_option = rec.line_option;
    if (rec.working_mode == WORKING_MODE_U) {
        dev.line_param_a = rec.line_param_lo;
        dev.line_param_b = rec.line_param_hi;
        dev.working_mode = WORKING_MODE_U;
    } else {
        dev.dev_path = path;
        dev.line_param_a = rec.line_param_hi;
        dev.line_param_b = rec.line_param_lo;
        dev.working_mode = rec.working_mode;
    }
}

void build_plc_param(const com_port_info& rec, PlcParamBlock& block)
{
    block = PlcParamBlock{};
    block.param.working_mode = rec.working_mode;
    block.param.plc_driver_no = rec.plc_driver_no;
    block.param.drv_param1 = rec.drv_param1;
    block.param.drv_param2 = rec.drv_param2;
    block.param.drv_param3 = rec.drv_param3;
    block.param.max_words = rec.max_words;
    block.param.max_bits = rec.max_bits;
    block.record = rec;
}

void* driver_open(const std::string& path)
{
    void* h = ::dlopen(path.c_str(), RTLD_NOW);
    if (h == nullptr) {
        std::puts("so not find");
    }
    return h;
}

void* driver_lookup(void* handle, const char* name, const char* message)
{
    void* sym = nullptr;
    if (handle != nullptr) {
        ::dlerror();
        sym = ::dlsym(handle, name);
        if (::dlerror() != nullptr) {
            sym = nullptr;
        }
    }
    if (sym == nullptr && message != nullptr) {
        std::puts(message);
    }
    return sym;
}

PlcDriver load_driver(const com_port_info& rec, PortDevice& dev, PlcParamBlock& param)
{
    const std::string path = driver_library_path(mode, rec.deviceport);

    if (driver_traits(rec.plc_driver_no).slave_pass || rec.slave_flag != 0) {
        void* h = driver_open(path);
        auto init = lookup_as<ev_plc_init_fn>(h, "ev_plc_init", "didn't find ev_plc_init");
        auto slave = lookup_as<ev_plc_slave_main_fn>(h, "ev_plc_slave_main", "didn't find ev_plc_slave_main");
        if (init != nullptr) {
            init(&dev, &param.param);
        }
        run_slave_main(slave, rec.slave_arg, &param.param);
    }

    PlcDriver drv;
    drv.handle = driver_open(path);
    drv.init = lookup_as<ev_plc_init_fn>(drv.handle, "ev_plc_init", "didn't find ev_plc_init");
    drv.read = lookup_as<ev_plc_read_fn>(drv.handle, "ev_plc_read", "didn't find ev_plc_read");
    drv.write = lookup_as<ev_plc_write_fn>(drv.handle, "ev_plc_write", "didn't find ev_plc_write");
    drv.init2 = lookup_as<ev_plc_init2_fn>(drv.handle, "ev_plc_init2", "didn't find ev_plc_init2");

    drv.driver_no = rec.plc_driver_no;
    const int runs_as = driver_traits(rec.plc_driver_no).with_batch_read_runs_as;
    if (runs_as != 0 && driver_lookup(drv.handle, "ev_OMRON_plc_read", nullptr) != nullptr) {
        drv.driver_no = runs_as;
    }
    std::printf("plc_driver_no=%d\r\n", static_cast<int16_t>(drv.driver_no));

    if (driver_uses_batch_entries(drv.driver_no)) {
        drv.omron_read = lookup_as<ev_OMRON_plc_read_fn>(drv.handle, "ev_OMRON_plc_read", "didn't find ev_OMRON_plc_read");
        drv.omron_register = lookup_as<ev_OMRON_plc_register_fn>(drv.handle, "ev_OMRON_plc_register",
                                                                 "didn't find ev_OMRON_plc_register");
    }

    if (driver_traits(drv.driver_no).slave_main_on_load) {
        char message[80];
        std::snprintf(message, sizeof message, "didn't find ev_plc_slave_main for plc_driver_no=%d\r\n", drv.driver_no);
        if (driver_lookup(drv.handle, "ev_plc_slave_main", nullptr) == nullptr) {
            std::fputs(message, stdout);
        } else {
            run_slave_main(lookup_as<ev_plc_slave_main_fn>(drv.handle, "ev_plc_slave_main", nullptr), rec.slave_arg,
                           &param.param);
        }
    }

    if (drv.init != nullptr) {
        drv.init(&dev, &param.param);
    }
    if (drv.init2 != nullptr) {
        drv.init2(&dev, &param.param, &param.record);
    }
    return drv;
}

bool driver_usable(const PlcDriver& drv)
{
    if (drv.init == nullptr || drv.read == nullptr || drv.write == nullptr) {
        return false;
    }
    if (driver_uses_batch_entries(drv.driver_no)) {
        return drv.omron_read != nullptr && drv.omron_register != nullptr;
    }
    return true;
}
