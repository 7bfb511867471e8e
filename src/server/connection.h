// One client connection: receive, frame, check, dispatch, until the client
// closes, fails, sends a bad packet or stays silent for 600 seconds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>

#include "server/protocol.h"
#include "tables/tables.h"

constexpr int MAX_CLIENTS = 512;

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
    REG_ADDR REG_ADDR_temp{};       // working copy of the record being handled
    REG_ADDR modbus_orig{};         // the record as sent, for Modbus bit views
    uint8_t reply[PACKET_BUF_SIZE]{};
    ::rw_oper rw_block{};
    uint8_t value_buf[128]{};
};

// Thread entry; owns the socket from then on.
void request_thread(client_arg arg);

// Runs one checked packet (header included) on a connection. Unknown
// command codes are ignored without a reply.
void dispatch_packet(Connection& c, const uint8_t* packet);

// Sends len bytes of c.reply (or any buffer) on the connection; the result
// is not examined: a failed send is noticed by the next receive.
void send_reply(const Connection& c, const uint8_t* buf, size_t len);
