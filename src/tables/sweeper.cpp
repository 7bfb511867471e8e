// Stale-range sweeper: ages the ORG list and the realtime list and retires what nobody reads or collects.
#include "tables/sweeper.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "base/globals.h"
#include "tables/realtime_list.h"
#include "tables/table_checks.h"
#include "tables/table_ops.h"

namespace {

constexpr int DEFAULT_SWEEP_SECONDS = 30;
constexpr long MAX_SWEEP_SECONDS = 86400;  // one day
// Sweeps a realtime request survives uncollected once done, or unserved
// while its port has no thread.
constexpr int REALTIME_MAX_AGE = 2;

} // namespace

int sweep_period_seconds()
{
    const char* text = std::getenv("COMSERVER_SWEEP_SECONDS");
    if (text == nullptr)
        return DEFAULT_SWEEP_SECONDS;
    char* end = nullptr;
    long value = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || value <= 0 || value > MAX_SWEEP_SECONDS)
        return DEFAULT_SWEEP_SECONDS;
    return static_cast<int>(value);
}

namespace {

void sweep_ranges()
{
    std::unique_lock lock(rwlock);
    ORG_node* node = ORT_link_head->next;
    while (node != ORT_link_tail) {
        if (node->age <= 1) {
            node->age++;
            node = node->next;
            continue;
        }
        ORG_node* next = node->next;
        FAT_node* fat = find_FAT(node);
        puts(" service: delete ort");
        if (fat != nullptr)
            delete_ORT_FAT(fat, node);
        else
            delete_ORG(node);   // orphan range: cannot happen on a consistent table
        node = next;
    }
    tables_checked();
}

// A done request that nobody collects goes on the fourth sweep, a retired
// one (superseded by a newer request of its owner) on the first sweep that
// finds it done. A pending request ages only when no thread serves its port:
// otherwise a port thread may be using the node between its locked sections.
void sweep_realtime()
{
    std::lock_guard lock(mutex);
    RORT_node* node = RORT_link_head->next;
    while (node != RORT_link_tail) {
        RORT_node* next = node->next;
        const bool done = node->status != STATUS_PENDING;
        if (node->age > REALTIME_MAX_AGE || (done && node->retired))
            delete_realtime_link(node);
        else if (done || !port_has_thread(node->reg_addr.deviceport_id))
            node->age++;
        node = next;
    }
}

} // namespace

void sweep_once()
{
    // One lock after the other, never both at once.
    sweep_ranges();
    sweep_realtime();
}

void service_thread()
{
    const int period = sweep_period_seconds();
    for (;;) {
        sleep(period);
        sweep_once();
    }
}
