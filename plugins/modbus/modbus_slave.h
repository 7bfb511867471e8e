// Modbus TCP slave that serves the device's own local areas to masters (a
// SCADA, another HMI): holding registers are the local word area, coils the
// local bit area. One background thread serves every connected master in
// turn. Each request touches the areas only under semaphore 0 of the
// segment's set and never outside the extent found for them.
#pragma once

#include <cstdint>

#include "local_extent.h"

struct LocalAreas {
    uint8_t* bits = nullptr;   // local_bit: bit n is bit n % 8 of byte n / 8
    uint8_t* words = nullptr;  // local_short: little-endian 16-bit words
    LocalExtent extent;
    int semid = -1;
};

// Starts the serving thread and returns at once, so that the port can go on
// to poll as a master. The listener binds to COMSERVER_MODBUS_LISTEN (an IPv4
// address, default every address) and retries every second while it cannot.
void start_slave(uint16_t tcp_port, const LocalAreas& areas);
