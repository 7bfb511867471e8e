// The write queue and its thread. Lock rule: mutex_ guards only the queue
// and the stop flag and is never held while publishing or talking to
// comserver.
#include "writer.h"

#include "codec.h"
#include "log.h"

namespace bridge {
namespace {

// Pause between writechecks of a queued PLC write.
constexpr std::chrono::milliseconds kCheckInterval{20};

} // namespace

Writer::Writer(const BridgeConfig& cfg, Broker& broker) : cfg_(cfg), broker_(broker)
{
    for (size_t i = 0; i < cfg_.tags.size(); ++i)
        by_name_.emplace(cfg_.tags[i].name, i);
}

Writer::~Writer()
{
    stop();
}

void Writer::start()
{
    thread_ = std::thread([this] { run(); });
}

void Writer::stop()
{
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    cv_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

void Writer::submit(std::string_view topic, std::string_view payload)
{
    const auto name = set_topic_tag(cfg_.topic_prefix, topic);
    if (!name)
        return;
    const auto it = by_name_.find(*name);
    if (it == by_name_.end())
        return answer(*name, "no such tag");
    const Tag& tag = cfg_.tags[it->second];
    if (!tag.writable)
        return answer(*name, "tag is read-only");
    if (payload.size() > kMaxSetPayload)
        return answer(*name, "payload too large");
    Encoded enc = encode_write(tag, payload);
    if (auto* err = std::get_if<std::string>(&enc))
        return answer(*name, "bad payload: " + *err);
    {
        std::lock_guard lock(mutex_);
        if (!stopping_ && queue_.size() < cfg_.writes.queue) {
            queue_.push_back(Job{it->second, std::move(std::get<std::vector<uint8_t>>(enc))});
            cv_.notify_one();
            return;
        }
    }
    answer(*name, "write queue full");
}

void Writer::run()
{
    for (;;) {
        Job job;
        {
            std::unique_lock lock(mutex_);
            cv_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
            if (queue_.empty())
                return;
            if (stopping_) {
                // Nothing new is queued once stopping_ is set.
                std::deque<Job> left = std::move(queue_);
                queue_.clear();
                lock.unlock();
                for (const Job& j : left)
                    answer(cfg_.tags[j.tag].name, "combridge stopped before the write");
                return;
            }
            job = std::move(queue_.front());
            queue_.pop_front();
        }
        answer(cfg_.tags[job.tag].name, carry_out(job));
    }
}

std::optional<std::string> Writer::carry_out(const Job& job)
{
    const Tag& tag = cfg_.tags[job.tag];
    try {
        if (!client_)
            client_.emplace(cfg_.comserver.host, cfg_.comserver.port, cfg_.comserver.reply_timeout);
        const comclient::Reply r = client_->write_and_check(tag_record(tag), job.data, cfg_.writes.timeout,
                                                            kCheckInterval);
        if (r.ok)
            return std::nullopt;
        if (r.pending())
            return "no outcome within " + std::to_string(cfg_.writes.timeout.count()) + " ms";
        if (r.kind == comclient::ReplyKind::status && r.err == 2)
            return std::string("station did not answer");
        return std::string("write failed");
    } catch (const comclient::Error& e) {
        // A connection in an unknown state is not reused; the next write
        // connects afresh.
        client_.reset();
        return std::string("comserver unreachable: ") + e.what();
    }
}

void Writer::answer(std::string_view tag_name, const std::optional<std::string>& error)
{
    if (!broker_.publish(result_topic(cfg_.topic_prefix, tag_name), result_payload(error), false))
        log_line("cannot publish the result of a write to " + std::string(tag_name));
}

} // namespace bridge
