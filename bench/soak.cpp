// Soak tool: N clients run a random mix of valid and invalid requests for T
// seconds against a server that comhost starts with several simulated ports.
// Every reply is checked; every 5 s the request rate, the wrong and lost
// replies and the server's RSS, descriptors and threads are printed.
// Not part of `make test`: run it with `make soak` (docs/benchmarks.md).
//
// What makes a reply checkable, and must stay so:
// - the pattern (station 1, kind 3 of every port) is written once before the
//   clients start and never changes, so every cached or realtime read of it
//   must return exactly the simulated memory;
// - each client alone writes its own registers (station 2, kind 4 words
//   client_words(id) on port id % ports; local words and bits), so its
//   read-backs can only see its own writes;
// - invalid requests never carry a write command, so they cannot change
//   registers that other clients check;
// - a write or read-modify-write whose outcome the client never learnt (no
//   reply, connection lost) may still run later, so the client stops writing
//   its own words for RESYNC_PAUSE and then takes their values from the PLC.
#include <CLI/CLI.hpp>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "comclient.h"
#include "itest_util.h"

using namespace std::chrono_literals;
using comclient::Client;
using comclient::Command;
using comclient::RegAddr;
using comclient::Reply;
using comclient::ReplyKind;
using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto REPLY_TIMEOUT = 5s;          // a reply later than this is lost
constexpr auto CHECK_PAUSE = 5ms;           // between two checks of a pending request
constexpr auto SAMPLE_PERIOD = 5s;
constexpr auto CONNECT_RETRY_PAUSE = 100ms;
constexpr auto RESYNC_PAUSE = 3 * REPLY_TIMEOUT; // for a lost write to run or be retired
constexpr auto LISTEN_DEADLINE = 30s;     // the server opens its port after starting the port threads
constexpr uint8_t PATTERN_STATION = 1, PATTERN_KIND = 3;
constexpr int PATTERN_BYTES = 8192;
constexpr uint8_t OWN_STATION = 2, OWN_KIND = 4;
constexpr int OWN_WORDS = 8;                // realtime words per client
constexpr uint8_t SCRATCH_STATION = 3;      // requests abandoned on purpose
constexpr uint8_t LOCAL_WORD_KIND = 255, LOCAL_BIT_KIND = 254;
// Local registers per client, clear of the words and bits the server uses
// itself (9000 and up): 1000 clients end below 9000.
constexpr int LOCAL_WORD_BASE = 1000, LOCAL_WORDS = 4;
constexpr int LOCAL_BIT_BASE = 1000, LOCAL_BITS = 8;
constexpr int MAX_CLIENTS = 1000;
constexpr int MAX_OWN_RANGES = 12;          // cached ranges a client keeps registered
// Read-modify-writes add a step and reset to 0 above the upper limit. Words
// the clients write stay below 0x7000, so sums stay below 0x8000, where a
// word means the same signed or unsigned.
constexpr int32_t RMW_ADD = 2, RMW_HIGH = 30000, RMW_MAX_STEP = 100;
constexpr uint8_t WRITTEN_HIGH_BYTE_MAX = 0x6f;

struct Options {
    int clients = 200;
    int seconds = 600;
    int ports = 4;
    uint32_t seed = 0;
};

// Counts shared by all clients; the first few examples of each wrong kind
// are kept for the report.
class Tally {
public:
    void request() { ++requests_; }
    uint64_t requests() const { return requests_; }
    // A reply whose data were compared with what they must be.
    void checked() { ++checked_; }
    uint64_t checked_count() const { return checked_; }
    void lost(const std::string& what) { add(lost_, what, ""); }
    void wrong(const std::string& what, const std::string& detail) { add(wrong_, what, detail); }
    uint64_t lost_count() const { return total(lost_); }
    uint64_t wrong_count() const { return total(wrong_); }

