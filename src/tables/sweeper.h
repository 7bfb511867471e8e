// Background sweeper that retires ranges nobody reads and realtime results
// nobody collects.
#pragma once

#include "tables/tables.h"

// Sweep period in seconds: COMSERVER_SWEEP_SECONDS when it holds a positive
// number, else 30.
int sweep_period_seconds();

// One sweep: ages the ORG list under rwlock (held for writing) and deletes
// ranges unread for three sweeps, then ages completed realtime requests under
// mutex and deletes those uncollected for four sweeps.
void sweep_once();

// Thread entry: sleeps one period, sweeps, for ever.
[[noreturn]] void service_thread();
