// MQTT side of the bridge tests and benchmark: a real mosquitto broker on a
// free loopback port, combridge as a process, and a libmosquitto probe that
// records what arrives. Processes are stopped by PID; their temp
// directories are removed by the destructors.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/types.h>
#include <vector>

struct mosquitto;
struct mosquitto_message;

namespace mqtt_rig {

using Json = nlohmann::json;

// A child process with its output captured in <dir>/output.log.
class Process {
public:
    explicit Process(std::string dir) : dir_(std::move(dir)) {}
    ~Process() { kill_hard(); }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    void spawn(const std::vector<std::string>& argv);
    // SIGTERM, then waits; returns the exit status (-1: had to be killed).
    int stop(std::chrono::milliseconds deadline = std::chrono::seconds(10));
    void kill_hard();
    pid_t pid() const { return pid_; }
    std::string output() const;

private:
    std::string dir_;
    pid_t pid_ = -1;
};

class Broker {
public:
    // extra_conf: more mosquitto.conf lines (e.g. queue limits).
    explicit Broker(const std::string& extra_conf = "");
    ~Broker();
    // Starts mosquitto (again, on the same port) and waits until it listens.
    void start();
    // SIGKILL: no clean disconnects, no persistence.
    void kill_hard() { proc_.kill_hard(); }
    int port() const { return port_; }

private:
    std::string dir_;
    int port_;
    Process proc_;
};

class Bridge {
public:
    // Writes the configuration into a temp directory and starts combridge.
    explicit Bridge(const std::string& config_toml);
    ~Bridge();
    int stop() { return proc_.stop(); }
    void kill_hard() { proc_.kill_hard(); }
    pid_t pid() const { return proc_.pid(); }
    std::string output() const { return proc_.output(); }

private:
    std::string dir_;
    Process proc_;
};

// Subscribes to `filter` (resubscribing after reconnects) and keeps every
// message per topic.
class Probe {
public:
    // keep_history false keeps only the latest message per topic; qos is
    // the subscription's.
    Probe(int port, const std::string& filter, bool keep_history = true, int qos = 1);
    ~Probe();
    Probe(const Probe&) = delete;
    Probe& operator=(const Probe&) = delete;

    void publish(const std::string& topic, const std::string& payload);
    // Payloads received on topic so far, oldest first; the latest one ("" if none).
    std::vector<std::string> history(const std::string& topic) const;
    std::string last(const std::string& topic) const;
    // Waits until the latest payload on topic, parsed, satisfies pred.
    template <typename Pred>
    bool wait_latest(const std::string& topic, Pred pred,
                     std::chrono::milliseconds deadline = std::chrono::seconds(15)) const;
    // Waits until topic has received at least n messages; returns the n-th.
    std::string wait_nth(const std::string& topic, size_t n,
                         std::chrono::milliseconds deadline = std::chrono::seconds(15)) const;
    uint64_t total() const;

private:
    static void on_connect(mosquitto*, void* self, int rc);
    static void on_message(mosquitto*, void* self, const mosquitto_message* msg);

    std::string filter_;
    bool keep_history_;
    int qos_;
    mosquitto* mosq_ = nullptr;
    mutable std::mutex mutex_;  // guards messages_ and total_
    std::map<std::string, std::vector<std::string>> messages_;
    uint64_t total_ = 0;
};

// Parses a payload; a non-JSON payload gives a discarded value.
Json parse(const std::string& payload);

} // namespace mqtt_rig

#include "rig.h"

template <typename Pred>
bool mqtt_rig::Probe::wait_latest(const std::string& topic, Pred pred, std::chrono::milliseconds deadline) const
{
    return rig::eventually([&] {
        const std::string p = last(topic);
        return !p.empty() && pred(parse(p));
    }, deadline);
}