    void report() const
    {
        std::lock_guard lock(m_);
        for (const auto& [what, n] : wrong_)
            std::printf("  wrong: %-48s %llu\n", what.c_str(), static_cast<unsigned long long>(n));
        for (const auto& [what, n] : lost_)
            std::printf("  lost:  %-48s %llu\n", what.c_str(), static_cast<unsigned long long>(n));
        for (const std::string& e : examples_)
            std::printf("  e.g. %s\n", e.c_str());
    }

private:
    void add(std::map<std::string, uint64_t>& to, const std::string& what, const std::string& detail)
    {
        std::lock_guard lock(m_);
        if (++to[what] <= 3 && !detail.empty())
            examples_.push_back(what + ": " + detail);
    }
    uint64_t total(const std::map<std::string, uint64_t>& of) const
    {
        std::lock_guard lock(m_);
        uint64_t n = 0;
        for (const auto& [what, count] : of)
            n += count;
        return n;
    }

    std::atomic<uint64_t> requests_{0}, checked_{0};
    mutable std::mutex m_;
    std::map<std::string, uint64_t> wrong_, lost_;
    std::vector<std::string> examples_;
};

std::string hex(const Bytes& b)
{
    std::string s;
    char buf[4];
    for (size_t i = 0; i < b.size() && i < 24; ++i) {
        std::snprintf(buf, sizeof buf, "%02x ", b[i]);
        s += buf;
    }
    return s + (b.size() > 24 ? "..." : "");
}

struct World {
    uint16_t tcp_port;
    SimControl& ctl;
    int ports;
    Tally& tally;
};

// The simulated memory of a range, read the way the plug-in serves it (the
// bus of port p is p).
Bytes plc_memory(SimControl& ctl, const RegAddr& r)
{
    Bytes b(comclient::data_size(r.type, r.count));
    sim_mem_read(ctl, r.port, r.station, r.kind, r.type, r.start, r.count, b.data());
    return b;
}

bool is_status(const Reply& r, Command c, bool ok, uint8_t err)
{
    return r.kind == ReplyKind::status && r.command == static_cast<uint8_t>(c) && r.ok == ok && r.err == err;
}

class SoakClient {
public:
    SoakClient(int id, World& w, uint32_t seed) : id_(id), w_(w), rng_(seed) {}

    void run(const std::atomic<bool>& stop)
    {
        while (!stop) {
            const auto [name, op] = pick();
            try {
                (this->*op)();
            } catch (const comclient::Error& e) {
                failed(name, e);
                if (op == &SoakClient::op_write || op == &SoakClient::op_rmw)
                    lose_track();
            }
        }
    }

private:
    using Op = void (SoakClient::*)();

    std::pair<const char*, Op> pick()
    {
        static const std::pair<const char*, Op> ops[] = {
            {"register", &SoakClient::op_register},       {"cached read", &SoakClient::op_cached_read},
            {"cached read", &SoakClient::op_cached_read}, {"sub_read", &SoakClient::op_sub_read},
            {"realtime read", &SoakClient::op_realtime_read}, {"realtime write", &SoakClient::op_write},
            {"realtime write", &SoakClient::op_write},    {"read-modify-write", &SoakClient::op_rmw},
            {"local", &SoakClient::op_local},             {"local", &SoakClient::op_local},
            {"unregister", &SoakClient::op_unregister},   {"invalid", &SoakClient::op_invalid},
        };
        return ops[uniform(0, std::size(ops) - 1)];
    }

    void failed(const char* op, const comclient::Error& e)
    {
        conn_.reset(); // a late reply may still come: never reuse the connection
        switch (e.kind()) {
        case comclient::ErrorKind::timeout: w_.tally.lost(std::string(op) + ": no reply in 5 s"); break;
        case comclient::ErrorKind::connect:
            w_.tally.lost("connect failed");
            std::this_thread::sleep_for(CONNECT_RETRY_PAUSE);
            break;
        default: w_.tally.wrong(std::string(op) + ": " + comclient::error_kind_name(e.kind()), e.what());
        }
    }

    size_t uniform(size_t lo, size_t hi) { return std::uniform_int_distribution<size_t>(lo, hi)(rng_); }

