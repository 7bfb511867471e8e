// Batch polling: many blocks in one driver exchange.
#include <unistd.h>

#include "port/port_thread.h"

bool port_bat_opto_step(PortThread&)
{
    return false;
}

void port_batch_cycle(PortThread& t)
{
    if (t.cursor != t.list_head && t.cursor != t.list_tail) {
        port_read_block(t, t.cursor);
    }
    ::usleep(100);
}
