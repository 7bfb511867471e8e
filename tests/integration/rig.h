// Integration test rig: writes a comhost configuration into a temp
// directory, starts comhost (and through it comserver) on a free TCP port,
// captures their output, and stops everything by PID at the end.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace rig {

struct PortSpec {
    int deviceport = -1;        // -1: the port's index
    int working_mode = 1;
    int plc_driver_no = 5;
    uint32_t drv_param1 = 0;
    int max_words = 64;
    int word_gap = 4;
    int bit_gap = 16;
    std::string plugin = "sim"; // "sim", "none" or a file to copy
};

struct Config {
    std::vector<PortSpec> ports;
    std::vector<int> initial_bits;
    std::map<std::string, std::string> env; // extra environment for comhost/comserver
    int tcp_port = 0;                       // 0: pick a free port
};

class Server {
public:
    explicit Server(Config cfg);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Starts comhost and waits until the server has written its pid.
    void start();
    // SIGTERM to comhost (which forwards it), wait, SIGKILL as a last resort.
    void stop();

    // Waits until the captured output contains text (from byte `from` on).
    bool wait_for(const std::string& text, std::chrono::milliseconds deadline = std::chrono::seconds(15),
                  size_t from = 0) const;
    // Counts occurrences of text in the output.
    size_t count(const std::string& text) const;
    std::string output() const;
    // Connected socket to the server's listener, retried until the deadline; -1 on failure.
    int connect_client(std::chrono::milliseconds deadline = std::chrono::seconds(15)) const;

    // Extra environment for comhost/comserver, set before start() (e.g. files under dir()).
    void set_env(const std::string& key, const std::string& value) { cfg_.env[key] = value; }
    const std::string& dir() const { return dir_; }
    int tcp_port() const { return cfg_.tcp_port; }
    pid_t server_pid() const { return server_pid_; }
    int shmid() const { return shmid_; }
    int semid() const { return semid_; }

private:
    void write_config() const;

    Config cfg_;
    std::string dir_;
    pid_t host_pid_ = -1;
    pid_t server_pid_ = -1;
    int shmid_ = -1;
    int semid_ = -1;
};

// A loopback TCP port that was free a moment ago.
int free_tcp_port();

// Waits until pred() holds or the deadline passes; returns pred()'s last value.
template <typename Pred>
bool eventually(Pred pred, std::chrono::milliseconds deadline = std::chrono::seconds(10))
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    for (;;) {
        if (pred()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= end) {
            return pred();
        }
        struct timespec ts {0, 10 * 1000 * 1000};
        nanosleep(&ts, nullptr);
    }
}

} // namespace rig
