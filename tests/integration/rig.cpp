#include "rig.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace rig {

int free_tcp_port()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = 0;
    ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    ::close(fd);
    return ntohs(a.sin_port);
}

Server::Server(Config cfg) : cfg_(std::move(cfg))
{
    char tmpl[] = "/tmp/comserver-test-XXXXXX";
    if (::mkdtemp(tmpl) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    dir_ = tmpl;
    if (cfg_.tcp_port == 0) {
        cfg_.tcp_port = free_tcp_port();
    }
}

Server::~Server()
{
    stop();
    std::error_code ec;
    fs::remove_all(dir_, ec);
}

void Server::write_config() const
{
    std::ofstream f(dir_ + "/config.toml");
    f << "tcp_port = " << cfg_.tcp_port << "\n";
    f << "plugin_dir = \"run\"\n";
    f << "sim_plugin = \"" << SIM_PLUGIN_PATH << "\"\n";
    f << "server = \"" << COMSERVER_PATH << "\"\n";
    if (!cfg_.initial_bits.empty()) {
        f << "initial_bits = [";
        for (size_t i = 0; i < cfg_.initial_bits.size(); ++i) {
            f << (i ? ", " : "") << cfg_.initial_bits[i];
        }
        f << "]\n";
    }
    for (size_t i = 0; i < cfg_.ports.size(); ++i) {
        const PortSpec& p = cfg_.ports[i];
        f << "\n[[port]]\n";
        f << "deviceport = " << (p.deviceport < 0 ? static_cast<int>(i) : p.deviceport) << "\n";
        f << "working_mode = " << p.working_mode << "\n";
        f << "plc_driver_no = " << p.plc_driver_no << "\n";
        f << "drv_param1 = " << p.drv_param1 << "\n";
        f << "max_words = " << p.max_words << "\n";
        f << "word_gap = " << p.word_gap << "\n";
        f << "bit_gap = " << p.bit_gap << "\n";
        f << "plugin = \"" << p.plugin << "\"\n";
    }
}

void Server::start()
{
    write_config();
    const std::string log = dir_ + "/output.log";
    host_pid_ = ::fork();
    if (host_pid_ < 0) {
        throw std::runtime_error("fork failed");
    }
    if (host_pid_ == 0) {
        const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(fd, 1);
        ::dup2(fd, 2);
        ::close(fd);
        for (const auto& [k, v] : cfg_.env) {
            ::setenv(k.c_str(), v.c_str(), 1);
        }
        if (cfg_.env.find("COMSERVER_SRAM_PATH") == cfg_.env.end()) {
            ::setenv("COMSERVER_SRAM_PATH", (dir_ + "/sram").c_str(), 1);
        }
        if (cfg_.env.find("COMSERVER_DATA_DIR") == cfg_.env.end()) {
            ::setenv("COMSERVER_DATA_DIR", dir_.c_str(), 1);
        }
        if (cfg_.env.find("COMSERVER_SPI_PATH") == cfg_.env.end()) {
            ::setenv("COMSERVER_SPI_PATH", (dir_ + "/spi").c_str(), 1);
        }
        const std::string cfg = dir_ + "/config.toml";
        ::execl(COMHOST_PATH, COMHOST_PATH, cfg.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }

    if (!wait_for("clients connect to", std::chrono::seconds(20))) {
        throw std::runtime_error("comhost did not report the server pid:\n" + output());
    }
    const std::string out = output();
    const size_t at = out.find("server pid ");
    server_pid_ = static_cast<pid_t>(std::atol(out.c_str() + at + 11));

    // The server's command line names the segment and the semaphore set.
    std::ifstream cmdline("/proc/" + std::to_string(server_pid_) + "/cmdline");
    std::string all((std::istreambuf_iterator<char>(cmdline)), std::istreambuf_iterator<char>());
    std::vector<std::string> args;
    std::stringstream ss(all);
    for (std::string a; std::getline(ss, a, '\0');) {
        args.push_back(a);
    }
    if (args.size() >= 4) {
        shmid_ = std::atoi(args[2].c_str());
        semid_ = std::atoi(args[3].c_str());
    }
}

void Server::stop()
{
    if (host_pid_ <= 0) {
        return;
    }
    ::kill(host_pid_, SIGTERM);
    int status = 0;
    const bool ended = eventually([&] { return ::waitpid(host_pid_, &status, WNOHANG) == host_pid_; },
                                  std::chrono::seconds(10));
    if (!ended) {
        if (server_pid_ > 0) {
            ::kill(server_pid_, SIGKILL);
        }
        ::kill(host_pid_, SIGKILL);
        ::waitpid(host_pid_, &status, 0);
    }
    host_pid_ = -1;
}

std::string Server::output() const
{
    std::ifstream f(dir_ + "/output.log", std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

bool Server::wait_for(const std::string& text, std::chrono::milliseconds deadline, size_t from) const
{
    return eventually([&] {
        const std::string out = output();
        return out.size() > from && out.find(text, from) != std::string::npos;
    }, deadline);
}

size_t Server::count(const std::string& text) const
{
    const std::string out = output();
    size_t n = 0;
    for (size_t at = out.find(text); at != std::string::npos; at = out.find(text, at + text.size())) {
        ++n;
    }
    return n;
}

int Server::connect_client(std::chrono::milliseconds deadline) const
{
    int fd = -1;
    eventually([&] {
        fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(static_cast<uint16_t>(cfg_.tcp_port));
        if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
            return true;
        }
        ::close(fd);
        fd = -1;
        return false;
    }, deadline);
    return fd;
}

} // namespace rig
