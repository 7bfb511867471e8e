// The publishing side of combridge: reads every tag's cache (cached read,
// command 3) on the tag's period and publishes a tag when its value or its
// quality changed. Runs on the main thread, which alone owns the tag
// states; other threads only wake it. Changed tags wait in a list that
// holds each tag at most once, so however long the broker is away or slow,
// what waits is bounded by the number of tags and only the latest state of
// a tag is ever sent.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "broker.h"
#include "codec.h"
#include "comclient.h"
#include "config.h"

namespace bridge {

class Poller {
public:
    Poller(const BridgeConfig& cfg, Broker& broker);

    // Polls and publishes until stop is set (and wake() called).
    void run(const std::atomic<bool>& stop);
    // Any thread: the broker (re)connected and may have lost the retained
    // values, so every tag is published again (before anything else is).
    void republish_all();
    // Any thread: look at the loop's conditions again now.
    void wake();

private:
    using Clock = std::chrono::steady_clock;

    struct State {
        std::optional<Quality> quality;  // nothing observed yet
        std::vector<uint8_t> data;       // the data of a good read, else empty
        int64_t ts_ms = 0;               // when this state was first seen
        bool changed = false;            // listed in changed_
        Clock::time_point due{};
    };

    void connect(Clock::time_point now);
    void register_all();
    void read_due(Clock::time_point now);
    void read_batch(std::span<const size_t> tags, Clock::time_point now);
    void lose_comserver(const std::string& why, Clock::time_point now);
    void update(size_t i, Quality q, std::span<const uint8_t> data);
    void publish_changed();
    Clock::time_point next_wake(Clock::time_point now) const;
    void sleep_until(Clock::time_point t);

    const BridgeConfig& cfg_;
    Broker& broker_;
    std::vector<State> states_;
    std::vector<std::string> topics_;                // value topic per tag
    std::vector<std::vector<uint8_t>> read_packets_; // encoded com_read per tag
    std::deque<size_t> changed_;

    std::optional<comclient::Client> client_;
    Clock::time_point retry_at_{};
    std::chrono::milliseconds backoff_;
    bool away_ = false;  // the loss of comserver was logged

    std::atomic<bool> republish_{false};
    std::mutex wake_mutex_;  // guards woken_
    std::condition_variable wake_cv_;
    bool woken_ = false;
};

} // namespace bridge
