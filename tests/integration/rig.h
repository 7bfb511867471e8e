// Integration test rig: child processes in their own temp directories with
// their output captured, and comhost (and through it comserver) started on a
// free loopback TCP port from a configuration the test describes. Everything
// is stopped by PID and its directory removed; waits go through eventually().
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <sys/socket.h>
#include <sys/types.h>
#include <vector>

namespace rig {

struct PortSetup {
    int deviceport = -1;        // -1: the port's index
    int working_mode = 1;
    int plc_driver_no = 5;
    uint32_t drv_param1 = 0;
    int max_words = 64;
    int max_bits = 256;
    int word_gap = 4;
    int bit_gap = 16;
    std::string plugin = "sim"; // "sim", "modbus", "none" or a file to copy
    std::string extra;          // more lines of the [[port]] table, as TOML
};

struct Config {
    std::vector<PortSetup> ports;
    std::vector<int> initial_bits;
    std::map<std::string, std::string> env; // extra environment for comhost/comserver
    int tcp_port = 0;                       // 0: pick a free port
    int local_word_count = 16384;
    int local_bit_count = 16384;
    // When above 0: comhost and the server inherit descriptors 3 .. low_fds_taken
    // (and a descriptor limit to match), so every descriptor the server opens
    // itself is numbered above them.
    int low_fds_taken = 0;
};

// A child process whose stdout and stderr go to <dir>/output.log, in a temp
// directory of its own; killed and the directory removed on destruction.
class Process {
public:
    explicit Process(const std::string& what);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Forks and executes argv[0] (searched in PATH); in_child runs in the child just before.
    void spawn(const std::vector<std::string>& argv, const std::function<void()>& in_child = {});
    // SIGTERM, then waits; the exit status, -1 when it had to be killed or died of a signal.
    int stop(std::chrono::milliseconds deadline = std::chrono::seconds(10));
    void kill_hard();

    pid_t pid() const { return pid_; }
    const std::string& dir() const { return dir_; }
    std::string output() const;
    // Waits until the output contains text (from byte `from` on).
    bool wait_for(const std::string& text, std::chrono::milliseconds deadline = std::chrono::seconds(15),
                  size_t from = 0) const;
    size_t count(const std::string& text) const;

private:
    std::string dir_;
    pid_t pid_ = -1;
};

class Server : public Process {
public:
    explicit Server(Config cfg);
    ~Server() { stop(); }

    // Starts comhost and waits until the server has written its pid.
    void start();
    // SIGTERM to comhost (which forwards it), wait, SIGKILL as a last resort.
    void stop();
    // Connected socket to the server's listener, retried until the deadline; -1 on failure.
    int connect_client(std::chrono::milliseconds deadline = std::chrono::seconds(15)) const;

    // Extra environment for comhost/comserver, set before start() (e.g. files under dir()).
    void set_env(const std::string& key, const std::string& value) { cfg_.env[key] = value; }
    int tcp_port() const { return cfg_.tcp_port; }
    pid_t server_pid() const { return server_pid_; }
    int shmid() const { return shmid_; }
    int semid() const { return semid_; }

private:
    void write_config() const;

    Config cfg_;
    pid_t server_pid_ = -1;
    int shmid_ = -1;
    int semid_ = -1;
};

// A TCP socket (type_flags: SOCK_NONBLOCK, SOCK_CLOEXEC) listening on a free loopback port.
int listen_socket(int type_flags = 0);
// The local port of a bound socket.
int local_port(int fd);
// A TCP socket connecting to a loopback port: -1 when a blocking connect fails;
// a non-blocking one may still be connecting. rcvbuf > 0 sets SO_RCVBUF first.
int connect_socket(int port, int type_flags = 0, int rcvbuf = 0);
// A loopback TCP port that was free a moment ago.
int free_tcp_port();

// Waits until pred() holds or the deadline passes; returns pred()'s last value.
template <typename Pred>
bool eventually(Pred pred, std::chrono::milliseconds deadline = std::chrono::seconds(10))
{
    for (const auto end = std::chrono::steady_clock::now() + deadline;;) {
        if (pred())
            return true;
        if (std::chrono::steady_clock::now() >= end)
            return pred();
        struct timespec ts {0, 10 * 1000 * 1000};
        nanosleep(&ts, nullptr);
    }
}

} // namespace rig
