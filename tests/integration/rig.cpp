// The integration test rig's processes and sockets; see rig.h. Every child is
// stopped by PID and every temp directory removed, whatever the test did.
#include "rig.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <netinet/in.h>
#include <fstream>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace rig {
namespace {

// 127.0.0.1 at port (0 for bind: any free port).
sockaddr_in loopback(int port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
    return a;
}

} // namespace

int listen_socket(int type_flags)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | type_flags, 0);
    const sockaddr_in a = loopback(0);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0 || ::listen(fd, 1) != 0)
        throw std::runtime_error("cannot listen on a loopback port");
    return fd;
}

int local_port(int fd)
{
    sockaddr_in a{};
    socklen_t len = sizeof a;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    return ntohs(a.sin_port);
}

int connect_socket(int port, int type_flags, int rcvbuf)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | type_flags, 0);
    if (rcvbuf > 0)
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
    const sockaddr_in a = loopback(port);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0 || errno == EINPROGRESS)
        return fd;
    ::close(fd);
    return -1;
}

int free_tcp_port()
{
    const int fd = listen_socket();
    const int port = local_port(fd);
    ::close(fd);
    return port;
}

Process::Process(const std::string& what) : dir_("/tmp/comserver-" + what + "-XXXXXX")
{
    if (::mkdtemp(dir_.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed");
}

Process::~Process()
{
    kill_hard();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
}

void Process::spawn(const std::vector<std::string>& argv, const std::function<void()>& in_child)
{
    const std::string log = dir_ + "/output.log";
    std::vector<char*> args;
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    // Emptied before the fork, so that a restarted process's output is never
    // mistaken for what the previous run wrote.
    std::ofstream(log, std::ios::trunc).close();
    pid_ = ::fork();
    if (pid_ < 0)
        throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        ::dup2(fd, 1);
        ::dup2(fd, 2);
        ::close(fd);
        if (in_child)
            in_child();
        ::execvp(args[0], args.data());
        ::_exit(127);
    }
}

int Process::stop(std::chrono::milliseconds deadline)
{
    if (pid_ <= 0)
        return -1;
    ::kill(pid_, SIGTERM);
    int status = 0;
    if (!eventually([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, deadline)) {
        kill_hard();
        return -1;
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void Process::kill_hard()
{
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

std::string Process::output() const
{
    std::ifstream f(dir_ + "/output.log", std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

bool Process::wait_for(const std::string& text, std::chrono::milliseconds deadline, size_t from) const
{
    return eventually([&] {
        const std::string out = output();
        return out.size() > from && out.find(text, from) != std::string::npos;
    }, deadline);
}

size_t Process::count(const std::string& text) const
{
    const std::string out = output();
    size_t n = 0;
    for (size_t at = out.find(text); at != std::string::npos; at = out.find(text, at + text.size()))
        ++n;
    return n;
}

namespace {

// Runs in the forked child: fills descriptors 3 .. last with /dev/null (kept
// across exec) and raises the descriptor limit well above them.
void take_low_fds(int last)
{
    rlimit lim{};
    ::getrlimit(RLIMIT_NOFILE, &lim);
    const rlim_t hard = lim.rlim_max;
    lim.rlim_cur = std::max(lim.rlim_cur, static_cast<rlim_t>(last) + 4096);
    lim.rlim_max = std::max(lim.rlim_max, lim.rlim_cur);
    if (::setrlimit(RLIMIT_NOFILE, &lim) != 0) {
        lim.rlim_cur = lim.rlim_max = hard; // not allowed to raise the hard limit
        ::setrlimit(RLIMIT_NOFILE, &lim);
    }
    const int null_fd = ::open("/dev/null", O_RDONLY);
    for (int fd = 3; fd <= last; ++fd) {
        if (fd != null_fd)
            ::dup2(null_fd, fd);
    }
}

} // namespace

Server::Server(Config cfg) : Process("test"), cfg_(std::move(cfg))
{
    cfg_.env.try_emplace("COMSERVER_SRAM_PATH", dir() + "/sram");
    cfg_.env.try_emplace("COMSERVER_DATA_DIR", dir());
    cfg_.env.try_emplace("COMSERVER_SPI_PATH", dir() + "/spi");
    if (cfg_.tcp_port == 0)
        cfg_.tcp_port = free_tcp_port();
}

void Server::write_config() const
{
    std::ofstream f(dir() + "/config.toml");
    f << "tcp_port = " << cfg_.tcp_port << "\nplugin_dir = \"run\"\nsim_plugin = \"" << SIM_PLUGIN_PATH
      << "\"\nserver = \"" << COMSERVER_PATH << "\"\nlocal_word_count = " << cfg_.local_word_count
      << "\nlocal_bit_count = " << cfg_.local_bit_count << "\ninitial_bits = [";
    for (size_t i = 0; i < cfg_.initial_bits.size(); ++i)
        f << (i ? ", " : "") << cfg_.initial_bits[i];
    f << "]\n";
    for (size_t i = 0; i < cfg_.ports.size(); ++i) {
        const PortSetup& p = cfg_.ports[i];
        f << "\n[[port]]\ndeviceport = " << (p.deviceport < 0 ? static_cast<int>(i) : p.deviceport)
          << "\nworking_mode = " << p.working_mode << "\nplc_driver_no = " << p.plc_driver_no
          << (p.drv_param1 ? "\ndrv_param1 = " + std::to_string(p.drv_param1) : "")
          << "\nmax_words = " << p.max_words << "\nmax_bits = " << p.max_bits << "\nword_gap = " << p.word_gap
          << "\nbit_gap = " << p.bit_gap << "\nplugin = \"" << p.plugin << "\"\n" << p.extra << "\n";
    }
}

void Server::start()
{
    write_config();
    spawn({COMHOST_PATH, dir() + "/config.toml"}, [this] {
        if (cfg_.low_fds_taken > 0)
            take_low_fds(cfg_.low_fds_taken);
        for (const auto& [k, v] : cfg_.env)
            ::setenv(k.c_str(), v.c_str(), 1);
    });
    if (!wait_for("clients connect to", std::chrono::seconds(20)))
        throw std::runtime_error("comhost did not report the server pid:\n" + output());
    const std::string out = output();
    server_pid_ = static_cast<pid_t>(std::stol(out.substr(out.find("server pid ") + 11)));

    // The server's command line ends in MODE SHMID SEMID. Counted from the end:
    // under emulation the line starts with the emulator's own path.
    std::ifstream cmdline("/proc/" + std::to_string(server_pid_) + "/cmdline");
    std::vector<std::string> args;
    for (std::string a; std::getline(cmdline, a, '\0');)
        args.push_back(a);
    if (args.size() >= 4) {
        shmid_ = std::stoi(args[args.size() - 2]);
        semid_ = std::stoi(args.back());
    }
}

void Server::stop()
{
    // -1 also when comhost had to be killed: then the server goes the same way.
    if (pid() > 0 && Process::stop() == -1 && server_pid_ > 0)
        ::kill(server_pid_, SIGKILL);
}

int Server::connect_client(std::chrono::milliseconds deadline) const
{
    int fd = -1;
    eventually([&] { return (fd = connect_socket(cfg_.tcp_port)) >= 0; }, deadline);
    return fd;
}

} // namespace rig
