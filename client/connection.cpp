// TCP transport of the client: connect, send, framed and raw receive.
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <thread>

#include "comclient.h"

namespace comclient {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

std::string errno_text(const char* what)
{
    return std::string(what) + ": " + std::strerror(errno);
}

struct AddrInfoFree {
    void operator()(addrinfo* p) const { freeaddrinfo(p); }
};

void set_timeval_opt(int fd, int opt, milliseconds t)
{
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(t.count() / 1000);
    tv.tv_usec = static_cast<suseconds_t>((t.count() % 1000) * 1000);
    setsockopt(fd, SOL_SOCKET, opt, &tv, sizeof tv);
}

// Milliseconds left until the deadline, for poll (never negative).
int remaining_ms(Clock::time_point deadline)
{
    auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left);
}

// Waits for the socket to become readable; false on time-out.
bool wait_readable(int fd, Clock::time_point deadline)
{
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        int rc = poll(&p, 1, remaining_ms(deadline));
        if (rc > 0)
            return true;
        if (rc == 0)
            return false;
        if (errno != EINTR)
            throw Error(ErrorKind::io, errno_text("poll"));
    }
}

// Connects one address with a bounded wait: non-blocking connect, then poll
// for writability. Returns the socket or -1 with errno set.
int connect_one(const addrinfo* ai, milliseconds timeout)
{
    int fd = socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol);
    if (fd < 0)
        return -1;
    int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    int rc = connect(fd, ai->ai_addr, ai->ai_addrlen);
    if (rc < 0 && errno == EINPROGRESS) {
        pollfd p{fd, POLLOUT, 0};
        rc = poll(&p, 1, static_cast<int>(timeout.count()));
        if (rc == 0) {
            errno = ETIMEDOUT;
            rc = -1;
        } else if (rc > 0) {
            int err = 0;
            socklen_t len = sizeof err;
            getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
            errno = err;
            rc = err == 0 ? 0 : -1;
        }
    }
    if (rc < 0) {
        int saved = errno;
        ::close(fd);
        errno = saved;
        return -1;
    }
    fcntl(fd, F_SETFL, flags);
    return fd;
}

}  // namespace

Client::Client(const std::string& host, uint16_t port, milliseconds timeout) : timeout_(timeout)
{
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    std::string service = std::to_string(port);
    int rc = getaddrinfo(host.c_str(), service.c_str(), &hints, &res);
    if (rc != 0)
        throw Error(ErrorKind::connect, "cannot resolve " + host + ": " + gai_strerror(rc));
    std::unique_ptr<addrinfo, AddrInfoFree> list(res);

    std::string last = "no address";
    for (const addrinfo* ai = list.get(); ai; ai = ai->ai_next) {
        int fd = connect_one(ai, timeout);
        if (fd >= 0) {
            fd_ = fd;
            break;
        }
        last = std::strerror(errno);
    }
    if (fd_ < 0)
        throw Error(ErrorKind::connect, "cannot connect to " + host + ":" + service + ": " + last);
    int one = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    set_timeout(timeout);
}

Client::Client(int fd, milliseconds timeout) : fd_(fd), timeout_(timeout)
{
    set_timeout(timeout);
}

Client::~Client()
{
    close();
}

Client::Client(Client&& other) noexcept : fd_(other.fd_), timeout_(other.timeout_)
{
    other.fd_ = -1;
}

Client& Client::operator=(Client&& other) noexcept
{
    if (this != &other) {
        close();
        fd_ = other.fd_;
        timeout_ = other.timeout_;
        other.fd_ = -1;
    }
    return *this;
}

void Client::close()
{
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

// Receives are bounded by poll deadlines; the socket options bound a send
// into a full buffer and back up the receive.
void Client::set_timeout(milliseconds timeout)
{
    timeout_ = timeout;
    if (fd_ >= 0) {
        set_timeval_opt(fd_, SO_RCVTIMEO, timeout);
        set_timeval_opt(fd_, SO_SNDTIMEO, timeout);
    }
}

void Client::send_raw(std::span<const uint8_t> bytes)
{
    if (fd_ < 0)
        throw Error(ErrorKind::closed, "not connected");
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            if (errno == EPIPE || errno == ECONNRESET)
                throw Error(ErrorKind::closed, errno_text("send"));
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                throw Error(ErrorKind::timeout, "send timed out");
            throw Error(ErrorKind::io, errno_text("send"));
        }
        done += static_cast<size_t>(n);
    }
}

