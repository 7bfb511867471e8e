// Write and read-modify-write commands (5, 7, 9, 10).
#include "server/commands.h"

void cmd_write(Connection&, const uint8_t*) {}
void cmd_writecheck(Connection&, const uint8_t*) {}
void cmd_realtime_rw(Connection&, const uint8_t*) {}
void cmd_realtime_rw_check(Connection&, const uint8_t*) {}
