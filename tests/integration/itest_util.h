// Helpers shared by the integration tests that talk to a running server:
// register records, check polling, the shared segment seen from outside,
// filters over the simulated plug-in's call log, and running a program to
// its end. Every wait has a deadline. It brings GoogleTest along, so a test
// file includes this header alone for both.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/shm.h>
#include <sys/wait.h>
#include <vector>

#include "base/port_config.h"
#include "comclient.h"
#include "rig.h"
#include "sim_control.h"

namespace itest {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

// addr_unit 0: addresses count register elements.
inline comclient::RegAddr rec(uint8_t port, uint8_t station, uint8_t type, uint8_t kind, int32_t start,
                              int16_t count)
{
    return {.port = port, .station = station, .type = type, .kind = kind, .start = start, .count = count};
}

inline comclient::Client connect(const rig::Server& s, std::chrono::milliseconds timeout = 3s)
{
    const int fd = s.connect_client();
    if (fd < 0)
        throw std::runtime_error("cannot connect to the server");
    return comclient::Client(fd, timeout);
}

// True when the server closes the connection without sending a single byte.
inline bool closed_without_reply(comclient::Client& c)
{
    const comclient::RawReceive r = c.recv_raw(comclient::kMaxPacket, 5s);
    return r.status == comclient::RawStatus::closed && r.bytes.empty();
}

// Repeats check() while it answers "pending"; returns the first other reply.
template <typename Check>
comclient::Reply until_done(Check check)
{
    comclient::Reply last;
    rig::eventually([&] { return !(last = check()).pending(); });
    return last;
}

// com_read until it answers data (or the deadline passes); returns the last reply.
inline comclient::Reply read_until_data(comclient::Client& c, const comclient::RegAddr& r)
{
    comclient::Reply last;
    rig::eventually([&] { return (last = c.com_read(r)).kind == comclient::ReplyKind::data; });
    return last;
}

// A status reply [command][ok][err][sum] with the given error (0: ok); any command for is_error.
inline bool is_status(const comclient::Reply& r, uint8_t command, uint8_t err)
{
    return r.kind == comclient::ReplyKind::status && r.command == command && r.ok == (err == 0) && r.err == err;
}
inline bool is_error(const comclient::Reply& r, uint8_t err) { return is_status(r, r.command, err) && err != 0; }

inline Bytes le16s(std::initializer_list<uint16_t> words)
{
    Bytes b(2 * words.size());
    for (size_t i = 0; i < words.size(); ++i)
        comclient::store_le(&b[2 * i], 2, words.begin()[i]);
    return b;
}

// Runs a program to its end; its exit status (-1 when it did not exit) and stdout.
struct ProgramRun {
    int status = -1;
    std::string out;
};
inline ProgramRun run_program(const std::string& path, const std::vector<std::string>& args)
{
    std::string command = path;
    for (const std::string& a : args)
        command += " '" + a + "'";
    ProgramRun run;
    FILE* p = ::popen(command.c_str(), "r");
    char buf[256];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;)
        run.out.append(buf, n);
    const int status = ::pclose(p);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

// The server's shared segment, attached from the test process. Tests write
// local bits and words directly, without the semaphore.
class Segment {
public:
    Segment(int shmid, bool writable) : base_(static_cast<uint8_t*>(::shmat(shmid, nullptr, writable ? 0 : SHM_RDONLY)))
    {
        if (base_ == reinterpret_cast<uint8_t*>(-1))
            throw std::runtime_error("shmat failed");
    }
    ~Segment() { ::shmdt(base_); }
    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;

    const uint8_t* base() const { return base_; }
    bool bit(uint32_t n) const { return (__atomic_load_n(bits() + n / 8, __ATOMIC_ACQUIRE) >> (n % 8) & 1) != 0; }
    void set_bit(uint32_t n, bool on) const
    {
        const auto mask = static_cast<uint8_t>(1u << (n % 8));
        on ? __atomic_fetch_or(bits() + n / 8, mask, __ATOMIC_ACQ_REL)
           : __atomic_fetch_and(bits() + n / 8, static_cast<uint8_t>(~mask), __ATOMIC_ACQ_REL);
    }
    uint16_t word(uint32_t n) const { return static_cast<uint16_t>(comclient::load_le(words() + 2 * n, 2)); }
    void set_word(uint32_t n, uint16_t v) const { comclient::store_le(words() + 2 * n, 2, v); }

private:
    const shm_head& head() const { return *reinterpret_cast<const shm_head*>(base_); }
    uint8_t* bits() const { return base_ + head().local_bit_offset; }
    uint8_t* words() const { return base_ + head().local_short_offset; }

    uint8_t* base_;
};

// Block reads logged for one (bus, station), oldest first, with seq >= from.
inline std::vector<SimCall> reads_of(SimControl& ctl, uint32_t bus, uint16_t station, uint64_t from = 0)
{
    std::vector<SimCall> out;
    for (const SimCall& c : sim_control_calls(ctl, from)) {
        if (c.entry == SIM_CALL_READ && c.bus == bus && c.plc_id == station)
            out.push_back(c);
    }
    return out;
}

// Waits until at least n reads of (bus, station) have been logged from seq `from` on.
inline bool wait_reads(SimControl& ctl, uint32_t bus, uint16_t station, uint64_t from, size_t n)
{
    return rig::eventually([&] { return reads_of(ctl, bus, station, from).size() >= n; });
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
        if (!(ctl = sim_control_create(path)))
            throw std::runtime_error("cannot create the sim control file");
        server->set_env("COMSERVER_SIM_CONTROL", path);
    }

    std::unique_ptr<rig::Server> server;
    SimControlFile ctl;
};

} // namespace itest
