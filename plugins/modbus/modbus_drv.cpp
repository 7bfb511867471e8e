// Modbus driver plug-in: the ev_ entry points the server loads by name.
// Each port thread that calls ev_plc_init gets its own master, found again
// by the address of the thread's PlcParam, which lives as long as the
// thread; only that thread uses it. No C++ exception may leave an entry
// point: each catches everything and answers with a result code.
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>

#include "driver/plc_abi.h"
#include "modbus_master.h"
#include "modbus_slave.h"

#define DRV_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

constexpr uint16_t DEFAULT_SLAVE_PORT = 502;

struct Masters {
    std::mutex lock;  // guards the map, not the masters
    std::map<const PlcParam*, std::unique_ptr<ModbusMaster>> by_param;
};

// Never destroyed: port threads may still be inside a call while the
// process exits.
Masters& masters()
{
    static Masters* m = new Masters;
    return *m;
}

ModbusMaster* master_of(const PlcParam* param)
{
    Masters& m = masters();
    std::lock_guard g(m.lock);
    auto it = m.by_param.find(param);
    return it == m.by_param.end() ? nullptr : it->second.get();
}

} // namespace

// Called once more for a port that also runs the slave; the second call
// replaces the master made by the first.
DRV_EXPORT int ev_plc_init(PortDevice* dev, PlcParam* param)
{
    try {
        const MasterSettings s = master_settings(*dev, *param);
        std::printf("%s\r\n", describe(s).c_str());
        auto master = std::make_unique<ModbusMaster>(s);
        Masters& m = masters();
        std::lock_guard g(m.lock);
        m.by_param[param] = std::move(master);
        return DRV_OK;
    } catch (...) {
        return DRV_FAILED;
    }
}

// Everything the driver needs came with ev_plc_init.
DRV_EXPORT int ev_plc_init2(PortDevice*, PlcParam*, com_port_info*)
{
    return DRV_OK;
}

DRV_EXPORT int ev_plc_read(const DrvRegAddr* addr, DrvDataRef* data, PlcParam* param)
{
    try {
        ModbusMaster* m = master_of(param);
        return m != nullptr ? m->read(*addr, *data) : DRV_FAILED;
    } catch (...) {
        return DRV_FAILED;
    }
}

DRV_EXPORT int ev_plc_write(const DrvRegAddr* addr, DrvDataRef* data, PlcParam* param)
{
    try {
        ModbusMaster* m = master_of(param);
        return m != nullptr ? m->write(*addr, *data) : DRV_FAILED;
    } catch (...) {
        return DRV_FAILED;
    }
}

// Serves the local areas from a thread of its own and returns at once, so
// the port goes on to poll as a master. tcp_port is record bytes 24..25.
DRV_EXPORT int ev_plc_slave_main(int16_t tcp_port, uint8_t* local_bit, uint8_t* local_short, int semid, PlcParam*)
{
    try {
        LocalAreas a;
        a.bits = local_bit;
        a.words = local_short;
        a.extent = local_extent(local_bit, local_short);
        a.semid = semid;
        const auto port = static_cast<uint16_t>(tcp_port);
        start_slave(port != 0 ? port : DEFAULT_SLAVE_PORT, a);
        return DRV_OK;
    } catch (...) {
        return DRV_FAILED;
    }
}
