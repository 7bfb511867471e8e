// Client command handlers. Each gets the checked packet (header included)
// and leaves at most one reply in the connection's reply buffer, which is
// sent after the handler has released its locks.
#pragma once

#include <cstdint>

#include "server/connection.h"

void cmd_register(Connection& c, const uint8_t* packet);
void cmd_unregister(Connection& c, const uint8_t* packet);
void cmd_com_read(Connection& c, const uint8_t* packet);
void cmd_realtime_read(Connection& c, const uint8_t* packet);
void cmd_write(Connection& c, const uint8_t* packet);
void cmd_realtime_readcheck(Connection& c, const uint8_t* packet);
void cmd_writecheck(Connection& c, const uint8_t* packet);
void cmd_com_realtime_read(Connection& c, const uint8_t* packet);
void cmd_realtime_rw(Connection& c, const uint8_t* packet);
void cmd_realtime_rw_check(Connection& c, const uint8_t* packet);
void cmd_sub_read(Connection& c, const uint8_t* packet);

// The reply of a command: the first len bytes of c.reply (dispatch_packet
// sends it once the command has returned), a 4-byte status packet, or the
// refusal [command][0][3][sum].
void answer(Connection& c, size_t len);
void answer_status(Connection& c, const uint8_t* packet4);
void answer_refusal(Connection& c, uint8_t command);

// Realtime requests (commands 4, 5, 8, 9) of a port that no polling thread
// serves would never be served: answers the refusal and returns true.
bool refuse_unserved_port(Connection& c, const REG_ADDR& rec, uint8_t command);

// Queues a realtime request for c.REG_ADDR_temp, owned by the connection, and
// answers `queued` (its command's err 1 status) when the list took it or an
// equal pending read serves it, or the refusal when the list is full. The
// caller holds mutex.
void queue_request(Connection& c, RORT_node* node, int req_type, uint8_t command, const uint8_t* queued);

// The three check commands (6, 7, 10) share one path: find the caller's
// request of req_type matching rec (and key, for read-modify-writes), answer
// its outcome, and retire it once a final outcome is answered; a pending
// request is answered `not_yet` and stays. `success` builds the reply of a
// request that succeeded; `trace`, when given, logs the status found.
// Takes mutex.
struct CheckAnswers {
    uint8_t command;
    const uint8_t* not_yet;   // status 0: still pending
    const uint8_t* no_answer; // status 2: the PLC did not answer
    const uint8_t* failed;    // status 3, or no such request
    void (*success)(Connection& c, const RORT_node& r);
    void (*trace)(int status);
};
void answer_check(Connection& c, const REG_ADDR& rec, const ::rw_oper& key, int req_type, const CheckAnswers& a);

// Number of whole records a count-prefixed request (commands 1, 2, 19)
// really carries: the count byte, cut to the records inside package_len.
int records_in_packet(const uint8_t* packet);

// The 16-byte record of a single-record request (commands 3..10).
REG_ADDR packet_reg_addr(const uint8_t* packet);

// Copies a client record into c.REG_ADDR_temp and normalises it: on a Modbus
// port (driver 50) kinds 5 and 6 are first turned into the word range that
// holds the bits (the record as sent is kept in c.modbus_orig). Returns true
// when that bit-view conversion was made. A port number without a record is
// treated as a non-Modbus port.
bool prepare_record(Connection& c, const uint8_t* rec_bytes);

// A range can be polled only when it has at least one register, its end
// (start + width) is still a 32-bit register number, and its data fit the
// port thread's buffers and one data reply. Other ranges never enter the
// area tables.
bool range_pollable(const REG_ADDR& rec);

