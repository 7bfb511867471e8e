// Start-up and main loop of a CAN port thread. All CAN ports share one SPI
// mutex, handed to their driver with every call that touches the bridge.
#include "can/can_thread.h"

#include <cstdio>
#include <memory>

#include "base/globals.h"
#include "can/can_port.h"

pthread_mutex_t spi_mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

// A slave port first runs the driver's slave entry point from its own
// instance of the library.
void start_slave(CanPort& t, const com_port_info& rec, const std::string& lib)
{
    void* h = driver_open(lib);
    auto init = lookup_as<ev_can_plc_init_fn>(h, "ev_plc_init", "didn't find ev_plc_init");
    auto slave = lookup_as<ev_plc_slave_main_fn>(h, "ev_plc_slave_main", "didn't find ev_plc_slave_main");
    if (init != nullptr) {
        init(&t.dev, &t.param, t.spi_mutex);
    }
    run_slave_main(slave, rec.slave_arg, &t.param);
}

void start_can_port(CanPort& t, const can_port_arg& arg)
{
    const com_port_info& rec = arg.record;
    t.port = rec.deviceport;
    t.spi_mutex = &spi_mutex;
    opt_list_init(t.list_head, t.list_tail);

    choose_device_path(rec.deviceport, false, t.path);
    std::puts("can process thread\r");
    std::printf("deviceport=%d\r\n", rec.deviceport);

    // The parameter block carries the SPI descriptor in its first word and
    // none of the port's block limits.
    t.param = PlcParam{};
    t.param.first_word = static_cast<uint32_t>(arg.spi_fd);
    t.param.working_mode = rec.working_mode;
    t.param.plc_driver_no = rec.plc_driver_no;
    t.param.drv_param1 = rec.drv_param1;
    t.param.drv_param2 = rec.drv_param2;
    t.param.drv_param3 = rec.drv_param3;
    build_port_device(rec, t.path, t.dev);

    const std::string lib = driver_library_path(mode, rec.deviceport);
    if (rec.slave_flag != 0) {
        start_slave(t, rec, lib);
    }

    void* h = driver_open(lib);
    t.drv.init = lookup_as<ev_can_plc_init_fn>(h, "ev_plc_init", "didn't find ev_plc_init");
    t.drv.read = lookup_as<ev_can_plc_read_fn>(h, "ev_plc_read", "didn't find ev_plc_read");
    t.drv.write = lookup_as<ev_can_plc_write_fn>(h, "ev_plc_write", "didn't find ev_plc_write");
    std::printf("plc_driver_no=%d\r\n", static_cast<int16_t>(rec.plc_driver_no));
    t.drv.canopen_read =
        lookup_as<ev_CANOPEN_plc_read_fn>(h, "ev_CANOPEN_plc_read", "didn't find ev_CANOPEN_plc_read");
    if (t.drv.init != nullptr) {
        t.drv.init(&t.dev, &t.param, t.spi_mutex);
    }

    t.limits = can_block_limits(rec);
    t.cursor = t.list_head;
    t.can_plc_no_response = 0;
}

} // namespace

void can_process_thread(const can_port_arg* arg)
{
    // Buffers and the entry array are large: keep them off the stack.
    auto t = std::make_unique<CanPort>();
    start_can_port(*t, *arg);
    for (;;) {
        can_cycle(*t);
    }
}
