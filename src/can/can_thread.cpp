#include "can/can_thread.h"

#include <cstdio>
#include <unistd.h>

#include "driver/loader.h"
#include "server/globals.h"

pthread_mutex_t spi_mutex = PTHREAD_MUTEX_INITIALIZER;

void can_process_thread(const can_port_arg* arg)
{
    const com_port_info& rec = arg->record;
    char path[DEVICE_PATH_SIZE];
    choose_device_path(rec.deviceport, false, path);
    std::puts("can process thread\r");
    std::printf("deviceport=%d\r\n", rec.deviceport);

    PlcParamBlock param;
    build_plc_param(rec, param);
    param.param.first_word = static_cast<uint32_t>(arg->spi_fd);
    param.param.max_words = 0;
    param.param.max_bits = 0;
    PortDevice dev;
    build_port_device(rec, path, dev);

    const std::string lib = driver_library_path(mode, rec.deviceport);
    if (rec.slave_flag != 0) {
        void* h = driver_open(lib);
        auto init = reinterpret_cast<ev_can_plc_init_fn>(driver_lookup(h, "ev_plc_init", "didn't find ev_plc_init"));
        auto slave = reinterpret_cast<ev_plc_slave_main_fn>(
            driver_lookup(h, "ev_plc_slave_main", "didn't find ev_plc_slave_main"));
        if (init != nullptr) {
            init(&dev, &param.param, &spi_mutex);
        }
        if (slave != nullptr) {
            slave(rec.slave_arg, local_bit, local_short, semid, &param.param);
        }
    }
    void* h = driver_open(lib);
    auto init = reinterpret_cast<ev_can_plc_init_fn>(driver_lookup(h, "ev_plc_init", "didn't find ev_plc_init"));
    driver_lookup(h, "ev_plc_read", "didn't find ev_plc_read");
    driver_lookup(h, "ev_plc_write", "didn't find ev_plc_write");
    std::printf("plc_driver_no=%d\r\n", static_cast<int16_t>(rec.plc_driver_no));
    driver_lookup(h, "ev_CANOPEN_plc_read", "didn't find ev_CANOPEN_plc_read");
    if (init != nullptr) {
        init(&dev, &param.param, &spi_mutex);
    }
    for (;;) {
        ::sleep(1);
    }
}
