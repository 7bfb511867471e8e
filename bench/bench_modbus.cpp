// Block reads per second of the server polling 1,000 Modbus registers in
// blocks of 100 through the Modbus plug-in, beside a bare libmodbus client
// and the plug-in called directly, reading the same blocks from the same
// station in the same run. The station is a libmodbus TCP server on
// loopback, answering at once or after a fixed response time, as a PLC on a
// network does. Each phase runs for a fixed time; the server's phase counts
// the requests the station answers, and block polling is suspended (local
// bit 9923) while the other two run.
#include <chrono>
#include <cstdio>
#include <dlfcn.h>
#include <string>
#include <thread>
#include <vector>

#include "comclient.h"
#include "driver/plc_abi.h"
#include "modbus_peer.h"
#include "rig.h"

using namespace std::chrono_literals;

namespace {

constexpr int kRegisters = 1000;
constexpr int kBlock = 100;
constexpr int kSuspendBit = 9923;
constexpr auto kPhase = 3s;
constexpr auto kWarmUp = 1s;

comclient::RegAddr range(uint8_t kind, uint8_t type, int32_t start, int16_t count)
{
    comclient::RegAddr r;
    r.station = 1;
    r.kind = kind;
    r.type = type;
    r.start = start;
    r.count = count;
    return r;
}

double server_rate(itest::ModbusPeer& peer)
{
    std::this_thread::sleep_for(kWarmUp);
    const uint64_t before = peer.request_count();
    std::this_thread::sleep_for(kPhase);
    return static_cast<double>(peer.request_count() - before) / std::chrono::duration<double>(kPhase).count();
}

// Runs read_block(start) over the blocks for one phase; reads per second.
template <typename ReadBlock>
double block_rate(ReadBlock read_block)
{
    uint64_t reads = 0;
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < kPhase) {
        for (int b = 0; b < kRegisters; b += kBlock) {
            reads += read_block(b);
        }
    }
    return static_cast<double>(reads) / std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double bare_client_rate(uint16_t port)
{
    modbus_t* ctx = modbus_new_tcp("127.0.0.1", port);
    modbus_set_slave(ctx, 1);
    if (modbus_connect(ctx) == -1) {
        std::printf("bare client cannot connect: %s\n", modbus_strerror(errno));
        return 0;
    }
    uint16_t regs[kBlock];
    const double rate = block_rate([&](int b) { return modbus_read_registers(ctx, b, kBlock, regs) == kBlock; });
    modbus_close(ctx);
    modbus_free(ctx);
    return rate;
}

// ev_plc_read of a private copy of the plug-in, without the server around it.
double plugin_rate(uint16_t port)
{
    void* h = ::dlopen(MODBUS_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    auto init = reinterpret_cast<ev_plc_init_fn>(::dlsym(h, "ev_plc_init"));
    auto read = reinterpret_cast<ev_plc_read_fn>(::dlsym(h, "ev_plc_read"));
    PortDevice dev{};
    PlcParam param{};
    param.working_mode = 'U';
    param.drv_param1 = 0x0100007f;  // 127.0.0.1
    param.drv_param2 = port;
    init(&dev, &param);
    uint8_t buf[2 * kBlock];
    DrvDataRef data{kBlock, buf};
    const double rate = block_rate([&](int b) {
        const DrvRegAddr addr{1, 2, 4, b, 0, 0, 0, 0};
        return read(&addr, &data, &param) == 0;
    });
    return rate;  // the library stays loaded: its masters live for the process
}

// One row of the result table.
std::string measure(std::chrono::microseconds response_time)
{
    itest::ModbusPeer peer;
    peer.set_delay(response_time);
    rig::PortSetup p;
    p.working_mode = 'U';
    p.plc_driver_no = 50;
    p.plugin = "modbus";
    p.max_words = kBlock;
    p.word_gap = 0;
    p.extra = "modbus_host = \"127.0.0.1\"\nmodbus_port = " + std::to_string(peer.port());
    rig::Config cfg;
    cfg.ports = {p};
    cfg.env = {{"COMSERVER_SWEEP_SECONDS", "86400"}};
    rig::Server server(cfg);
    server.start();
    comclient::Client c(server.connect_client());
    std::vector<comclient::RegAddr> blocks;
    for (int b = 0; b < kRegisters; b += kBlock) {
        blocks.push_back(range(4, 2, b, kBlock));
    }
    c.register_areas(blocks);

    const double polled = server_rate(peer);
    c.write(range(254, 0, kSuspendBit, 1), std::vector<uint8_t>{1});
    std::this_thread::sleep_for(100ms);
    const double bare = bare_client_rate(peer.port());
    const double plugin = plugin_rate(peer.port());
    char row[160];
    std::snprintf(row, sizeof row, "| %lld us | %.0f | %.0f | %.0f | %.1f %% |\n",
                  static_cast<long long>(response_time.count()), bare, plugin, polled, 100.0 * (bare - polled) / bare);
    return row;
}

} // namespace

int main()
{
    std::string rows;
    for (auto t : {0us, 1000us, 5000us, 10000us}) {
        rows += measure(t);
    }
    std::printf("\nModbus polling, %d registers in blocks of %d, %lld s per phase\n\n", kRegisters, kBlock,
                static_cast<long long>(std::chrono::seconds(kPhase).count()));
    std::printf("| station response time | bare libmodbus reads/s | plug-in alone reads/s | server reads/s | "
                "server overhead |\n");
    std::printf("|---|---|---|---|---|\n%s", rows.c_str());
    return 0;
}
