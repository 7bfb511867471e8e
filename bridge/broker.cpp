// libmosquitto behind Broker. The network thread runs every callback
// below; they touch only atomics and the handlers, which do their own
// locking. The network thread is started before the first connection
// attempt, so that a broker which is down at start-up is retried like a
// lost one.
#include "broker.h"

#include <chrono>
#include <stdexcept>
#include <thread>

#include <mosquitto.h>

#include "codec.h"
#include "log.h"

namespace bridge {
namespace {

// Reconnect delays of libmosquitto: 1 s doubling up to 30 s.
constexpr unsigned kRetryMinS = 1;
constexpr unsigned kRetryMaxS = 30;
constexpr auto kOfflineAckWait = std::chrono::seconds(1);
constexpr std::string_view kOnline = "online";
constexpr std::string_view kOffline = "offline";

struct LibMosquitto {
    LibMosquitto() { mosquitto_lib_init(); }
    ~LibMosquitto() { mosquitto_lib_cleanup(); }
};

void check(int rc, const char* what)
{
    if (rc != MOSQ_ERR_SUCCESS)
        throw std::runtime_error(std::string(what) + ": " + mosquitto_strerror(rc));
}

} // namespace

Broker::Broker(const BrokerConfig& cfg, const std::string& topic_prefix, Handlers handlers)
    : cfg_(cfg), status_topic_(status_topic(topic_prefix)), set_filter_(set_filter(topic_prefix)),
      handlers_(std::move(handlers))
{
    static LibMosquitto lib;
    mosq_ = mosquitto_new(cfg_.client_id.c_str(), true, this);
    if (!mosq_)
        throw std::runtime_error("cannot create the MQTT client");
    mosquitto_connect_callback_set(mosq_, on_connect);
    mosquitto_disconnect_callback_set(mosq_, on_disconnect);
    mosquitto_publish_callback_set(mosq_, on_publish);
    mosquitto_message_callback_set(mosq_, on_message);
    check(mosquitto_reconnect_delay_set(mosq_, kRetryMinS, kRetryMaxS, true), "reconnect delay");
    if (cfg_.username)
        check(mosquitto_username_pw_set(mosq_, cfg_.username->c_str(),
                                        cfg_.password ? cfg_.password->c_str() : nullptr),
              "broker user");
    if (cfg_.ca_file)
        check(mosquitto_tls_set(mosq_, cfg_.ca_file->c_str(), nullptr, nullptr, nullptr, nullptr), "broker TLS");
    check(mosquitto_will_set(mosq_, status_topic_.c_str(), static_cast<int>(kOffline.size()), kOffline.data(), 1,
                             true),
          "last will");
}

Broker::~Broker()
{
    stop();
    mosquitto_destroy(mosq_);
}

void Broker::start()
{
    check(mosquitto_loop_start(mosq_), "MQTT network thread");
    started_ = true;
    const int rc = mosquitto_connect_async(mosq_, cfg_.host.c_str(), cfg_.port, cfg_.keepalive_s);
    if (rc != MOSQ_ERR_SUCCESS)
        log_line("broker " + cfg_.host + ":" + std::to_string(cfg_.port) + ": " + mosquitto_strerror(rc)
                 + "; retrying");
}

void Broker::stop()
{
    if (!started_)
        return;
    started_ = false;
    if (connected() && publish(status_topic_, kOffline, true)) {
        const auto end = std::chrono::steady_clock::now() + kOfflineAckWait;
        while (unacked_.load() > 0 && connected() && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    mosquitto_disconnect(mosq_);
    mosquitto_loop_stop(mosq_, false);
}

bool Broker::publish(const std::string& topic, std::string_view payload, bool retain)
{
    unacked_.fetch_add(1);
    const int rc = mosquitto_publish(mosq_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                                     payload.data(), 1, retain);
    if (rc == MOSQ_ERR_SUCCESS)
        return true;
    unacked_.fetch_sub(1);
    return false;
}

void Broker::on_connect(mosquitto*, void* self, int rc)
{
    auto* b = static_cast<Broker*>(self);
    const std::string where = "broker " + b->cfg_.host + ":" + std::to_string(b->cfg_.port);
    if (rc != 0) {
        log_line(where + " refused the connection: " + mosquitto_connack_string(rc));
        return;
    }
    log_line("connected to " + where);
    b->publish(b->status_topic_, kOnline, true);
    mosquitto_subscribe(b->mosq_, nullptr, b->set_filter_.c_str(), 1);
    b->handlers_.connected();
    b->connected_.store(true);
    b->handlers_.ready();
}

void Broker::on_disconnect(mosquitto*, void* self, int rc)
{
    auto* b = static_cast<Broker*>(self);
    if (b->connected_.exchange(false) && rc != 0)
        log_line("lost broker " + b->cfg_.host + ":" + std::to_string(b->cfg_.port) + " (" + mosquitto_strerror(rc)
                 + "); reconnecting");
}

void Broker::on_publish(mosquitto*, void* self, int)
{
    auto* b = static_cast<Broker*>(self);
    if (b->unacked_.fetch_sub(1) - 1 == kMaxUnacked / 2)
        b->handlers_.ready();
}

void Broker::on_message(mosquitto*, void* self, const mosquitto_message* msg)
{
    auto* b = static_cast<Broker*>(self);
    b->handlers_.message(msg->topic,
                         std::string_view(static_cast<const char*>(msg->payload), static_cast<size_t>(msg->payloadlen)));
}

} // namespace bridge
