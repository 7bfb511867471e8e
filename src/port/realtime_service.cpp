// Realtime request service of a port thread.
#include "port/port_thread.h"

void port_serve_realtime(PortThread&) {}
