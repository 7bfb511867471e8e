// Receive loop and dispatch of one client connection. A reply is sent only
// after every lock its command took is released.
#include "server/connection.h"

#include <atomic>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/globals.h"
#include "server/commands.h"
#include "server/reply_data.h"
#include "tables/realtime_list.h"

namespace {

constexpr int IDLE_SECONDS = 600;

class SocketGuard {
public:
    explicit SocketGuard(int fd) : fd_(fd) {}
    ~SocketGuard() { ::close(fd_); }
    SocketGuard(const SocketGuard&) = delete;
    SocketGuard& operator=(const SocketGuard&) = delete;

private:
    int fd_;
};

void report_bad_packet(int package_len, int result, int expected)
{
    std::puts("checksum error 1\r");
    std::printf("package_len = %d\r\n", package_len);
    std::printf("Result = %d\r\n", result);
    std::printf("Expected = %d\r\n", expected);
    ::usleep(500);
}

enum class Frame { Incomplete, Complete, Bad };

// Looks at the bytes received so far. A package_len of 0 or 1, or one whose
// packet would not fit the 4096-byte buffer, can never be a valid packet.
Frame frame_packet(const uint8_t* buf, size_t have, size_t& packet_len)
{
    if (have < PACKET_HEADER_SIZE) {
        return Frame::Incomplete;
    }
    const uint16_t len = parse_package_len(buf);
    if (len < BODY_MIN || PACKET_HEADER_SIZE + len > PACKET_BUF_SIZE) {
        const size_t avail = have - PACKET_HEADER_SIZE;
        const int summed = static_cast<int>(avail < len ? avail : (len > 0 ? len - 1 : 0));
        const int expected = (len >= 1 && avail >= len) ? buf[PACKET_HEADER_SIZE + len - 1] : 0;
        report_bad_packet(len, check_sum(buf + PACKET_HEADER_SIZE, summed), expected);
        return Frame::Bad;
    }
    packet_len = PACKET_HEADER_SIZE + len;
    if (have < packet_len) {
        return Frame::Incomplete;
    }
    const uint8_t sum = check_sum(buf + PACKET_HEADER_SIZE, len - 1);
    const uint8_t expected = buf[packet_len - 1];
    if (sum != expected) {
        report_bad_packet(len, sum, expected);
        return Frame::Bad;
    }
    return Frame::Complete;
}

// Body bytes a command needs for its fixed fields (command byte and sum included).
int minimum_package_len(uint8_t command)
{
    switch (command) {
    case CMD_REGISTER:
    case CMD_UNREGISTER:
    case CMD_SUB_READ: return BODY_COUNTED_FIXED;
    case CMD_REALTIME_RW:
    case CMD_REALTIME_RW_CHECK: return BODY_RW_SHORT;
    default: return BODY_ONE_RECORD;
    }
}

// Several builders OR bits into the reply or leave gaps they expect to be
// zero. Every reply of the cached read (data or status) is written byte for
// byte up to its length, its local and SRAM readers included (they gather
// into zeroed scratch of their own), so the busiest request skips clearing
// the 4096-byte buffer.
bool reply_needs_clearing(uint8_t command)
{
    return command != CMD_COM_READ;
}

} // namespace

void send_reply(Connection& c)
{
    assert(!lock_rules::holds(lock_rules::ANY));
    for (size_t done = 0; done < c.reply_len;) {
        const ssize_t n = ::send(c.sock, c.reply + done, c.reply_len - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            std::puts("Send error\r"); // peer gone, or it took nothing for SEND_TIMEOUT_SECONDS
            c.broken = true;
            return;
        }
        done += static_cast<size_t>(n);
    }
}

void answer(Connection& c, size_t len)
{
    c.reply_len = len;
}

void answer_status(Connection& c, const uint8_t* packet4)
{
    answer(c, produce_ack_pack(c.reply, head, packet4, BODY_STATUS));
}

void answer_refusal(Connection& c, uint8_t command)
{
    answer(c, produce_refusal_pack(c.reply, command));
}

bool refuse_unserved_port(Connection& c, const REG_ADDR& rec, uint8_t command)
{
    if (port_has_thread(rec.deviceport_id)) {
        return false;
    }
    answer_refusal(c, command);
    return true;
}

void queue_request(Connection& c, RORT_node* node, int req_type, uint8_t command, const uint8_t* queued)
{
    assert(lock_rules::holds(lock_rules::REALTIME_LIST));
    if (insert_realtime_link(node, c.REG_ADDR_temp, req_type, c.id) == RealtimeInsert::refused) {
        answer_refusal(c, command);
    } else {
        answer_status(c, queued);
    }
}

void answer_check(Connection& c, const REG_ADDR& rec, const ::rw_oper& key, int req_type, const CheckAnswers& a)
{
    std::lock_guard lock(mutex);
    RORT_node* r = find_realtime_link(rec, key, req_type, c.id);
    if (r == nullptr) {
        std::printf("REAL_WRITE Don't find the realtime_req 0x%x\r\n", a.command);
        answer_status(c, a.failed);
        return;
    }
    if (a.trace != nullptr) {
        a.trace(r->status);
    }
    switch (r->status) {
    case STATUS_PENDING:
        answer_status(c, a.not_yet);
        return;
    case STATUS_OK: a.success(c, *r); break;
    case STATUS_NO_ANSWER: answer_status(c, a.no_answer); break;
    default: answer_status(c, a.failed); break;
    }
    delete_realtime_link(r);
}