void Client::read_exact(uint8_t* buf, size_t n, Clock::time_point deadline)
{
    size_t got = 0;
    while (got < n) {
        if (!wait_readable(fd_, deadline))
            throw Error(ErrorKind::timeout, "no complete reply within " + std::to_string(timeout_.count()) + " ms");
        ssize_t r = ::recv(fd_, buf + got, n - got, 0);
        if (r == 0)
            throw Error(ErrorKind::closed, "connection closed by the server");
        if (r < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)
                continue;
            if (errno == ECONNRESET)
                throw Error(ErrorKind::closed, errno_text("recv"));
            throw Error(ErrorKind::io, errno_text("recv"));
        }
        got += static_cast<size_t>(r);
    }
}

Reply Client::receive_reply()
{
    if (fd_ < 0)
        throw Error(ErrorKind::closed, "not connected");
    auto deadline = Clock::now() + timeout_;
    std::vector<uint8_t> packet(kHeaderSize);
    read_exact(packet.data(), kHeaderSize, deadline);
    size_t len = packet[8] | (packet[9] << 8);
    if (len < 2 || kHeaderSize + len > kMaxPacket)
        throw Error(ErrorKind::malformed, "malformed reply: package_len " + std::to_string(len));
    packet.resize(kHeaderSize + len);
    read_exact(packet.data() + kHeaderSize, len, deadline);
    return parse_reply(packet);
}

Reply Client::request(std::span<const uint8_t> packet)
{
    send_raw(packet);
    return receive_reply();
}

RawReceive Client::recv_raw(size_t max, milliseconds timeout)
{
    RawReceive out;
    if (fd_ < 0) {
        out.status = RawStatus::closed;
        return out;
    }
    auto deadline = Clock::now() + timeout;
    for (;;) {
        if (!wait_readable(fd_, deadline))
            return out;
        out.bytes.resize(max);
        ssize_t r = ::recv(fd_, out.bytes.data(), max, 0);
        if (r > 0) {
            out.bytes.resize(static_cast<size_t>(r));
            out.status = RawStatus::data;
            return out;
        }
        out.bytes.clear();
        if (r == 0 || errno == ECONNRESET) {
            out.status = RawStatus::closed;
            return out;
        }
        if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK)
            throw Error(ErrorKind::io, errno_text("recv"));
    }
}

bool Client::wait_closed(milliseconds timeout)
{
    auto deadline = Clock::now() + timeout;
    for (;;) {
        RawReceive r = recv_raw(kMaxPacket, std::chrono::duration_cast<milliseconds>(deadline - Clock::now()));
        if (r.status == RawStatus::closed)
            return true;
        if (r.status == RawStatus::timeout)
            return false;
    }
}

Reply Client::register_areas(std::span<const RegAddr> recs)
{
    return request(encode_areas(Command::register_areas, recs));
}

Reply Client::unregister_areas(std::span<const RegAddr> recs)
{
    return request(encode_areas(Command::unregister_areas, recs));
}

Reply Client::sub_read(std::span<const RegAddr> recs)
{
    return request(encode_areas(Command::sub_read, recs));
}

Reply Client::com_read(const RegAddr& rec)
{
    return request(encode_record(Command::com_read, rec));
}

Reply Client::realtime_read(const RegAddr& rec)
{
    return request(encode_record(Command::realtime_read, rec));
}

Reply Client::realtime_readcheck(const RegAddr& rec)
{
    return request(encode_record(Command::realtime_readcheck, rec));
}

Reply Client::com_realtime_read(const RegAddr& rec)
{
    return request(encode_record(Command::com_realtime_read, rec));
}

Reply Client::write(const RegAddr& rec, std::span<const uint8_t> data)
{
    return request(encode_write(rec, data));
}

