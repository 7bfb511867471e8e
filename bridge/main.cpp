// combridge: publishes the values of comserver's PLC registers to an MQTT
// broker and carries writes from the broker to the PLCs. SIGINT and SIGTERM
// are taken by one thread with sigwait (blocked everywhere else), which
// ends the polling loop; the bridge then says "offline" and exits 0.
// Exit status 2: bad command line or configuration; 1: cannot start.
#include <atomic>
#include <csignal>
#include <iostream>
#include <memory>
#include <pthread.h>
#include <thread>

#include <CLI/CLI.hpp>

#include "broker.h"
#include "config.h"
#include "log.h"
#include "poller.h"
#include "writer.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

sigset_t stop_signals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

void print_summary(const bridge::BridgeConfig& cfg)
{
    std::cout << "comserver " << cfg.comserver.host << ":" << cfg.comserver.port << ", broker " << cfg.broker.host
              << ":" << cfg.broker.port << (cfg.broker.ca_file ? " (TLS)" : "") << ", client id "
              << cfg.broker.client_id << ", prefix " << cfg.topic_prefix << "\n";
    for (const bridge::Tag& t : cfg.tags)
        std::cout << "  " << t.name << ": port " << int(t.port) << " station " << int(t.station) << " kind "
                  << int(t.kind) << " " << bridge::type_name(t.type) << " " << t.start << " x" << t.count << " every "
                  << t.period.count() << " ms" << (t.writable ? ", writable" : "") << "\n";
}

int run(const bridge::BridgeConfig& cfg)
{
    const sigset_t signals = stop_signals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // inherited by every thread started below
    std::signal(SIGPIPE, SIG_IGN);

    std::atomic<bool> stop{false};
    std::unique_ptr<bridge::Poller> poller;
    std::unique_ptr<bridge::Writer> writer;
    // The handlers run only after broker.start(), when both exist.
    bridge::Broker broker(cfg.broker, cfg.topic_prefix,
                          {.connected = [&] { poller->republish_all(); },
                           .message = [&](std::string_view topic, std::string_view payload) {
                               writer->submit(topic, payload);
                           },
                           .ready = [&] { poller->wake(); }});
    poller = std::make_unique<bridge::Poller>(cfg, broker);
    writer = std::make_unique<bridge::Writer>(cfg, broker);

    std::thread waiter([&] {
        int sig = 0;
        sigwait(&signals, &sig);
        bridge::log_line(std::string("stopping on ") + (sig == SIGINT ? "SIGINT" : "SIGTERM"));
        stop.store(true);
        poller->wake();
    });
    writer->start();
    broker.start();
    poller->run(stop);
    waiter.join();
    writer->stop();
    broker.stop();
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"combridge: publishes comserver's PLC values to an MQTT broker and takes writes from it"};
    std::string file;
    bool check = false;
    app.add_option("config", file, "TOML configuration file")->required();
    app.add_flag("--check", check, "Check the configuration, print what it configures, and exit");
    CLI11_PARSE(app, argc, argv);

    bridge::BridgeConfig cfg;
    try {
        cfg = bridge::load_config(file);
    } catch (const bridge::ConfigError& e) {
        std::cerr << "combridge: " << file << ": " << e.what() << "\n";
        return kExitUsage;
    }
    if (check) {
        print_summary(cfg);
        return 0;
    }
    try {
        return run(cfg);
    } catch (const std::exception& e) {
        bridge::log_line(std::string("cannot start: ") + e.what());
        return kExitFailure;
    }
}
