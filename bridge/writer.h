// Writes from the broker to the PLCs. Messages on "<prefix>/<tag>/set" are
// checked and turned into register bytes on the broker's thread; the
// writes themselves run one at a time on the writer's own thread and
// comserver connection, so a slow station never holds up the polling. At
// most `writes.queue` writes wait; every message gets exactly one result
// on "<prefix>/<tag>/set/result", an error one when it cannot be carried out.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "broker.h"
#include "comclient.h"
#include "config.h"

namespace bridge {

// Larger set payloads are refused before they are parsed; the largest
// range needs well under this much JSON.
inline constexpr size_t kMaxSetPayload = 64 * 1024;

class Writer {
public:
    Writer(const BridgeConfig& cfg, Broker& broker);
    ~Writer();
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    void start();
    // Finishes the write under way, answers the waiting ones with an error
    // and joins the thread.
    void stop();

    // For every message on the set filter; called on the broker's thread.
    void submit(std::string_view topic, std::string_view payload);

private:
    struct Job {
        size_t tag = 0;
        std::vector<uint8_t> data;
    };

    void run();
    std::optional<std::string> carry_out(const Job& job);
    void answer(std::string_view tag_name, const std::optional<std::string>& error);

    const BridgeConfig& cfg_;
    Broker& broker_;
    std::unordered_map<std::string_view, size_t> by_name_;
    std::optional<comclient::Client> client_;  // writer thread only

    std::mutex mutex_;                          // guards queue_ and stopping_
    std::condition_variable cv_;
    std::deque<Job> queue_;
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace bridge