    Client& conn()
    {
        if (!conn_)
            conn_.emplace("127.0.0.1", w_.tcp_port, REPLY_TIMEOUT);
        return *conn_;
    }

    Reply ask(const Bytes& packet)
    {
        w_.tally.request();
        return conn().request(packet);
    }

    bool expect(bool ok, const std::string& what, const Reply& r)
    {
        if (!ok)
            w_.tally.wrong(what, "reply " + hex(r.packet));
        return ok;
    }

    // ---- ranges -------------------------------------------------------------

    RegAddr pattern_range()
    {
        static const uint8_t types[] = {0, 2, 4};
        RegAddr r = itest::rec(static_cast<uint8_t>(uniform(0, w_.ports - 1)), PATTERN_STATION,
                               types[uniform(0, 2)], PATTERN_KIND, 0, static_cast<int16_t>(uniform(1, 32)));
        const int elements = r.type == 0 ? PATTERN_BYTES * 8 : PATTERN_BYTES / r.type;
        r.start = static_cast<int32_t>(uniform(0, elements - r.count));
        return r;
    }

    int32_t own_base() const { return id_ / w_.ports * OWN_WORDS; }

    RegAddr own_words(int first, int count) const
    {
        return itest::rec(static_cast<uint8_t>(id_ % w_.ports), OWN_STATION, 2, OWN_KIND, own_base() + first,
                          static_cast<int16_t>(count));
    }

    // A data reply (or data entry) must hold exactly the simulated memory.
    bool matches_pattern(const Bytes& data, const RegAddr& r, const char* what, const Reply& reply)
    {
        w_.tally.checked();
        return expect(data == plc_memory(w_.ctl, r), what, reply);
    }

    // ---- cached reads --------------------------------------------------------

    void op_register()
    {
        std::vector<RegAddr> recs(uniform(1, 4));
        for (RegAddr& r : recs)
            r = pattern_range();
        const Reply a = ask(comclient::encode_areas(Command::register_areas, recs));
        if (!expect(a.kind == ReplyKind::ack && a.command == 1 && a.ok, "register: not acknowledged", a))
            return;
        for (const RegAddr& r : recs)
            if (ranges_.size() < MAX_OWN_RANGES)
                ranges_.push_back(r);
    }

    void op_unregister()
    {
        if (ranges_.empty())
            return op_register();
        const size_t i = uniform(0, ranges_.size() - 1);
        const Reply a = ask(comclient::encode_areas(Command::unregister_areas, std::span(&ranges_[i], 1)));
        expect(a.kind == ReplyKind::ack && a.command == 2 && a.ok, "unregister: not acknowledged", a);
        ranges_.erase(ranges_.begin() + static_cast<long>(i));
    }

    // No data yet (err 1) is allowed: the range may be new, not polled yet,
    // or unregistered or swept meanwhile by another client's doing.
    void op_cached_read()
    {
        if (ranges_.empty())
            return op_register();
        const RegAddr& r = ranges_[uniform(0, ranges_.size() - 1)];
        const Reply a = ask(comclient::encode_record(Command::com_read, r));
        if (a.kind == ReplyKind::data)
            matches_pattern(a.data, r, "cached read: data differ from the PLC", a);
        else
            expect(is_status(a, Command::com_read, false, 1), "cached read: error status", a);
    }

    void op_sub_read()
    {
        if (ranges_.empty())
            return op_register();
        std::vector<RegAddr> recs(uniform(1, std::min<size_t>(4, ranges_.size())));
        for (RegAddr& r : recs)
            r = ranges_[uniform(0, ranges_.size() - 1)];
        const Reply a = ask(comclient::encode_areas(Command::sub_read, recs));
        if (!expect(a.kind == ReplyKind::multi_area && a.entries.size() == recs.size(), "sub_read: not a multi-area reply", a))
            return;
        for (size_t i = 0; i < recs.size(); ++i) {
            const comclient::SubEntry& e = a.entries[i];
            if (e.present && e.ok)
                matches_pattern(e.data, recs[i], "sub_read: data differ from the PLC", a);
            else
                expect(e.present && e.err == 1, "sub_read: error entry", a);
        }
    }

