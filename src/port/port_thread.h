// State of one serial or 'U'-mode port thread, shared by the steps of its
// cycle: the poll loop, the realtime request service and batch polling.
#pragma once

#include <array>
#include <cstdint>

#include "base/protocol.h"
#include "driver/loader.h"
#include "port/com_state.h"
#include "tables/opt_builder.h"
#include "tables/tables.h"

// The port thread's driver buffer and write copy hold one packet's data.
constexpr int PORT_BUF_SIZE = static_cast<int>(PACKET_BUF_SIZE);
constexpr int OMRON_ENTRIES = 1000;
// The part of a port buffer cleared before a driver fills it.
constexpr int PORT_BUF_CLEARED = 1024;
// Realtime requests a port serves per cycle, between its polls.
constexpr int REALTIME_REQUESTS_PER_CYCLE = 3;

struct PortThread {
    com_port_info rec{};
    int port = 0;                      // deviceport: the areas this thread polls
    char path[DEVICE_PATH_SIZE] = {};
    PortDevice dev{};
    PlcParamBlock param{};
    PlcDriver drv;
    bool usable = false;               // every entry point the port calls exists
    ComOper op{};

    OPT_node* list_head = nullptr;
    OPT_node* list_tail = nullptr;
    OPT_node* cursor = nullptr;
    OPT_limits limits{};
    bool blocks_changed = false;
    uint32_t cycle_count = 0;

    // Batch bookkeeping.
    bool batch_done = false;
    int entry_count = 0;
    OPT_node* bat_last = nullptr;      // last block of the last bat batch read
    OPT_node* bat_next = nullptr;      // the block after it
    bool bat_found = false;            // this cycle's bat search found blocks

    uint8_t buf[PORT_BUF_SIZE] = {};        // driver buffer
    uint8_t write_copy[PORT_BUF_SIZE] = {}; // copy of the data being written
    std::array<OmronEntry, OMRON_ENTRIES> entries{};
};

// Driver classes of the poll loop.
bool port_is_batch_class(const PortThread& t);
bool port_is_bat(const PortThread& t);
bool port_is_opto(const PortThread& t);

// Block limits of a port from its record and configured driver number.
OPT_limits port_block_limits(const com_port_info& rec);

// Status of a block or request from a driver result.
inline int status_from_result(int r)
{
    return r == COM_STATE_OK ? STATUS_OK : (r == COM_STATE_TIMEOUT ? STATUS_NO_ANSWER : STATUS_FAILED);
}

// Reads one block through the driver (unless local bit 9923 suspends block
// polling) and refreshes the caches it covers.
void port_read_block(PortThread& t, OPT_node* block);

// Serves up to REALTIME_REQUESTS_PER_CYCLE queued realtime requests of the port.
void port_serve_realtime(PortThread& t);

// One turn of a port whose driver cannot be used: its requests are failed
// and the rebuild pass runs as on every other port, so that areas emptied
// by unregistration or the sweeper are freed. Nothing is polled.
void port_idle_cycle(PortThread& t);

// Bat/opto step; returns true when it ended the cycle.
bool port_bat_opto_step(PortThread& t);
// Batch-class path; always ends the cycle.
void port_batch_cycle(PortThread& t);
