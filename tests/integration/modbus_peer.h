// A Modbus station run by a test or a benchmark with libmodbus, over TCP on
// loopback or RTU on a serial device. One thread answers every connected
// master from one table; the test reads and changes the table through the
// accessors, which take the table's mutex as the serving thread does. A TCP
// peer can be stopped and started again on the same port.
#pragma once

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <modbus.h>

#include "rig.h"

namespace itest {

class ModbusPeer {
public:
    static constexpr int kTableSize = 2048;  // coils, inputs and registers of each kind

    struct Request {
        int function, address, count;
    };

    // TCP on 127.0.0.1; port 0 picks a free port, kept across restarts.
    explicit ModbusPeer(uint16_t port = 0) : tcp_(true), port_(port) { start(); }
    // RTU on a serial device, answering one unit id.
    ModbusPeer(std::string device, int unit) : tcp_(false), device_(std::move(device)), unit_(unit) { start(); }
    ~ModbusPeer()
    {
        stop();
        modbus_mapping_free(table_);
    }
    ModbusPeer(const ModbusPeer&) = delete;
    ModbusPeer& operator=(const ModbusPeer&) = delete;

    void start()
    {
        ctx_ = tcp_ ? modbus_new_tcp("127.0.0.1", port_) : modbus_new_rtu(device_.c_str(), 19200, 'E', 8, 1);
        if (tcp_ && (listener_ = modbus_tcp_listen(ctx_, 4)) >= 0) {
            port_ = static_cast<uint16_t>(rig::local_port(listener_));
        } else if (tcp_ || modbus_set_slave(ctx_, unit_) == -1 || modbus_connect(ctx_) == -1) {
            throw std::runtime_error(std::string("Modbus peer: ") + modbus_strerror(errno));
        }
        stopping_ = false;
        thread_ = std::thread([this] { serve(); });
    }

    // Closes the listener and every connection: masters see the station go away.
    void stop()
    {
        if (!thread_.joinable())
            return;
        stopping_ = true;
        thread_.join();
        if (!tcp_)
            modbus_close(ctx_);
        modbus_free(ctx_);
    }

    uint16_t port() const { return port_; }
    // Pause before each reply, as a real station's response time.
    void set_delay(std::chrono::microseconds d) { delay_us_ = d.count(); }

    // Runs fn under the table's mutex.
    template <typename Fn>
    auto locked(Fn fn) const
    {
        std::lock_guard g(mutex_);
        return fn();
    }
    uint16_t holding(int a) const { return locked([&] { return table_->tab_registers[a]; }); }
    void set_holding(int a, uint16_t v) { locked([&] { table_->tab_registers[a] = v; }); }
    void set_input(int a, uint16_t v) { locked([&] { table_->tab_input_registers[a] = v; }); }
    bool coil(int a) const { return locked([&] { return table_->tab_bits[a] != 0; }); }
    void set_coil(int a, bool v) { locked([&] { table_->tab_bits[a] = v; }); }
    void set_discrete(int a, bool v) { locked([&] { table_->tab_input_bits[a] = v; }); }
    std::vector<Request> requests() const { return locked([&] { return log_; }); }
    uint64_t request_count() const { return locked([&] { return log_.size(); }); }

private:
    // Polls the listener (TCP) or the line (RTU) and every accepted master;
    // a master that hangs up is dropped, the rest are closed when stopping.
    void serve()
    {
        std::vector<pollfd> fds{{tcp_ ? listener_ : modbus_get_socket(ctx_), POLLIN, 0}};
        uint8_t req[MODBUS_TCP_MAX_ADU_LENGTH];
        while (!stopping_) {
            if (::poll(fds.data(), fds.size(), 20) <= 0)
                continue;
            if (tcp_ && (fds[0].revents & POLLIN)) {
                if (const int fd = ::accept(listener_, nullptr, nullptr); fd >= 0)
                    fds.push_back(pollfd{fd, POLLIN, 0});
            }
            for (size_t i = fds.size(); i-- > (tcp_ ? 1 : 0);) {
                if (fds[i].revents == 0)
                    continue;
                modbus_set_socket(ctx_, fds[i].fd);
                if (const int len = modbus_receive(ctx_, req); len > 0) {
                    reply(req, len);
                } else if (len < 0 && tcp_) {
                    ::close(fds[i].fd);
                    fds.erase(fds.begin() + static_cast<std::ptrdiff_t>(i));
                }
            }
        }
        for (size_t i = tcp_ ? 0 : 1; i < fds.size(); ++i) {
            ::close(fds[i].fd);  // the listener and the masters; stop() closes a serial line
        }
    }

    void reply(const uint8_t* req, int len)
    {
        const int h = modbus_get_header_length(ctx_);
        std::this_thread::sleep_for(std::chrono::microseconds(delay_us_));
        std::lock_guard g(mutex_);
        log_.push_back(Request{req[h], MODBUS_GET_INT16_FROM_INT8(req, h + 1), MODBUS_GET_INT16_FROM_INT8(req, h + 3)});
        modbus_reply(ctx_, req, len, table_);
    }

    const bool tcp_;
    uint16_t port_ = 0;
    std::string device_;
    int unit_ = 0;
    modbus_t* ctx_ = nullptr;
    int listener_ = -1;
    modbus_mapping_t* table_ = modbus_mapping_new(kTableSize, kTableSize, kTableSize, kTableSize);
    mutable std::mutex mutex_;
    std::vector<Request> log_;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    std::atomic<int64_t> delay_us_{0};
};

} // namespace itest
