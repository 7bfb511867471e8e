// Polling thread of one CAN port behind the SPI bridge.
#pragma once

#include <pthread.h>

#include "base/port_config.h"

// Argument of a CAN port thread: the port record and the SPI descriptor
// shared by every CAN port.
struct can_port_arg {
    com_port_info record;
    int spi_fd;
};
static_assert(sizeof(can_port_arg) == 36);

// Serialises the CAN drivers' use of the one SPI device; handed to them.
extern pthread_mutex_t spi_mutex;

// Thread entry; the argument lives for the whole process. Never returns.
void can_process_thread(const can_port_arg* arg);
