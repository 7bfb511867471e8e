// Polling thread of one serial or 'U'-mode port.
#pragma once

#include "base/port_config.h"

// Thread entry: takes the port's record by value and never returns.
void process_thread(com_port_info rec);
