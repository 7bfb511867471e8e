// Connection handling under load: a burst of clients on descriptors numbered
// above 1024, the connection cap, and a client that stops reading its
// replies while other clients and the port threads carry on.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "itest_util.h"
#include "server/connection.h"

using namespace std::chrono_literals;
using comclient::Client;
using comclient::Command;
using comclient::RegAddr;
using comclient::ReplyKind;
using itest::Bytes;
using itest::rec;

namespace {

const RegAddr kLocalWord = rec(0, 0, 2, 255, 10, 1);
constexpr size_t kLocalWordReply = 17; // header, [3][1][u16 2][2 bytes][sum]

// Connects n clients at once, sends each a local read and waits until every
// one has its whole reply or the deadline passes. Returns the sockets of the
// clients answered.
std::vector<int> burst(const rig::Server& s, size_t n, std::chrono::milliseconds deadline)
{
    std::vector<int> fds;
    for (size_t i = 0; i < n; ++i)
        fds.push_back(rig::connect_socket(s.tcp_port(), SOCK_NONBLOCK));
    const Bytes req = comclient::encode_record(Command::com_read, kLocalWord);
    std::vector<size_t> sent(n, 0), got(n, 0);
    std::vector<int> answered;
    rig::eventually([&] {
        for (size_t i = 0; i < n; ++i) {
            if (sent[i] < req.size()) {
                const ssize_t k = ::send(fds[i], req.data() + sent[i], req.size() - sent[i], MSG_NOSIGNAL);
                sent[i] += k > 0 ? static_cast<size_t>(k) : 0;
            }
            uint8_t buf[64];
            const ssize_t k = ::recv(fds[i], buf, sizeof buf, 0);
            if (k > 0 && (got[i] += static_cast<size_t>(k)) == kLocalWordReply)
                answered.push_back(fds[i]);
        }
        return answered.size() == n;
    }, deadline);
    return answered;
}

void close_all(std::vector<int>& fds)
{
    for (int fd : fds)
        ::close(fd);
    fds.clear();
}

TEST(Connections, BurstOnHighDescriptorsUpToTheCap)
{
    rig::Server server({.low_fds_taken = 1100}); // every descriptor the server opens is above 1024
    server.start();

    // A short listen backlog shows as connects retried after seconds: the
    // first burst must be answered within 5 s. Filling up to the cap is only
    // about the count, and starting hundreds of threads is slow under the
    // sanitizers and emulation, so it gets a generous deadline.
    std::vector<int> first = burst(server, 200, 5s);
    EXPECT_EQ(first.size(), 200u) << "every client of the burst is answered";
    std::vector<int> rest = burst(server, MAX_CLIENTS - first.size(), 60s);
    ASSERT_EQ(first.size() + rest.size(), static_cast<size_t>(MAX_CLIENTS));

    Client over = itest::connect(server);
    EXPECT_TRUE(itest::closed_without_reply(over)) << "one client more than the cap";
    EXPECT_TRUE(server.wait_for("Too many clients\r\n"));
    close_all(rest);
    Client again = itest::connect(server);
    EXPECT_TRUE(rig::eventually([&] {
        try {
            return again.com_read(kLocalWord).kind == ReplyKind::data;
        } catch (const comclient::Error&) {
            again = itest::connect(server); // refused while the closed ones were still ending
            return false;
        }
    }));
    close_all(first);
}

TEST(Connections, ClientThatStopsReadingStallsNobody)
{
    itest::SimServer sim(rig::Config{.ports = {{.plc_driver_no = 5, .drv_param1 = 0}}});
    SimControl& ctl = *sim.ctl;
    sim.server->start();
    Client c = itest::connect(*sim.server);
    const RegAddr big = rec(0, 1, 2, 3, 0, 2000);
    ASSERT_EQ(itest::read_until_data(c, big).kind, ReplyKind::data);

    // Two clients ask for large replies and never read them: one is
    // answered from a PLC cache, one from the local word area.
    const RegAddr local = rec(0, 0, 2, 255, 0, 256);
    std::vector<int> stuck;
    for (const RegAddr& r : {big, local}) {
        const int fd = rig::connect_socket(sim.server->tcp_port(), SOCK_NONBLOCK, 4096);
        const Bytes req = comclient::encode_record(Command::com_read, r);
        size_t at = 0; // sends may end inside a request: go on from there
        ASSERT_TRUE(rig::eventually([&] {
            for (ssize_t k; (k = ::send(fd, req.data() + at, req.size() - at, MSG_NOSIGNAL)) > 0;)
                at = (at + static_cast<size_t>(k)) % req.size();
            pollfd p{fd, POLLOUT, 0};
            return ::poll(&p, 1, 1000) == 0; // the server no longer takes requests
        }, 20s));
        stuck.push_back(fd);
    }

    const uint64_t from = sim_control_call_count(ctl);
    EXPECT_EQ(c.com_read(big).kind, ReplyKind::data);
    EXPECT_EQ(c.com_read(local).kind, ReplyKind::data);
    EXPECT_TRUE(c.realtime_read(rec(0, 1, 2, 3, 0, 1)).pending());
    EXPECT_TRUE(itest::wait_reads(ctl, 0, 1, from, 5)) << "the port keeps polling";
    EXPECT_TRUE(sim.server->wait_for("Send error\r\n", 30s)) << "the silent clients are dropped";
    close_all(stuck);
}

} // namespace
