// Requests per second of the cached read path: closed-loop clients each
// sending com_read of 100 registered words (a 28-byte request, a 215-byte
// reply) to the real server started by comhost with the simulated PLC,
// beside a bare echo server that answers the same byte counts, driven by
// the same client code in the same run. Short phases alternate between the
// two servers and repeat; each ratio is taken within one round (neighbouring
// phases) and the median over the rounds is reported, so that load from
// other work on the machine falls on both sides alike. Not a test: it
// prints figures and never fails on them.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "comclient.h"
#include "rig.h"

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr size_t kRequestBytes = 28;
constexpr size_t kReplyBytes = 215;
constexpr int16_t kWords = 100;
constexpr auto kWarmUp = 200ms;

struct Options {
    std::chrono::milliseconds phase{1000};
    int rounds = 9;
    int many = 64;
};

// Options from the environment: BENCH_PHASE_MS, BENCH_ROUNDS, BENCH_CLIENTS.
Options options()
{
    Options o;
    if (const char* v = std::getenv("BENCH_PHASE_MS")) o.phase = std::chrono::milliseconds(std::atoi(v));
    if (const char* v = std::getenv("BENCH_ROUNDS")) o.rounds = std::max(1, std::atoi(v));
    if (const char* v = std::getenv("BENCH_CLIENTS")) o.many = std::max(2, std::atoi(v));
    return o;
}

int connect_loopback(uint16_t port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        std::perror("bench: connect");
        std::exit(1);
    }
    const timeval limit{5, 0};  // a lost reply ends the run instead of hanging it
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    return fd;
}

bool read_exact(int fd, uint8_t* buf, size_t n)
{
    for (size_t done = 0; done < n;) {
        const ssize_t r = ::recv(fd, buf + done, n - done, 0);
        if (r <= 0) return false;
        done += static_cast<size_t>(r);
    }
    return true;
}

// Per-client request counter, on its own cache line.
struct alignas(64) Counter {
    std::atomic<uint64_t> n{0};
};

// `clients` connections each send `request` and wait for the whole reply,
// for ever until `stop`; returns requests/s over one phase after a warm-up.
double closed_loop(uint16_t port, int clients, const Bytes& request, std::chrono::milliseconds phase)
{
    std::atomic<bool> stop{false};
    std::atomic<bool> failed{false};
    std::vector<Counter> counts(static_cast<size_t>(clients));
    std::vector<std::thread> threads;
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back([&, i] {
            const int fd = connect_loopback(port);
            uint8_t reply[kReplyBytes];
            while (!stop.load(std::memory_order_relaxed)) {
                if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size()) ||
                    !read_exact(fd, reply, sizeof reply)) {
                    failed = true;
                    break;
                }
                counts[static_cast<size_t>(i)].n.fetch_add(1, std::memory_order_relaxed);
            }
            ::close(fd);
        });
    }
    auto total = [&] {
        uint64_t s = 0;
        for (const Counter& c : counts) s += c.n.load(std::memory_order_relaxed);
        return s;
    };
    std::this_thread::sleep_for(kWarmUp);
    const uint64_t before = total();
    const auto t0 = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(phase);
    const uint64_t after = total();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    stop = true;
    for (std::thread& t : threads) t.join();
    if (failed) {
        std::fprintf(stderr, "bench: a request got no complete reply\n");
        std::exit(1);
    }
    return static_cast<double>(after - before) / seconds;
}

