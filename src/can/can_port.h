// State and cycle of one CAN port thread. The cycle works on a CanPort
// record whose driver entry points are plain function pointers, so the same
// code runs with the loaded plug-in and with stand-ins.
#pragma once

#include <array>
#include <cstdint>
#include <pthread.h>

#include "driver/loader.h"
#include "tables/opt_builder.h"
#include "tables/tables.h"

// The CANopen batch entry point takes at most this many entries per call.
constexpr int CAN_CALL_ENTRIES = 36;
// Room of the entry array; a call never builds more than CAN_CALL_ENTRIES.
constexpr int CAN_ENTRY_ROOM = 128;
// Size of the driver buffer and of the write copy.
constexpr int CAN_BUF_SIZE = 1024;
constexpr int CAN_ENTRY_BITS = OMRON_ENTRY_BITS;
// Consecutive failed batch calls tolerated before the bridge is re-initialised.
constexpr int CAN_MAX_NO_RESPONSE = 8;

// Entry points of a CAN driver; a null pointer is an entry point the
// plug-in does not export, and is never called.
struct CanDriver {
    ev_can_plc_init_fn init = nullptr;
    ev_can_plc_read_fn read = nullptr;
    ev_can_plc_write_fn write = nullptr;
    ev_CANOPEN_plc_read_fn canopen_read = nullptr;
};

struct CanPort {
    int port = 0;                          // deviceport: the areas this thread polls
    char path[DEVICE_PATH_SIZE] = {};
    PortDevice dev{};
    PlcParam param{};
    CanDriver drv;
    pthread_mutex_t* spi_mutex = nullptr;  // handed to every entry point, never locked here

    OPT_node* list_head = nullptr;
    OPT_node* list_tail = nullptr;
    OPT_node* cursor = nullptr;
    OPT_limits limits{};
    int can_plc_no_response = 0;

    std::array<OmronEntry, CAN_ENTRY_ROOM> entries{};
    uint8_t buf[CAN_BUF_SIZE] = {};        // driver buffer
    uint8_t write_copy[CAN_BUF_SIZE] = {}; // values being written / operated on
};

// Block limits of a CAN port from its record. Lengths are also capped so
// that every block fits one batch call: at most CAN_CALL_ENTRIES registers
// for byte, word and double-word blocks, CAN_ENTRY_BITS bits for bit blocks.
OPT_limits can_block_limits(const com_port_info& rec);

// Number of blocks from first up to, not including, end.
int foud_pdo_num(OPT_node* first, OPT_node* end);

// Reads every block of the list in batch calls and refreshes their caches;
// counts failed calls and re-initialises the bridge after too many.
void can_poll_blocks(CanPort& t);

// Serves one realtime request of the port.
void can_serve_request(CanPort& t, RORT_node* req);
// Serves up to three queued realtime requests of the port.
void can_serve_realtime(CanPort& t);

// One polling cycle: realtime service, rebuild pass, batch poll.
void can_cycle(CanPort& t);
