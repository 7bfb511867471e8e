// combridge under load: 10,000 one-word tags read every second from the
// simulated PLC, whose unwritten registers count up once a second, so every
// tag changes every second. Reports the messages per second a subscriber
// receives and combridge's CPU share and memory. Not a test: it measures
// and prints, and fails only when the set-up does.
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>

#include "mqtt_rig.h"
#include "rig.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kTags = 10000;
constexpr int kPeriodMs = 1000;
constexpr auto kWarmUp = 3s;
constexpr auto kWindow = 10s;

// utime + stime of a process, in seconds.
double cpu_seconds(pid_t pid)
{
    std::ifstream f("/proc/" + std::to_string(pid) + "/stat");
    std::string all((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    std::istringstream rest(all.substr(all.rfind(')') + 2));  // fields from 3 on
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && rest >> field; ++i) {
        if (i == 14)
            utime = std::stoull(field);
        if (i == 15)
            stime = std::stoull(field);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// A "VmRSS:" style line of /proc/PID/status, in KiB.
long status_kib(pid_t pid, const std::string& key)
{
    std::ifstream f("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(f, line);)
        if (line.rfind(key, 0) == 0)
            return std::stol(line.substr(key.size()));
    return -1;
}

// kTags one-word tags spread evenly over `stations` stations of port 0.
std::string bridge_config(int server_port, int broker_port, int stations)
{
    std::ostringstream c;
    c << "topic_prefix = \"bench\"\n[comserver]\nport = " << server_port << "\n[broker]\nport = " << broker_port
      << "\nclient_id = \"bench-bridge\"\n";
    const int per_station = kTags / stations;
    for (int i = 0; i < kTags; ++i)
        c << "[[tag]]\nname = \"w" << i << "\"\nstation = " << 1 + i / per_station << "\nkind = 3\nstart = "
          << i % per_station << "\nperiod_ms = " << kPeriodMs << "\n";
    return c.str();
}

bool measure(int stations)
{
    rig::Server server(rig::Config{.ports = {rig::PortSetup{}}});
    server.start();
    // The subscriber must not be the bottleneck: it takes QoS 0 and the
    // broker queues any number of messages for it.
    mqtt_rig::Broker broker("max_queued_messages 0\n");
    broker.start();
    mqtt_rig::Probe probe(broker.port(), "bench/+", false, 0);
    mqtt_rig::Bridge bridge(bridge_config(server.tcp_port(), broker.port(), stations));

    // Every tag has published twice (no data yet, then its value), then the
    // first registrations and reads have settled.
    if (!rig::eventually([&] { return probe.total() >= 2u * kTags; }, 60s)) {
        std::fprintf(stderr, "bench_bridge: only %llu messages after 60 s\n%s",
                     static_cast<unsigned long long>(probe.total()), bridge.output().c_str());
        return false;
    }
    std::this_thread::sleep_for(kWarmUp);

    const uint64_t msgs0 = probe.total();
    const double bridge0 = cpu_seconds(bridge.pid());
    const double server0 = cpu_seconds(server.server_pid());
    const auto t0 = Clock::now();
    std::this_thread::sleep_for(kWindow);
    const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    const double rate = static_cast<double>(probe.total() - msgs0) / secs;
    const double bridge_cpu = 100.0 * (cpu_seconds(bridge.pid()) - bridge0) / secs;
    const double server_cpu = 100.0 * (cpu_seconds(server.server_pid()) - server0) / secs;

    std::printf("bench_bridge: %d word tags on %d station(s), every %d ms, %.0f s window\n", kTags, stations,
                kPeriodMs, secs);
    std::printf("  published messages/s    %.0f\n", rate);
    std::printf("  combridge CPU           %.1f %% of one core\n", bridge_cpu);
    std::printf("  combridge RSS           %ld KiB (peak %ld KiB)\n", status_kib(bridge.pid(), "VmRSS:"),
                status_kib(bridge.pid(), "VmHWM:"));
    std::printf("  comserver CPU           %.1f %% of one core\n", server_cpu);
    return true;
}

} // namespace

int main()
{
    // Ten stations of 1,000 tags each, a usual layout for a device this size.
    return measure(10) ? 0 : 1;
}