    // ---- realtime requests ---------------------------------------------------

    // Repeats a check while it answers "pending"; nullopt (counted as lost)
    // when the request is still pending after the reply time-out.
    template <typename Check>
    std::optional<Reply> until_done(const char* what, Check check)
    {
        const auto end = Clock::now() + REPLY_TIMEOUT;
        for (;;) {
            Reply r = check();
            if (!r.pending())
                return r;
            if (Clock::now() >= end) {
                w_.tally.lost(std::string(what) + ": still pending after 5 s");
                return std::nullopt;
            }
            std::this_thread::sleep_for(CHECK_PAUSE);
        }
    }

    // Queues a realtime read and collects it; nullopt when it went wrong.
    std::optional<Bytes> realtime_value(const RegAddr& r, const char* what)
    {
        const Reply q = ask(comclient::encode_record(Command::realtime_read, r));
        if (!expect(is_status(q, Command::realtime_read, false, 1), std::string(what) + ": not queued", q))
            return std::nullopt;
        const auto done = until_done(what, [&] { return ask(comclient::encode_record(Command::realtime_readcheck, r)); });
        if (!done || !expect(done->kind == ReplyKind::data, std::string(what) + ": no data", *done))
            return std::nullopt;
        return done->data;
    }

    void op_realtime_read()
    {
        const RegAddr r = pattern_range();
        w_.tally.checked();
        if (auto v = realtime_value(r, "realtime read"); v && *v != plc_memory(w_.ctl, r))
            w_.tally.wrong("realtime read: data differ from the PLC", hex(*v));
    }

    // After a completed write or read-modify-write of its own words, the PLC
    // memory and a realtime read-back must both hold what the client expects.
    void read_back(const RegAddr& r, const char* what)
    {
        const Bytes want(shadow_.begin() + (r.start - own_base()) * 2,
                         shadow_.begin() + (r.start - own_base() + r.count) * 2);
        w_.tally.checked();
        if (plc_memory(w_.ctl, r) != want)
            w_.tally.wrong(std::string(what) + ": PLC memory differs", hex(plc_memory(w_.ctl, r)) + "want " + hex(want));
        const std::string rb = std::string(what) + " read-back";
        if (auto v = realtime_value(r, rb.c_str()); v && *v != want)
            w_.tally.wrong(rb + ": differs", hex(*v) + "want " + hex(want));
    }

    // The client's own words may change behind its back until a lost
    // request has run or been retired.
    void lose_track() { resync_at_ = Clock::now() + RESYNC_PAUSE; }

    // False while the own words are not known; after the pause they are
    // taken from the PLC memory.
    bool own_words_known()
    {
        if (!resync_at_)
            return true;
        if (Clock::now() < *resync_at_)
            return false;
        shadow_ = plc_memory(w_.ctl, own_words(0, OWN_WORDS));
        resync_at_.reset();
        return true;
    }

    void op_write()
    {
        if (!own_words_known())
            return op_realtime_read();
        const int first = static_cast<int>(uniform(0, OWN_WORDS - 1));
        const RegAddr r = own_words(first, static_cast<int>(uniform(1, OWN_WORDS - first)));
        Bytes data(static_cast<size_t>(r.count) * 2);
        for (size_t i = 0; i < data.size(); i += 2) {
            data[i] = static_cast<uint8_t>(uniform(0, 255));
            data[i + 1] = static_cast<uint8_t>(uniform(0, WRITTEN_HIGH_BYTE_MAX));
        }
        const Reply q = ask(comclient::encode_write(r, data));
        if (!expect(is_status(q, Command::write, false, 1), "realtime write: not queued", q))
            return;
        const auto done = until_done("realtime write", [&] { return ask(comclient::encode_record(Command::writecheck, r)); });
        if (!done)
            return lose_track();
        if ( !expect(is_status(*done, Command::writecheck, true, 0), "realtime write: failed", *done))
            return;
        std::copy(data.begin(), data.end(), shadow_.begin() + first * 2);
        read_back(r, "realtime write");
    }

