// Checks of every rule the FAT and ORG lists and a port's block list keep.
// Debug builds run them after each operation that links or unlinks nodes
// (tables_checked, opt_checked) and stop the process at the first broken
// rule; the tests and the table fuzz target call them directly. The caller
// holds rwlock, for reading at least.
#pragma once

#include <string>

#include "tables/opt_builder.h"
#include "tables/tables.h"

// What is broken in the FAT and ORG lists, or "" when every rule holds:
// links and sentinels, ORG groups in area order with ordered ranges and no
// duplicate, strictly ascending FAT keys, each area's org_first on its
// group's first node or, for an emptied area, parked on a live node before
// its place.
std::string tables_check();

// What is broken in one port's block list, or "": its links, only the port's
// blocks, areas in FAT order with ascending disjoint blocks within their
// limit, each area's opt_first on its first block, and the cursor on the head
// or a block. Blocks of an area that is current (change_state AREA_CURRENT)
// cover every register of its ranges, start and end inside ranges, and name
// a covered range of the area as their first.
std::string opt_check(int port, OPT_node* head, OPT_node* tail, OPT_node* cursor, const OPT_limits& limits);

// Prints what is broken and aborts.
[[noreturn]] void table_rule_broken(const std::string& what);

// Debug builds: stop at a broken rule. With NDEBUG: nothing.
inline void tables_checked()
{
#ifndef NDEBUG
    if (const std::string e = tables_check(); !e.empty())
        table_rule_broken(e);
#endif
}
inline void opt_checked([[maybe_unused]] int port, [[maybe_unused]] OPT_node* head,
                        [[maybe_unused]] OPT_node* tail, [[maybe_unused]] OPT_node* cursor,
                        [[maybe_unused]] const OPT_limits& limits)
{
#ifndef NDEBUG
    if (const std::string e = opt_check(port, head, tail, cursor, limits); !e.empty())
        table_rule_broken(e);
#endif
}
