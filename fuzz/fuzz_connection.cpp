// Fuzz target for one client connection: the input is the byte stream a
// client sends. It is written into one end of a socketpair and the write
// side shut, and the server's connection loop runs on the other end until
// it ends. Every reply must be a well-formed packet the client library
// accepts, and the area tables must keep their rules afterwards.
// Realtime requests have no port thread here; the tables, the request list,
// the local areas and the SRAM file are emptied after each input, so an
// input replays the same way on its own.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "comclient.h"
#include "server/connection.h"
#include "base/local_areas.h"
#include "unit_util.h"
#include "tables/realtime_list.h"

using namespace table_test;

namespace {

// A stand-in segment: the local word area (large enough for the SRAM base
// words 9000 and 9001), then the local bit area (holding the table flags).
constexpr size_t WORD_AREA_BYTES = 20000;
constexpr size_t BIT_AREA_BYTES = 2048;
alignas(4) uint8_t segment[WORD_AREA_BYTES + BIT_AREA_BYTES];

// One port per driver family the commands treat apart: plain, Modbus bit
// views, Siemens word order, and the 38/39/57 family.
constexpr uint16_t PORT_DRIVERS[] = {5, 50, 450, 38};

int sram_fd = -1;

[[noreturn]] void fault(const std::string& what)
{
    std::fprintf(stderr, "connection fault: %s\n", what.c_str());
    std::abort();
}

// The client's side: sends the input, then shuts the write side, while
// reading every reply until the server closes, so that neither side's
// socket buffer can stall the other.
std::vector<uint8_t> converse(int fd, const uint8_t* data, size_t size)
{
    std::vector<uint8_t> replies;
    bool sending = true;
    for (;;) {
        if (sending && size == 0) {
            ::shutdown(fd, SHUT_WR);
            sending = false;
        }
        pollfd p{fd, static_cast<short>(POLLIN | (sending ? POLLOUT : 0)), 0};
        if (::poll(&p, 1, -1) < 0) {
            if (errno == EINTR)
                continue; // libFuzzer's time-out alarm
            fault("poll failed");
        }
        if (p.revents & POLLOUT) {
            const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n < 0 && errno != EAGAIN)
                size = 0; // the server closed early (bad packet): the rest is moot
            if (n > 0) {
                data += n;
                size -= static_cast<size_t>(n);
            }
        }
        if (p.revents & (POLLIN | POLLHUP | POLLERR)) {
            uint8_t buf[4096];
            const ssize_t n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT);
            if (n == 0 || (n < 0 && errno != EAGAIN))
                return replies;
            if (n > 0)
                replies.insert(replies.end(), buf, buf + n);
        }
    }
}

// The reply stream must be whole packets, each with the fixed header bytes,
// a command code and a body the client library parses.
void check_replies(const std::vector<uint8_t>& s)
{
    static const uint8_t fixed[8] = {1, 0, 0, 0, 0, 0, 0, 0};
    for (size_t at = 0; at < s.size();) {
        if (s.size() - at < comclient::kHeaderSize || std::memcmp(&s[at], fixed, sizeof fixed) != 0)
            fault("reply header at byte " + std::to_string(at));
        const size_t len = comclient::kHeaderSize + (s[at + 8] | s[at + 9] << 8);
        if (len > s.size() - at)
            fault("reply at byte " + std::to_string(at) + " runs past the stream");
        try {
            const comclient::Reply r = comclient::parse_reply({&s[at], len});
            if (r.command == 0 || (r.command > 10 && r.command != 19))
                fault("reply with command " + std::to_string(r.command));
        } catch (const comclient::Error& e) {
            fault(e.what());
        }
        at += len;
    }
}

void reset_state()
{
    {
        std::lock_guard lock(mutex);
        while (RORT_link_head->next != RORT_link_tail)
            delete_realtime_link(RORT_link_head->next);
    }
    reset_area_tables();
    std::memset(segment, 0, sizeof segment);
    if (::ftruncate(sram_fd, 0) != 0)
        fault("cannot empty the SRAM file");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    std::freopen("/dev/null", "w", stdout); // the server's diagnostic lines
    // The SRAM is an anonymous file, reached through its /proc path, so
    // nothing is left behind however the run ends.
    sram_fd = ::memfd_create("fuzz-sram", 0);
    if (sram_fd < 0)
        fault("memfd_create failed");
    ::setenv("COMSERVER_SRAM_PATH", ("/proc/self/fd/" + std::to_string(sram_fd)).c_str(), 1);

    local_short = segment;
    local_bit = segment + WORD_AREA_BYTES;
    local_areas_init(sizeof segment, 0, WORD_AREA_BYTES);
    for (uint16_t driver : PORT_DRIVERS)
        com_info.emplace_back().plc_driver_no = driver;
    port_num = static_cast<int>(com_info.size());
    reset_area_tables();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
        fault("socketpair failed");
    // The connection loop owns and closes its end.
    std::thread server([fd = fds[1]] { request_thread(client_arg{fd, -1, {}}); });
    const std::vector<uint8_t> replies = converse(fds[0], data, size);
    server.join();
    ::close(fds[0]);

    check_replies(replies);
    if (const std::string e = tables_check(); !e.empty())
        fault(e);
    reset_state();
    return 0;
}
