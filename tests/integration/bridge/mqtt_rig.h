// MQTT side of the bridge tests and benchmark: a real mosquitto broker on a
// free loopback port, combridge as a process, and a libmosquitto probe that
// records what arrives. Both processes are rig::Process children: stopped by
// PID, their temp directories removed by the destructors.
#pragma once

#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "rig.h"

struct mosquitto;

namespace mqtt_rig {

using Json = nlohmann::json;

// A payload parsed; a non-JSON payload gives a discarded value.
inline Json parse(const std::string& payload) { return Json::parse(payload, nullptr, false); }

class Broker : public rig::Process {
public:
    // extra_conf: more mosquitto.conf lines (e.g. queue limits).
    explicit Broker(const std::string& extra_conf = "");
    // Starts mosquitto (again, on the same port) and waits until it listens.
    void start();
    int port() const { return port_; }

private:
    int port_;
};

class Bridge : public rig::Process {
public:
    // Writes the configuration into the bridge's directory and starts combridge.
    explicit Bridge(const std::string& config_toml);
};

// Subscribes to `filter` (resubscribing after reconnects) and keeps the
// messages of each topic: every one, or with keep_history false the latest.
class Probe {
public:
    Probe(int port, const std::string& filter, bool keep_history = true, int qos = 1);
    ~Probe();
    Probe(const Probe&) = delete;
    Probe& operator=(const Probe&) = delete;

    void publish(const std::string& topic, const std::string& payload);
    // Payloads received on topic so far, oldest first; the latest one ("" if none).
    std::vector<std::string> history(const std::string& topic) const;
    std::string last(const std::string& topic) const { return history(topic).empty() ? "" : history(topic).back(); }
    // Waits until the latest payload on topic, parsed, satisfies pred.
    template <typename Pred>
    bool wait_latest(const std::string& topic, Pred pred,
                     std::chrono::milliseconds deadline = std::chrono::seconds(15)) const
    {
        return rig::eventually([&] { return !last(topic).empty() && pred(parse(last(topic))); }, deadline);
    }
    uint64_t total() const;

private:
    std::string filter_;
    bool keep_history_;
    int qos_;
    mosquitto* mosq_ = nullptr;
    mutable std::mutex mutex_;  // guards messages_ and total_
    std::map<std::string, std::vector<std::string>> messages_;
    uint64_t total_ = 0;
};

} // namespace mqtt_rig