void dispatch_packet(Connection& c, const uint8_t* packet)
{
    // A request too short for its own fields is ignored like an unknown code.
    if (parse_package_len(packet) < minimum_package_len(parse_command(packet))) {
        return;
    }
    if (reply_needs_clearing(parse_command(packet))) {
        std::memset(c.reply, 0, sizeof c.reply);
    }
    c.reply_len = 0;
    c.rw_block = ::rw_oper{};
    switch (parse_command(packet)) {
    case CMD_REGISTER: cmd_register(c, packet); break;
    case CMD_UNREGISTER: cmd_unregister(c, packet); break;
    case CMD_COM_READ: cmd_com_read(c, packet); break;
    case CMD_REALTIME_READ: cmd_realtime_read(c, packet); break;
    case CMD_WRITE: cmd_write(c, packet); break;
    case CMD_REALTIME_READCHECK: cmd_realtime_readcheck(c, packet); break;
    case CMD_WRITECHECK: cmd_writecheck(c, packet); break;
    case CMD_COM_REALTIME_READ: cmd_com_realtime_read(c, packet); break;
    case CMD_REALTIME_RW: cmd_realtime_rw(c, packet); break;
    case CMD_REALTIME_RW_CHECK: cmd_realtime_rw_check(c, packet); break;
    case CMD_SUB_READ: cmd_sub_read(c, packet); break;
    default: break; // not a command: no reply, wait for the next packet
    }
    // Every lock the command took is released by now.
    if (c.reply_len > 0) {
        send_reply(c);
    }
}

namespace {

enum class Received { Data, Silent, Closed, Failed };

// One blocking receive into buf; the socket's receive time-out (IDLE_SECONDS,
// set when the connection starts) ends a silent connection.
Received receive(int sock, uint8_t* buf, size_t room, size_t& got)
{
    for (;;) {
        const ssize_t n = ::recv(sock, buf, room, 0);
        if (n > 0) {
            got = static_cast<size_t>(n);
            return Received::Data;
        }
        if (n == 0) {
            return Received::Closed;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return Received::Silent;
        }
        if (errno != EINTR) {
            return Received::Failed;
        }
    }
}

void serve(Connection& c)
{
    // Requests are framed by package_len: a packet split over several
    // receives is reassembled, several packets in one receive are each run.
    uint8_t buf[PACKET_BUF_SIZE];
    size_t have = 0;
    for (;;) {
        size_t packet_len = 0;
        const Frame f = frame_packet(buf, have, packet_len);
        if (f == Frame::Bad) {
            return;
        }
        if (f == Frame::Complete) {
            dispatch_packet(c, buf);
            if (c.broken) {
                return;
            }
            std::memmove(buf, buf + packet_len, have - packet_len);
            have -= packet_len;
            continue;
        }

        size_t got = 0;
        switch (receive(c.sock, buf + have, sizeof buf - have, got)) {
        case Received::Data: have += got; break;
        case Received::Silent: return; // silent for IDLE_SECONDS
        case Received::Closed:
            std::printf("socket num = %d\r\n", c.sock);
            std::puts("Client close socket\r\n\r");
            return;
        case Received::Failed: std::puts("Recv error\r"); return;
        }
    }
}

std::atomic<int> active_connections{0};
std::atomic<uint32_t> last_connection_id{0};

// Thread of a connection started by start_connection; ends its count.
void* connection_main(void* arg)
{
    const std::unique_ptr<client_arg> owned(static_cast<client_arg*>(arg));
    request_thread(*owned);
    --active_connections;
    return nullptr;
}

} // namespace

void request_thread(client_arg arg)
{
    auto c = std::make_unique<Connection>();
    c->sock = arg.sock;
    c->id = ++last_connection_id;
    SocketGuard guard(arg.sock);
    const timeval send_limit{SEND_TIMEOUT_SECONDS, 0};
    ::setsockopt(c->sock, SOL_SOCKET, SO_SNDTIMEO, &send_limit, sizeof send_limit);
    const timeval idle_limit{IDLE_SECONDS, 0};
    ::setsockopt(c->sock, SOL_SOCKET, SO_RCVTIMEO, &idle_limit, sizeof idle_limit);
    serve(*c);
}

void start_connection(const client_arg& arg)
{
    if (active_connections.fetch_add(1) >= MAX_CLIENTS) {
        --active_connections;
        std::puts("Too many clients\r");
        ::close(arg.sock);
        return;
    }
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attr, CONNECTION_STACK_BYTES);
    auto* owned = new (std::nothrow) client_arg(arg);
    pthread_t thread;
    if (owned == nullptr || pthread_create(&thread, &attr, connection_main, owned) != 0) {
        // This one connection is refused; the server goes on serving the others.
        delete owned;
        --active_connections;
        std::puts("Create thread error\r");
        ::close(arg.sock);
    }
    pthread_attr_destroy(&attr);
}

int records_in_packet(const uint8_t* packet)
{
    const int n = parse_REG_ADDR_NUM(packet);
    const int len = parse_package_len(packet);
    const int fit = len >= BODY_COUNTED_FIXED ? (len - BODY_COUNTED_FIXED) / static_cast<int>(RECORD_SIZE) : 0;
    return n < fit ? n : fit;
}

REG_ADDR packet_reg_addr(const uint8_t* packet)
{
    REG_ADDR r;
    std::memcpy(&r, packet + PKT_RECORD, sizeof r);
    return r;
}
