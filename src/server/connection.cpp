#include "server/connection.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "server/commands.h"
#include "server/reply_data.h"

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
    if (len < 2 || PACKET_HEADER_SIZE + len > PACKET_BUF_SIZE) {
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
    case CMD_SUB_READ: return 3;
    case CMD_REALTIME_RW:
    case CMD_REALTIME_RW_CHECK: return 38;
    default: return 18;
    }
}

} // namespace

void send_reply(const Connection& c, const uint8_t* buf, size_t len)
{
    (void)::send(c.sock, buf, len, MSG_NOSIGNAL);
}

void send_status(Connection& c, const uint8_t* packet4)
{
    const size_t len = produce_ack_pack(c.reply, head, packet4, 4);
    send_reply(c, c.reply, len);
}

void send_refusal(Connection& c, uint8_t command)
{
    const size_t len = produce_refusal_pack(c.reply, command);
    send_reply(c, c.reply, len);
}

void dispatch_packet(Connection& c, const uint8_t* packet)
{
    // A request too short for its own fields is ignored like an unknown code.
    if (parse_package_len(packet) < minimum_package_len(parse_command(packet))) {
        return;
    }
    std::memset(c.reply, 0, sizeof c.reply);
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
}

void request_thread(client_arg arg)
{
    auto c = std::make_unique<Connection>();
    c->sock = arg.sock;
    SocketGuard guard(arg.sock);

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
            dispatch_packet(*c, buf);
            std::memmove(buf, buf + packet_len, have - packet_len);
            have -= packet_len;
            continue;
        }

        fd_set rd;
        FD_ZERO(&rd);
        FD_SET(c->sock, &rd);
        timeval tv{IDLE_SECONDS, 0};
        const int ready = ::select(c->sock + 1, &rd, nullptr, nullptr, &tv);
        if (ready < 0) {
            std::puts("Select error\r");
            return;
        }
        if (ready == 0) {
            return; // silent for 600 seconds
        }
        const ssize_t n = ::recv(c->sock, buf + have, sizeof buf - have, 0);
        if (n < 0) {
            std::puts("Recv error\r");
            return;
        }
        if (n == 0) {
            std::printf("socket num = %d\r\n", c->sock);
            std::puts("Client close socket\r\n\r");
            return;
        }
        have += static_cast<size_t>(n);
    }
}

int records_in_packet(const uint8_t* packet)
{
    const int n = parse_REG_ADDR_NUM(packet);
    const int len = parse_package_len(packet);
    const int fit = len >= 3 ? (len - 3) / 16 : 0;
    return n < fit ? n : fit;
}

REG_ADDR packet_reg_addr(const uint8_t* packet)
{
    REG_ADDR r;
    std::memcpy(&r, packet + 11, sizeof r);
    return r;
}