// The echo server: a process of its own, as the server is, with a thread
// per connection, blocking receive and send, as a plain C server would be
// written: takes kRequestBytes, answers kReplyBytes.
class EchoServer {
public:
    EchoServer()
    {
        const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (::bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(listener, SOMAXCONN) != 0 ||
            ::getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
            std::perror("bench: echo server");
            std::exit(1);
        }
        port_ = ntohs(a.sin_port);
        pid_ = ::fork();
        if (pid_ == 0) {
            accept_loop(listener);
        }
        ::close(listener);
    }
    ~EchoServer()
    {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    EchoServer(const EchoServer&) = delete;
    EchoServer& operator=(const EchoServer&) = delete;
    uint16_t port() const { return port_; }

private:
    [[noreturn]] static void accept_loop(int listener)
    {
        for (;;) {
            const int fd = ::accept(listener, nullptr, nullptr);
            if (fd >= 0) std::thread(serve, fd).detach();
        }
    }
    static void serve(int fd)
    {
        uint8_t req[kRequestBytes];
        const uint8_t reply[kReplyBytes] = {};
        while (read_exact(fd, req, sizeof req) &&
               ::send(fd, reply, sizeof reply, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof reply)) {
        }
        ::close(fd);
    }

    pid_t pid_ = -1;
    uint16_t port_ = 0;
};

comclient::RegAddr hundred_words()
{
    comclient::RegAddr r;
    r.station = 1;
    r.type = 2;
    r.kind = 3;
    r.count = kWords;
    return r;
}

// Registers the range, waits for its first poll and checks the byte counts.
void prepare(const rig::Server& server, const Bytes& request)
{
    comclient::Client c(server.connect_client());
    const comclient::RegAddr r = hundred_words();
    c.register_areas(std::vector<comclient::RegAddr>{r});
    comclient::Reply reply;
    const bool polled = rig::eventually([&] {
        reply = c.request(request);
        return reply.kind == comclient::ReplyKind::data;
    });
    if (!polled || request.size() != kRequestBytes || reply.packet.size() != kReplyBytes) {
        std::fprintf(stderr, "bench: expected a %zu-byte request and a %zu-byte data reply, got %zu and %zu\n",
                     kRequestBytes, kReplyBytes, request.size(), reply.packet.size());
        std::exit(1);
    }
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

} // namespace

int main()
{
    const Options o = options();
    const EchoServer echo;  // forked before any thread starts
    rig::Config cfg;
    cfg.ports = {rig::PortSetup{}};
    cfg.env = {{"COMSERVER_SWEEP_SECONDS", "86400"}};
    rig::Server server(cfg);
    server.start();
    const Bytes request = comclient::encode_record(comclient::Command::com_read, hundred_words());
    prepare(server, request);
    const auto comport = static_cast<uint16_t>(server.tcp_port());

    std::vector<double> echo1, echo_n, server1, server_n, vs_echo, scaling;
    std::printf("com_read of %d words: %zu-byte request, %zu-byte reply; %d rounds of %lld ms phases\n\n", kWords,
                kRequestBytes, kReplyBytes, o.rounds, static_cast<long long>(o.phase.count()));
    std::printf("| round | echo 1 | server 1 | echo %d | server %d | server 1 / echo 1 | server %d / server 1 |\n"
                "|---|---|---|---|---|---|---|\n",
                o.many, o.many, o.many);
    for (int round = 1; round <= o.rounds; ++round) {
        echo1.push_back(closed_loop(echo.port(), 1, request, o.phase));
        server1.push_back(closed_loop(comport, 1, request, o.phase));
        echo_n.push_back(closed_loop(echo.port(), o.many, request, o.phase));
        server_n.push_back(closed_loop(comport, o.many, request, o.phase));
        vs_echo.push_back(server1.back() / echo1.back());
        scaling.push_back(server_n.back() / server1.back());
        std::printf("| %d | %.0f | %.0f | %.0f | %.0f | %.2f | %.2f |\n", round, echo1.back(), server1.back(),
                    echo_n.back(), server_n.back(), vs_echo.back(), scaling.back());
        std::fflush(stdout);
    }
    std::printf("\nmedians: echo 1 %.0f/s, server 1 %.0f/s, echo %d %.0f/s, server %d %.0f/s\n", median(echo1),
                median(server1), o.many, median(echo_n), o.many, median(server_n));
    std::printf("server 1 client / echo 1 client: %.2f\n", median(vs_echo));
    std::printf("server %d clients / server 1 client: %.2f\n", o.many, median(scaling));
    server.stop();
    return 0;
}
