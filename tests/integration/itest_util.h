// Helpers shared by the integration tests that talk to a running server:
// register records, exact raw receives, check polling, the shared segment
// seen from outside, filters over the simulated plug-in's call log, and
// running a program to its end.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "base/port_config.h"
#include "comclient.h"
#include "rig.h"
#include "sim_control.h"

namespace itest {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

inline comclient::RegAddr rec(uint8_t port, uint8_t station, uint8_t type, uint8_t kind, int32_t start,
                              int16_t count)
{
    comclient::RegAddr r;
    r.port = port;
    r.station = station;
    r.type = type;
    r.kind = kind;
    r.start = start;
    r.count = count;
    return r; // addr_unit 0: addresses count register elements
}

inline comclient::Client connect(const rig::Server& s, std::chrono::milliseconds timeout = 3s)
{
    const int fd = s.connect_client();
    if (fd < 0) {
        throw std::runtime_error("cannot connect to the server");
    }
    return comclient::Client(fd, timeout);
}

// Receives exactly n bytes, or fewer when the peer closes or the deadline passes.
inline Bytes recv_exact(comclient::Client& c, size_t n, std::chrono::milliseconds timeout = 3s)
{
    const auto end = std::chrono::steady_clock::now() + timeout;
    Bytes out;
    while (out.size() < n) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            break;
        }
        const comclient::RawReceive r = c.recv_raw(n - out.size(), left);
        if (r.status != comclient::RawStatus::data) {
            break;
        }
        out.insert(out.end(), r.bytes.begin(), r.bytes.end());
    }
    return out;
}

// True when the server closes the connection without sending a single byte.
inline bool closed_without_reply(comclient::Client& c, std::chrono::milliseconds timeout = 5s)
{
    const comclient::RawReceive r = c.recv_raw(comclient::kMaxPacket, timeout);
    return r.status == comclient::RawStatus::closed && r.bytes.empty();
}

// com_read until it answers data (or the deadline passes); returns the last reply.
inline comclient::Reply read_until_data(comclient::Client& c, const comclient::RegAddr& r,
                                        std::chrono::milliseconds deadline = 10s)
{
    comclient::Reply last;
    rig::eventually([&] {
        last = c.com_read(r);
        return last.kind == comclient::ReplyKind::data;
    }, deadline);
    return last;
}

// Runs a program to its end; its exit status (-1 when it did not exit) and stdout.
struct ProgramRun {
    int status = -1;
    std::string out;
};
inline ProgramRun run_program(const std::string& path, const std::vector<std::string>& args)
{
    int fds[2];
    if (::pipe(fds) != 0)
        return {};
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(fds[1], 1);
        ::close(fds[0]);
        std::vector<char*> argv{const_cast<char*>(path.c_str())};
        for (const std::string& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        ::execv(path.c_str(), argv.data());
        ::_exit(127);
    }
    ::close(fds[1]);
    ProgramRun run;
    char buf[256];
    for (ssize_t n; (n = ::read(fds[0], buf, sizeof buf)) > 0;)
        run.out.append(buf, static_cast<size_t>(n));
    ::close(fds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

// Repeats check() while it answers "pending"; returns the first other reply.
template <typename Check>
comclient::Reply until_done(Check check)
{
    comclient::Reply last;
    rig::eventually([&] { return !(last = check()).pending(); });
    return last;
}

// A status reply [command][ok][err][sum] with the given error (0: ok).
inline bool is_status(const comclient::Reply& r, uint8_t command, uint8_t err)
{
    return r.kind == comclient::ReplyKind::status && r.command == command && r.ok == (err == 0) && r.err == err;
}
inline bool is_error(const comclient::Reply& r, uint8_t err)
{
    return r.kind == comclient::ReplyKind::status && !r.ok && r.err == err;
}

inline Bytes le16s(std::initializer_list<uint16_t> words)
{
    Bytes b;
    for (uint16_t w : words) {
        b.push_back(static_cast<uint8_t>(w));
        b.push_back(static_cast<uint8_t>(w >> 8));
    }
    return b;
}

// The server's shared segment, attached from the test process. Tests write
// local bits and words directly, without the semaphore.
class Segment {
public:
    Segment(int shmid, bool writable)
    {
        void* p = ::shmat(shmid, nullptr, writable ? 0 : SHM_RDONLY);
        if (p == reinterpret_cast<void*>(-1)) {
            throw std::runtime_error("shmat failed");
        }
        base_ = static_cast<uint8_t*>(p);
    }
    ~Segment() { ::shmdt(base_); }
    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;

    bool bit(uint32_t n) const
    {
        return (__atomic_load_n(local_bit() + n / 8, __ATOMIC_ACQUIRE) >> (n % 8) & 1) != 0;
    }
    void set_bit(uint32_t n, bool on) const
    {
        const auto mask = static_cast<uint8_t>(1u << (n % 8));
        if (on) {
            __atomic_fetch_or(local_bit() + n / 8, mask, __ATOMIC_ACQ_REL);
        } else {
            __atomic_fetch_and(local_bit() + n / 8, static_cast<uint8_t>(~mask), __ATOMIC_ACQ_REL);
        }
    }
    uint16_t word(uint32_t n) const
    {
        const uint8_t* p = local_short() + 2 * n;
        return static_cast<uint16_t>(p[0] | p[1] << 8);
    }
    void set_word(uint32_t n, uint16_t v) const
    {
        uint8_t* p = local_short() + 2 * n;
        p[0] = static_cast<uint8_t>(v);
        p[1] = static_cast<uint8_t>(v >> 8);
    }

private:
    const shm_head& head() const { return *reinterpret_cast<const shm_head*>(base_); }
    uint8_t* local_bit() const { return base_ + head().local_bit_offset; }
    uint8_t* local_short() const { return base_ + head().local_short_offset; }

    uint8_t* base_ = nullptr;
};

// Block reads logged for one (bus, station), oldest first, with seq >= from.
inline std::vector<SimCall> reads_of(SimControl& ctl, uint32_t bus, uint16_t station, uint64_t from = 0)
{
    std::vector<SimCall> out;
    for (const SimCall& c : sim_control_calls(ctl, from)) {
        if (c.entry == SIM_CALL_READ && c.bus == bus && c.plc_id == station) {
            out.push_back(c);
        }
    }
    return out;
}

// Waits until at least n reads of (bus, station) have been logged from seq `from` on.
inline bool wait_reads(SimControl& ctl, uint32_t bus, uint16_t station, uint64_t from, size_t n,
                       std::chrono::milliseconds deadline = 10s)
{
    return rig::eventually([&] { return reads_of(ctl, bus, station, from).size() >= n; }, deadline);
}

// A server whose simulated stations are driven through a control file in
// the rig's directory.
struct SimServer {
    explicit SimServer(rig::Config cfg)
    {
        // Ranges registered by the tests must not be retired while they run.
        cfg.env.emplace("COMSERVER_SWEEP_SECONDS", "86400");
        server = std::make_unique<rig::Server>(std::move(cfg));
        const std::string path = server->dir() + "/sim.ctl";
        ctl = sim_control_create(path);
        if (!ctl) {
            throw std::runtime_error("cannot create the sim control file");
        }
        server->set_env("COMSERVER_SIM_CONTROL", path);
    }

    std::unique_ptr<rig::Server> server;
    SimControlFile ctl;
};

} // namespace itest
