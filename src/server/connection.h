// One client connection: receive, frame, check, dispatch, until the client
// closes, fails, sends a bad packet, stays silent for 600 seconds or does not
// take a reply within SEND_TIMEOUT_SECONDS.
//
// Rule for command handlers: build the reply in Connection::reply while
// holding whatever lock the command needs, release it, and only then is the
// reply sent (by dispatch_packet). No lock that port threads or other
// clients wait for is ever held while a client's socket may block.
#pragma once

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>

#include "base/protocol.h"
#include "tables/tables.h"

// Connections served at once. Each one costs a thread (with a small stack,
// CONNECTION_STACK_BYTES) and a descriptor; a connection beyond the cap is
// closed at once so that the server never runs out of either.
constexpr int MAX_CLIENTS = 512;
constexpr size_t CONNECTION_STACK_BYTES = 512 * 1024;
// A client that does not take a reply within this time is disconnected.
constexpr int SEND_TIMEOUT_SECONDS = 5;

// Argument of a connection thread, as the accept loop fills it.
struct client_arg {
    int sock;
    int semid;
    sockaddr_in peer;
};
static_assert(sizeof(client_arg) == 24);

// Per-connection working state, private to its thread.
struct Connection {
    int sock = -1;
    uint32_t id = 0;                // owner of the realtime requests it queues
    REG_ADDR REG_ADDR_temp{};       // working copy of the record being handled
    REG_ADDR modbus_orig{};         // the record as sent, for Modbus bit views
    uint8_t reply[PACKET_BUF_SIZE]{};
    size_t reply_len = 0;           // bytes of reply to send once the command is done
    bool broken = false;            // a reply could not be sent: the connection ends
    ::rw_oper rw_block{};
    uint8_t value_buf[128]{};
};

// Thread entry; owns the socket from then on.
void request_thread(client_arg arg);

// Starts the thread of an accepted connection, or closes the connection when
// MAX_CLIENTS are already served or no thread can be started (printing why).
void start_connection(const client_arg& arg);

// Runs one checked packet (header included) on a connection and sends the
// reply its command left in c.reply. Unknown command codes are ignored
// without a reply.
void dispatch_packet(Connection& c, const uint8_t* packet);

// Sends the c.reply_len bytes of c.reply; a send that fails or times out
// prints "Send error\r" and marks the connection broken.
void send_reply(Connection& c);