    void op_rmw()
    {
        if (!own_words_known())
            return op_realtime_read();
        const int k = static_cast<int>(uniform(0, OWN_WORDS - 1));
        const RegAddr r = own_words(k, 1);
        const comclient::RwOper op{RMW_ADD, static_cast<int32_t>(uniform(1, RMW_MAX_STEP)), RMW_HIGH, 0, 1, 0};
        const Reply q = ask(comclient::encode_rw(Command::realtime_rw, r, op));
        if (!expect(is_status(q, Command::realtime_rw, false, 1), "read-modify-write: not queued", q))
            return;
        const auto done = until_done("read-modify-write", [&] { return ask(comclient::encode_rw(Command::realtime_rw_check, r, op)); });
        if (!done)
            return lose_track();
        if ( !expect(done->kind == ReplyKind::result, "read-modify-write: failed", *done))
            return;
        const int32_t old = shadow_[k * 2] | shadow_[k * 2 + 1] << 8;
        const int32_t now = old + op.step > RMW_HIGH ? 0 : old + op.step;
        shadow_[k * 2] = static_cast<uint8_t>(now);
        shadow_[k * 2 + 1] = static_cast<uint8_t>(now >> 8);
        read_back(r, "read-modify-write");
    }

    // ---- local registers -----------------------------------------------------

    RegAddr local_words() const
    {
        return itest::rec(0, 0, 2, LOCAL_WORD_KIND, LOCAL_WORD_BASE + id_ * LOCAL_WORDS, LOCAL_WORDS);
    }

    void op_local()
    {
        const RegAddr r = uniform(0, 1) ? local_words()
                                        : itest::rec(0, 0, 0, LOCAL_BIT_KIND, LOCAL_BIT_BASE + id_ * LOCAL_BITS, LOCAL_BITS);
        Bytes data(comclient::data_size(r.type, r.count));
        for (uint8_t& b : data)
            b = static_cast<uint8_t>(uniform(0, 255));
        const Reply w = ask(comclient::encode_write(r, data));
        if (!expect(is_status(w, Command::write, true, 0), "local write: not done", w))
            return;
        const Reply a = ask(comclient::encode_record(Command::com_read, r));
        w_.tally.checked();
        expect(a.kind == ReplyKind::data && a.data == data, "local read-back: differs", a);
    }

    // ---- invalid requests, each on a connection of its own ---------------------

    void op_invalid()
    {
        Client c("127.0.0.1", w_.tcp_port, REPLY_TIMEOUT);
        w_.tally.request();
        switch (uniform(0, 4)) {
        case 0: return bad_packet(c, true);
        case 1: return bad_packet(c, false);
        case 2: return too_short(c);
        case 3: return random_bytes(c);
        default: return disconnect_mid_request(c);
        }
    }

    // A bad checksum or a package_len past 4096 bytes: closed, nothing sent.
    void bad_packet(Client& c, bool checksum)
    {
        Bytes p = comclient::encode_record(Command::com_read, pattern_range());
        if (checksum)
            p.back() ^= 0x5a;
        else
            p[8] = p[9] = 0xff;
        c.send_raw(p);
        const comclient::RawReceive r = c.recv_raw(comclient::kMaxPacket, REPLY_TIMEOUT);
        const char* what = checksum ? "bad checksum" : "huge package_len";
        if (r.status == comclient::RawStatus::timeout)
            w_.tally.wrong(std::string(what) + ": connection not closed in 5 s", "");
        else if (!r.bytes.empty())
            w_.tally.wrong(std::string(what) + ": answered", hex(r.bytes));
    }

    // A request too short for its command's fields is ignored; the
    // connection then serves the next request.
    void too_short(Client& c)
    {
        c.send_raw(comclient::make_packet(static_cast<uint8_t>(Command::com_read), Bytes{1, 2, 3}));
        const Reply a = c.com_read(local_words());
        expect(a.kind == ReplyKind::data && a.data.size() == LOCAL_WORDS * 2, "short request: next request not served", a);
    }

