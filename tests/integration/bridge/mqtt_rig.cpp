#include "mqtt_rig.h"

#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mosquitto.h>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace mqtt_rig {
namespace {

std::string make_temp_dir(const char* what)
{
    std::string tmpl = std::string("/tmp/comserver-") + what + "-XXXXXX";
    if (::mkdtemp(tmpl.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    return tmpl;
}

bool accepts_connections(int port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    ::close(fd);
    return ok;
}

struct LibMosquitto {
    LibMosquitto() { mosquitto_lib_init(); }
    ~LibMosquitto() { mosquitto_lib_cleanup(); }
};

} // namespace

void Process::spawn(const std::vector<std::string>& argv)
{
    const std::string log = dir_ + "/output.log";
    pid_ = ::fork();
    if (pid_ < 0)
        throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        ::dup2(fd, 1);
        ::dup2(fd, 2);
        ::close(fd);
        std::vector<char*> args;
        for (const std::string& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
}

int Process::stop(std::chrono::milliseconds deadline)
{
    if (pid_ <= 0)
        return -1;
    ::kill(pid_, SIGTERM);
    int status = 0;
    const bool ended = rig::eventually([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, deadline);
    if (!ended) {
        kill_hard();
        return -1;
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void Process::kill_hard()
{
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

std::string Process::output() const
{
    std::ifstream f(dir_ + "/output.log", std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

Broker::Broker(const std::string& extra_conf) : dir_(make_temp_dir("broker")), port_(rig::free_tcp_port()), proc_(dir_)
{
    std::ofstream conf(dir_ + "/mosquitto.conf");
    conf << "listener " << port_ << " 127.0.0.1\nallow_anonymous true\npersistence false\n" << extra_conf;
}

Broker::~Broker()
{
    proc_.kill_hard();
    std::error_code ec;
    fs::remove_all(dir_, ec);
}

void Broker::start()
{
    proc_.spawn({MOSQUITTO_PATH, "-c", dir_ + "/mosquitto.conf"});
    if (!rig::eventually([&] { return accepts_connections(port_); }))
        throw std::runtime_error("mosquitto does not listen:\n" + proc_.output());
}

Bridge::Bridge(const std::string& config_toml) : dir_(make_temp_dir("bridge")), proc_(dir_)
{
    std::ofstream(dir_ + "/bridge.toml") << config_toml;
    proc_.spawn({COMBRIDGE_PATH, dir_ + "/bridge.toml"});
}

Bridge::~Bridge()
{
    proc_.kill_hard();
    std::error_code ec;
    fs::remove_all(dir_, ec);
}

Probe::Probe(int port, const std::string& filter, bool keep_history, int qos)
    : filter_(filter), keep_history_(keep_history), qos_(qos)
{
    static LibMosquitto lib;
    mosq_ = mosquitto_new(nullptr, true, this);
    mosquitto_connect_callback_set(mosq_, on_connect);
    mosquitto_message_callback_set(mosq_, on_message);
    mosquitto_reconnect_delay_set(mosq_, 1, 1, false);
    mosquitto_loop_start(mosq_);
    mosquitto_connect_async(mosq_, "127.0.0.1", port, 30);
}

Probe::~Probe()
{
    mosquitto_disconnect(mosq_);
    mosquitto_loop_stop(mosq_, false);
    mosquitto_destroy(mosq_);
}

void Probe::on_connect(mosquitto* m, void* self, int rc)
{
    if (rc == 0)
        mosquitto_subscribe(m, nullptr, static_cast<Probe*>(self)->filter_.c_str(), static_cast<Probe*>(self)->qos_);
}

void Probe::on_message(mosquitto*, void* self, const mosquitto_message* msg)
{
    auto* p = static_cast<Probe*>(self);
    std::string payload(static_cast<const char*>(msg->payload), static_cast<size_t>(msg->payloadlen));
    std::lock_guard lock(p->mutex_);
    auto& list = p->messages_[msg->topic];
    if (!p->keep_history_)
        list.clear();
    list.push_back(std::move(payload));
    ++p->total_;
}

void Probe::publish(const std::string& topic, const std::string& payload)
{
    mosquitto_publish(mosq_, nullptr, topic.c_str(), static_cast<int>(payload.size()), payload.data(), 1, false);
}

std::vector<std::string> Probe::history(const std::string& topic) const
{
    std::lock_guard lock(mutex_);
    auto it = messages_.find(topic);
    return it == messages_.end() ? std::vector<std::string>{} : it->second;
}

std::string Probe::last(const std::string& topic) const
{
    std::lock_guard lock(mutex_);
    auto it = messages_.find(topic);
    return it == messages_.end() || it->second.empty() ? std::string() : it->second.back();
}

std::string Probe::wait_nth(const std::string& topic, size_t n, std::chrono::milliseconds deadline) const
{
    std::vector<std::string> h;
    rig::eventually([&] { return (h = history(topic)).size() >= n; }, deadline);
    return h.size() >= n ? h[n - 1] : std::string();
}

uint64_t Probe::total() const
{
    std::lock_guard lock(mutex_);
    return total_;
}

Json parse(const std::string& payload)
{
    return Json::parse(payload, nullptr, false);
}

} // namespace mqtt_rig
