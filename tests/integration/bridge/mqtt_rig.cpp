// The bridge tests' broker, bridge process and probe; see mqtt_rig.h.
#include "mqtt_rig.h"

#include <fstream>
#include <mosquitto.h>
#include <stdexcept>
#include <unistd.h>

namespace mqtt_rig {

Broker::Broker(const std::string& extra_conf) : Process("broker"), port_(rig::free_tcp_port())
{
    std::ofstream(dir() + "/mosquitto.conf")
        << "listener " << port_ << " 127.0.0.1\nallow_anonymous true\npersistence false\n" << extra_conf;
}

void Broker::start()
{
    spawn({MOSQUITTO_PATH, "-c", dir() + "/mosquitto.conf"});
    if (!rig::eventually([&] {
            const int fd = rig::connect_socket(port_);
            return fd >= 0 && ::close(fd) == 0;
        })) {
        throw std::runtime_error("mosquitto does not listen:\n" + output());
    }
}

Bridge::Bridge(const std::string& config_toml) : Process("bridge")
{
    std::ofstream(dir() + "/bridge.toml") << config_toml;
    spawn({COMBRIDGE_PATH, dir() + "/bridge.toml"});
}

Probe::Probe(int port, const std::string& filter, bool keep_history, int qos)
    : filter_(filter), keep_history_(keep_history), qos_(qos)
{
    [[maybe_unused]] static const int lib = mosquitto_lib_init();  // once per process
    mosq_ = mosquitto_new(nullptr, true, this);
    mosquitto_connect_callback_set(mosq_, [](mosquitto* m, void* self, int rc) {
        const auto* p = static_cast<Probe*>(self);
        if (rc == 0)
            mosquitto_subscribe(m, nullptr, p->filter_.c_str(), p->qos_);
    });
    mosquitto_message_callback_set(mosq_, [](mosquitto*, void* self, const mosquitto_message* msg) {
        auto* p = static_cast<Probe*>(self);
        std::lock_guard lock(p->mutex_);
        auto& list = p->messages_[msg->topic];
        if (!p->keep_history_)
            list.clear();
        list.emplace_back(static_cast<const char*>(msg->payload), static_cast<size_t>(msg->payloadlen));
        ++p->total_;
    });
    mosquitto_reconnect_delay_set(mosq_, 1, 1, false);
    mosquitto_loop_start(mosq_);
    mosquitto_connect_async(mosq_, "127.0.0.1", port, 30);
}

Probe::~Probe()
{
    mosquitto_disconnect(mosq_);
    mosquitto_loop_stop(mosq_, false);
    mosquitto_destroy(mosq_);
}

void Probe::publish(const std::string& topic, const std::string& payload)
{
    mosquitto_publish(mosq_, nullptr, topic.c_str(), static_cast<int>(payload.size()), payload.data(), 1, false);
}

std::vector<std::string> Probe::history(const std::string& topic) const
{
    std::lock_guard lock(mutex_);
    const auto it = messages_.find(topic);
    return it == messages_.end() ? std::vector<std::string>{} : it->second;
}

uint64_t Probe::total() const
{
    std::lock_guard lock(mutex_);
    return total_;
}

} // namespace mqtt_rig