    // Random bytes: whatever the server makes of them, all it may send are
    // well-formed replies. A write command is turned into an unknown one.
    void random_bytes(Client& c)
    {
        Bytes p(uniform(1, 64));
        for (uint8_t& b : p)
            b = static_cast<uint8_t>(uniform(0, 255));
        if (p.size() > 10 && (p[10] == 5 || p[10] == 9))
            p[10] = 11;
        c.send_raw(p);
        Bytes got;
        for (comclient::RawReceive r; (r = c.recv_raw(comclient::kMaxPacket, 100ms)).status == comclient::RawStatus::data;)
            got.insert(got.end(), r.bytes.begin(), r.bytes.end());
        for (size_t at = 0; at < got.size();) {
            const size_t len = got.size() - at >= 10 ? 10 + (got[at + 8] | got[at + 9] << 8) : got.size() + 1;
            if (len > got.size() - at)
                return w_.tally.wrong("random bytes: torn reply", hex(got));
            try {
                comclient::parse_reply({&got[at], len});
            } catch (const comclient::Error& e) {
                return w_.tally.wrong("random bytes: malformed reply", e.what());
            }
            at += len;
        }
    }

    // Half a request, or a whole realtime request whose reply is never read:
    // the client goes away and the server must carry on.
    void disconnect_mid_request(Client& c)
    {
        RegAddr r = pattern_range();
        r.station = SCRATCH_STATION;
        const Bytes p = comclient::encode_record(Command::realtime_read, r);
        c.send_raw(uniform(0, 1) ? Bytes(p.begin(), p.begin() + static_cast<long>(uniform(1, p.size() - 1))) : p);
    }

    const int id_;
    World& w_;
    std::mt19937 rng_;
    std::optional<Client> conn_;
    std::vector<RegAddr> ranges_;
    Bytes shadow_ = Bytes(OWN_WORDS * 2, 0); // what the client's own words hold
    std::optional<Clock::time_point> resync_at_;  // set while shadow_ may be wrong
};

// ---- the server seen from /proc ---------------------------------------------------

struct Sample {
    long rss_kb = -1;
    long threads = -1;
    long fds = -1;
};

Sample sample(pid_t pid)
{
    Sample s;
    const std::string dir = "/proc/" + std::to_string(pid);
    std::ifstream status(dir + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0)
            s.rss_kb = std::stol(line.substr(6));
        else if (line.rfind("Threads:", 0) == 0)
            s.threads = std::stol(line.substr(8));
    }
    std::error_code ec;
    s.fds = 0;
    for (auto it = std::filesystem::directory_iterator(dir + "/fd", ec); !ec && it != std::filesystem::directory_iterator(); it.increment(ec))
        ++s.fds;
    return s;
}

void print_sample(long t, double rate, const Tally& tally, const Sample& s)
{
    std::printf("%5lds  %8.0f req/s  wrong %-6llu lost %-6llu  rss %6ld kB  fds %4ld  threads %4ld\n", t, rate,
                static_cast<unsigned long long>(tally.wrong_count()), static_cast<unsigned long long>(tally.lost_count()),
                s.rss_kb, s.fds, s.threads);
    std::fflush(stdout);
}

rig::Config server_config(int ports)
{
    rig::Config cfg;
    for (int p = 0; p < ports; ++p) {
        rig::PortSetup port;
        port.drv_param1 = static_cast<uint32_t>(p); // the simulated bus is the port number
        cfg.ports.push_back(port);
    }
    // Short sweeps, so the sweeper runs often under load; results are
    // collected well within the three sweeps that retire them.
    cfg.env["COMSERVER_SWEEP_SECONDS"] = "10";
    return cfg;
}

// Writes the pattern every cached and realtime read is checked against.
void fill_pattern(SimControl& ctl, int ports, std::mt19937& rng)
{
    Bytes b(PATTERN_BYTES);
    for (int p = 0; p < ports; ++p) {
        for (uint8_t& x : b)
            x = static_cast<uint8_t>(rng());
        sim_mem_write(ctl, static_cast<uint32_t>(p), PATTERN_STATION, PATTERN_KIND, 1, 0, PATTERN_BYTES, b.data());
    }
}

