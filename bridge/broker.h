// combridge's connection to the MQTT broker, over libmosquitto. The
// library's own network thread connects, reconnects with back-off and runs
// the handlers; publish() may be called from any thread. Every publish is
// QoS 1. libmosquitto keeps QoS 1 messages queued without limit while the
// broker is away or slow, so callers ask may_publish() first: it bounds
// the messages handed over and not yet acknowledged.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <string_view>

#include "config.h"

struct mosquitto;
struct mosquitto_message;

namespace bridge {

// Messages handed to the library and not yet acknowledged, beyond which
// value updates wait (as changed tags) instead of queueing in the library.
inline constexpr int kMaxUnacked = 1000;

class Broker {
public:
    struct Handlers {
        // (Re)connected, called before may_publish() turns true: the
        // broker may have lost retained values, so publish everything again.
        std::function<void()> connected;
        std::function<void(std::string_view topic, std::string_view payload)> message;
        // may_publish() turned true: connected, or acknowledgements made room.
        std::function<void()> ready;
    };

    // Throws std::runtime_error when libmosquitto refuses the settings
    // (e.g. an unreadable CA file).
    Broker(const BrokerConfig& cfg, const std::string& topic_prefix, Handlers handlers);
    ~Broker();
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    // Starts the network thread and the first connection attempt.
    void start();
    // Publishes "offline" on the status topic, waits briefly for it to be
    // acknowledged, disconnects and joins the network thread.
    void stop();

    bool connected() const { return connected_.load(); }
    bool may_publish() const { return connected() && unacked_.load() < kMaxUnacked; }
    // QoS 1; false when the library refused the message.
    bool publish(const std::string& topic, std::string_view payload, bool retain);

private:
    static void on_connect(mosquitto*, void* self, int rc);
    static void on_disconnect(mosquitto*, void* self, int rc);
    static void on_publish(mosquitto*, void* self, int mid);
    static void on_message(mosquitto*, void* self, const mosquitto_message* msg);

    BrokerConfig cfg_;
    std::string status_topic_;
    std::string set_filter_;
    Handlers handlers_;
    mosquitto* mosq_ = nullptr;
    bool started_ = false;
    std::atomic<bool> connected_{false};
    std::atomic<int> unacked_{0};
};

} // namespace bridge
