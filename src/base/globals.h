// Process-wide state set once at start-up and read by every thread.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "base/port_config.h"

extern int mode;              // 0: real driver plug-ins, otherwise simulation plug-ins
extern int semid;             // semaphore set; semaphore 0 guards the segment
extern uint8_t* local_bit;    // local bit area in the segment (32-bit little-endian words)
extern uint8_t* local_short;  // local word area in the segment (16-bit little-endian words)
extern std::vector<com_port_info> com_info; // one record per port, filled before any thread starts
extern int port_num;          // number of records in com_info

// Port numbers served by a polling thread (the deviceport of each started
// thread's record), set by main before the listener opens.
extern std::array<bool, 256> port_threads;

// The record of a port, or nullptr when the port number names no record.
const com_port_info* com_port(int port);

// True when a polling thread serves the port number's areas and requests.
bool port_has_thread(int port);
