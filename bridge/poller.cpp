// Tag polling, change detection and value publishing. Reads of the tags
// that are due go to comserver in pipelined batches over one connection;
// any transport failure drops the connection, turns every tag to quality
// "error" and retries with back-off.
#include "poller.h"

#include <algorithm>
#include <utility>

#include "log.h"

namespace bridge {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kMinBackoff{500};
constexpr milliseconds kMaxBackoff{10000};
// Reads sent to comserver in one pipelined batch.
constexpr size_t kReadBatch = 256;
// Records per registration packet: the count is one byte and the packet
// must fit the server's buffer.
constexpr size_t kRecordsPerRegister =
    std::min<size_t>(255, (comclient::kMaxPacket - comclient::kHeaderSize - 3) / comclient::kRegAddrSize);
// A tag without data yet is read again this soon (or at its period, if
// shorter), so a slow tag does not wait a whole period for its first value.
constexpr milliseconds kNoDataRetry{250};
// How soon changed tags are offered to the broker again while it has too
// many messages unacknowledged.
constexpr milliseconds kPublishRetry{100};

int64_t now_ms()
{
    return std::chrono::duration_cast<milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

} // namespace

Poller::Poller(const BridgeConfig& cfg, Broker& broker) : cfg_(cfg), broker_(broker), backoff_(kMinBackoff)
{
    states_.resize(cfg_.tags.size());
    for (const Tag& tag : cfg_.tags) {
        topics_.push_back(value_topic(cfg_.topic_prefix, tag));
        read_packets_.push_back(comclient::encode_record(comclient::Command::com_read, tag_record(tag)));
    }
}

void Poller::run(const std::atomic<bool>& stop)
{
    while (!stop.load()) {
        const Clock::time_point now = Clock::now();
        if (!client_ && now >= retry_at_)
            connect(now);
        if (client_)
            read_due(now);
        publish_changed();
        sleep_until(next_wake(Clock::now()));
    }
}

void Poller::republish_all()
{
    republish_.store(true);
}

void Poller::wake()
{
    {
        std::lock_guard lock(wake_mutex_);
        woken_ = true;
    }
    wake_cv_.notify_one();
}

void Poller::sleep_until(Clock::time_point t)
{
    std::unique_lock lock(wake_mutex_);
    wake_cv_.wait_until(lock, t, [&] { return woken_; });
    woken_ = false;
}

Poller::Clock::time_point Poller::next_wake(Clock::time_point now) const
{
    Clock::time_point t = client_ ? Clock::time_point::max() : retry_at_;
    if (client_)
        for (const State& s : states_)
            t = std::min(t, s.due);
    // While the broker is connected but busy, changed tags are retried; while
    // it is away, its reconnection wakes the loop.
    if (!changed_.empty() && broker_.connected())
        t = std::min(t, now + kPublishRetry);
    return t;
}

void Poller::connect(Clock::time_point now)
{
    const std::string where = "comserver " + cfg_.comserver.host + ":" + std::to_string(cfg_.comserver.port);
    try {
        client_.emplace(cfg_.comserver.host, cfg_.comserver.port, cfg_.comserver.reply_timeout);
        register_all();
    } catch (const comclient::Error& e) {
        lose_comserver(e.what(), now);
        return;
    }
    log_line("connected to " + where + ", " + std::to_string(cfg_.tags.size()) + " tags registered");
    away_ = false;
    backoff_ = kMinBackoff;
}

void Poller::register_all()
{
    std::vector<uint8_t> packets;
    size_t n = 0;
    std::vector<comclient::RegAddr> recs;
    for (size_t first = 0; first < cfg_.tags.size(); first += kRecordsPerRegister) {
        recs.clear();
        for (size_t i = first; i < std::min(cfg_.tags.size(), first + kRecordsPerRegister); ++i)
            recs.push_back(tag_record(cfg_.tags[i]));
        const auto p = comclient::encode_areas(comclient::Command::register_areas, recs);
        packets.insert(packets.end(), p.begin(), p.end());
        ++n;
    }
    client_->request_all(packets, n);
}

void Poller::read_due(Clock::time_point now)
{
    std::vector<size_t> due;
    for (size_t i = 0; i < states_.size(); ++i)
        if (states_[i].due <= now)
            due.push_back(i);
    // Publishing between batches spreads a large round of changes out
    // instead of sending it in one burst at the end.
    for (size_t at = 0; at < due.size() && client_; at += kReadBatch) {
        read_batch(std::span(due).subspan(at, std::min(kReadBatch, due.size() - at)), now);
        publish_changed();
    }
}

void Poller::read_batch(std::span<const size_t> tags, Clock::time_point now)
{
    std::vector<uint8_t> packets;
    for (size_t i : tags)
        packets.insert(packets.end(), read_packets_[i].begin(), read_packets_[i].end());
    std::vector<comclient::Reply> replies;
    try {
        replies = client_->request_all(packets, tags.size());
    } catch (const comclient::Error& e) {
        lose_comserver(e.what(), now);
        return;
    }
    for (size_t k = 0; k < tags.size(); ++k) {
        const size_t i = tags[k];
        const Tag& tag = cfg_.tags[i];
        const Quality q = quality_of(replies[k], tag_bytes(tag));
        update(i, q, replies[k].data);
        // Tags of one period fall due together as long as they are read on time.
        State& s = states_[i];
        s.due = q == Quality::no_data ? now + std::min<milliseconds>(tag.period, kNoDataRetry) : s.due + tag.period;
        if (s.due <= now)
            s.due = now + tag.period;
    }
}

void Poller::lose_comserver(const std::string& why, Clock::time_point now)
{
    client_.reset();
    if (!away_)
        log_line("comserver " + cfg_.comserver.host + ":" + std::to_string(cfg_.comserver.port) + " unreachable ("
                 + why + "); retrying");
    away_ = true;
    for (size_t i = 0; i < states_.size(); ++i)
        update(i, Quality::error, {});
    retry_at_ = now + backoff_;
    backoff_ = std::min(2 * backoff_, kMaxBackoff);
}

void Poller::update(size_t i, Quality q, std::span<const uint8_t> data)
{
    State& s = states_[i];
    if (q != Quality::good)
        data = {};
    if (s.quality == q && std::ranges::equal(s.data, data))
        return;
    s.quality = q;
    s.data.assign(data.begin(), data.end());
    s.ts_ms = now_ms();
    if (!std::exchange(s.changed, true))
        changed_.push_back(i);
}

void Poller::publish_changed()
{
    if (!broker_.may_publish())
        return;
    // The broker sets the flag before it allows publishing, so a new
    // connection never sees a tag twice.
    if (republish_.exchange(false))
        for (size_t i = 0; i < states_.size(); ++i)
            if (states_[i].quality && !std::exchange(states_[i].changed, true))
                changed_.push_back(i);
    while (!changed_.empty() && broker_.may_publish()) {
        const size_t i = changed_.front();
        State& s = states_[i];
        const std::string payload = value_payload(cfg_.tags[i], *s.quality, s.data, s.ts_ms);
        if (!broker_.publish(topics_[i], payload, true))
            return;  // the tag stays listed and is offered again
        changed_.pop_front();
        s.changed = false;
    }
}

} // namespace bridge