// Samples every 5 s until the time is up or the server is gone; false when
// the server died.
bool watch(pid_t pid, const Options& opt, const Tally& tally, std::vector<Sample>& samples)
{
    const auto start = Clock::now();
    uint64_t last_requests = 0;
    for (long t = 0; t < opt.seconds;) {
        std::this_thread::sleep_until(start + (t / 5 + 1) * SAMPLE_PERIOD);
        t = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count();
        if (::kill(pid, 0) != 0)
            return false;
        const uint64_t n = tally.requests();
        samples.push_back(sample(pid));
        print_sample(t, static_cast<double>(n - last_requests) / 5.0, tally, samples.back());
        last_requests = n;
    }
    return true;
}

void print_range(const char* what, const std::vector<Sample>& s, long Sample::*field, const char* unit)
{
    long lo = s.front().*field, hi = lo;
    for (const Sample& x : s) {
        lo = std::min(lo, x.*field);
        hi = std::max(hi, x.*field);
    }
    std::printf("  %-8s first %ld, last %ld, min %ld, max %ld %s\n", what, s.front().*field, s.back().*field, lo, hi, unit);
}

} // namespace

int main(int argc, char** argv)
{
    Options opt;
    CLI::App app{"Soak test: many clients against comhost + comserver with simulated ports"};
    app.add_option("--clients", opt.clients, "concurrent clients")->check(CLI::Range(1, MAX_CLIENTS));
    app.add_option("--seconds", opt.seconds, "how long to run")->check(CLI::PositiveNumber);
    app.add_option("--ports", opt.ports, "simulated serial ports")->check(CLI::Range(1, 16));
    app.add_option("--seed", opt.seed, "random seed (0: from the clock)");
    CLI11_PARSE(app, argc, argv);
    if (opt.seed == 0)
        opt.seed = static_cast<uint32_t>(Clock::now().time_since_epoch().count());

    itest::SimServer sim(server_config(opt.ports));
    std::mt19937 rng(opt.seed);
    fill_pattern(*sim.ctl, opt.ports, rng);
    sim.server->start();
    const pid_t pid = sim.server->server_pid();
    const int probe = sim.server->connect_client(LISTEN_DEADLINE);
    if (probe < 0) {
        std::fprintf(stderr, "soak: the server does not accept connections\n");
        return 1;
    }
    ::close(probe);
    std::printf("soak: %d clients, %d s, %d ports, seed %u, server pid %d\n", opt.clients, opt.seconds, opt.ports,
                opt.seed, pid);

    Tally tally;
    World world{static_cast<uint16_t>(sim.server->tcp_port()), *sim.ctl, opt.ports, tally};
    std::atomic<bool> stop{false};
    std::vector<Sample> samples{sample(pid)};
    print_sample(0, 0, tally, samples.back());
    std::vector<std::thread> clients;
    for (int i = 0; i < opt.clients; ++i)
        clients.emplace_back([&, i, seed = rng()] { SoakClient(i, world, seed).run(stop); });
    const bool alive = watch(pid, opt, tally, samples);
    stop = true;
    for (std::thread& t : clients)
        t.join();

    std::printf("soak: %llu requests in %d s (%.0f/s), %llu replies checked, %llu wrong, %llu lost%s\n",
                static_cast<unsigned long long>(tally.requests()), opt.seconds,
                static_cast<double>(tally.requests()) / opt.seconds,
                static_cast<unsigned long long>(tally.checked_count()), static_cast<unsigned long long>(tally.wrong_count()),
                static_cast<unsigned long long>(tally.lost_count()), alive ? "" : "; THE SERVER DIED");
    tally.report();
    print_range("rss", samples, &Sample::rss_kb, "kB");
    print_range("fds", samples, &Sample::fds, "");
    print_range("threads", samples, &Sample::threads, "");
    return alive && tally.wrong_count() == 0 && tally.lost_count() == 0 ? 0 : 1;
}