Reply Client::writecheck(const RegAddr& rec)
{
    return request(encode_record(Command::writecheck, rec));
}

Reply Client::realtime_rw(const RegAddr& rec, const RwOper& op, RwForm form)
{
    return request(encode_rw(Command::realtime_rw, rec, op, form));
}

Reply Client::realtime_rw_check(const RegAddr& rec, const RwOper& op, RwForm form)
{
    return request(encode_rw(Command::realtime_rw_check, rec, op, form));
}

namespace {

// Splits whole packets off the front of `in` (header, then package_len
// bytes) and appends their parsed replies to `out`.
void take_replies(std::vector<uint8_t>& in, std::vector<Reply>& out)
{
    size_t at = 0;
    while (in.size() - at >= kHeaderSize) {
        size_t len = in[at + 8] | (in[at + 9] << 8);
        if (len < 2 || kHeaderSize + len > kMaxPacket)
            throw Error(ErrorKind::malformed, "malformed reply: package_len " + std::to_string(len));
        if (in.size() - at < kHeaderSize + len)
            break;
        out.push_back(parse_reply(std::span(in).subspan(at, kHeaderSize + len)));
        at += kHeaderSize + len;
    }
    in.erase(in.begin(), in.begin() + static_cast<std::ptrdiff_t>(at));
}

}  // namespace

std::vector<Reply> Client::request_all(std::span<const uint8_t> packets, size_t replies)
{
    if (fd_ < 0)
        throw Error(ErrorKind::closed, "not connected");
    std::vector<Reply> out;
    out.reserve(replies);
    std::vector<uint8_t> in;
    std::vector<uint8_t> chunk(64 * 1024);
    size_t sent = 0;
    auto deadline = Clock::now() + timeout_;
    while (out.size() < replies) {
        pollfd p{fd_, static_cast<short>(POLLIN | (sent < packets.size() ? POLLOUT : 0)), 0};
        int rc = poll(&p, 1, remaining_ms(deadline));
        if (rc < 0 && errno != EINTR)
            throw Error(ErrorKind::io, errno_text("poll"));
        if (rc == 0)
            throw Error(ErrorKind::timeout, "no reply within " + std::to_string(timeout_.count()) + " ms");
        if (rc < 0)
            continue;
        if (p.revents & POLLOUT) {
            ssize_t n = ::send(fd_, packets.data() + sent, packets.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n < 0 && errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK)
                throw Error(errno == EPIPE || errno == ECONNRESET ? ErrorKind::closed : ErrorKind::io,
                            errno_text("send"));
            if (n > 0)
                sent += static_cast<size_t>(n);
        }
        if (p.revents & (POLLIN | POLLHUP | POLLERR)) {
            ssize_t n = ::recv(fd_, chunk.data(), chunk.size(), MSG_DONTWAIT);
            if (n == 0 || (n < 0 && errno == ECONNRESET))
                throw Error(ErrorKind::closed, "connection closed by the server");
            if (n < 0 && errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK)
                throw Error(ErrorKind::io, errno_text("recv"));
            if (n > 0) {
                // The server sends each reply on its own; with Nagle on its
                // side, the next replies wait for our ACK, so acknowledge at
                // once instead of after the delayed-ACK pause.
                int one = 1;
                setsockopt(fd_, IPPROTO_TCP, TCP_QUICKACK, &one, sizeof one);
                in.insert(in.end(), chunk.begin(), chunk.begin() + n);
                take_replies(in, out);
                deadline = Clock::now() + timeout_;
            }
        }
    }
    if (out.size() > replies || !in.empty())
        throw Error(ErrorKind::malformed, "more replies than requests");
    return out;
}

Reply Client::write_and_check(const RegAddr& rec, std::span<const uint8_t> data, milliseconds wait,
                              milliseconds interval)
{
    Reply r = write(rec, data);
    auto deadline = Clock::now() + wait;
    while (r.pending() && Clock::now() < deadline) {
        std::this_thread::sleep_for(interval);
        r = writecheck(rec);
    }
    return r;
}

}  // namespace comclient
