// Fuzz target for the area tables and the poll-block builder: the input is
// a sequence of registrations, unregistrations, cached reads, sweeps, flag
// changes and per-port rebuild passes; after every step the FAT, ORG and
// block lists must keep all their rules. Each input starts from empty tables
// and leaves them empty, so an input replays the same way on its own.
#include <fuzzer/FuzzedDataProvider.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "can/can_port.h"
#include "port/port_thread.h"
#include "server/commands.h"
#include "unit_util.h"
#include "tables/sweeper.h"

using namespace table_test;

namespace {

// Ports 0..2 have a port thread's block list (port 2 with CAN limits);
// port 3 has none, so its areas are never rebuilt.
constexpr int THREAD_PORTS = 3;
constexpr int RECORD_PORTS = 4;
constexpr uint8_t REG_TYPES[] = {0, 1, 2, 4, 3};

struct PortLists {
    OPT_node* head = nullptr;
    OPT_node* tail = nullptr;
    OPT_node* cursor = nullptr;
    OPT_limits limits{};
};

[[noreturn]] void broken(const char* step, const std::string& what)
{
    std::fprintf(stderr, "table rule broken after %s: %s\n", step, what.c_str());
    std::abort();
}

// Limits as the port thread derives them from a port record.
OPT_limits limits_from(FuzzedDataProvider& in, int port)
{
    com_port_info rec{};
    rec.plc_driver_no = 5;
    rec.max_words = in.ConsumeIntegralInRange<uint16_t>(0, 300);
    rec.max_bits = in.ConsumeIntegralInRange<uint16_t>(0, 600);
    rec.word_gap = in.ConsumeIntegral<uint8_t>();
    rec.bit_gap = in.ConsumeIntegral<uint8_t>();
    return port == THREAD_PORTS - 1 ? can_block_limits(rec) : port_block_limits(rec);
}

// Records from a small key space, so that areas and ranges meet often.
REG_ADDR record(FuzzedDataProvider& in)
{
    REG_ADDR r{};
    r.deviceport_id = in.ConsumeIntegralInRange<uint8_t>(0, RECORD_PORTS - 1);
    r.plc_id = in.ConsumeIntegralInRange<uint8_t>(0, 1);
    r.reg_type = in.PickValueInArray(REG_TYPES);
    r.reg_id = in.ConsumeIntegralInRange<uint8_t>(0, 2);
    r.reg_addr_start = in.ConsumeBool() ? in.ConsumeIntegral<int32_t>() : in.ConsumeIntegralInRange(-8, 300);
    r.reg_data_width = in.ConsumeIntegralInRange<int16_t>(-1, 400);
    r.bcd_flag = in.ConsumeIntegralInRange<uint8_t>(0, 1);
    r.rec_tag = in.ConsumeIntegralInRange<uint8_t>(0, 1);
    return r;
}

// The n-th registered range (modulo their number), or null when there is none.
ORG_node* nth_range(size_t n)
{
    size_t count = 0;
    for (ORG_node* o = ORT_link_head->next; o != ORT_link_tail; o = o->next)
        ++count;
    if (count == 0)
        return nullptr;
    ORG_node* o = ORT_link_head->next;
    for (n %= count; n > 0; --n)
        o = o->next;
    return o;
}

// Registers like the register command: only ranges the server can poll.
void register_range(const REG_ADDR& r)
{
    if (range_pollable(r)) {
        std::unique_lock lock(rwlock);
        insert_ORT_FAT(r);
    }
}

// A cached read of an existing range: found again, its age reset.
void read_range(ORG_node* o)
{
    std::unique_lock lock(rwlock);
    insert_ORT_FAT(o->reg_addr).org->age = 0;
}

void unregister_range(const REG_ADDR& r)
{
    std::unique_lock lock(rwlock);
    unregister_ORT_FAT(r);
}

// Runs one step; returns its name for the report.
const char* step(FuzzedDataProvider& in, std::array<PortLists, THREAD_PORTS>& ports, LocalBits& bits, bool& valid)
{
    switch (in.ConsumeIntegralInRange(0, 6)) {
    case 0: register_range(record(in)); return "register";
    case 1: unregister_range(record(in)); return "unregister of any record";
    case 2:
        if (ORG_node* o = nth_range(in.ConsumeIntegral<uint8_t>())) {
            const REG_ADDR r = o->reg_addr; // the node goes while the record is in use
            unregister_range(r);
        }
        return "unregister of a registered range";
    case 3:
        if (ORG_node* o = nth_range(in.ConsumeIntegral<uint8_t>()))
            read_range(o);
        return "cached read";
    case 4: {
        const int p = in.ConsumeIntegralInRange(0, THREAD_PORTS - 1);
        PortLists& l = ports[static_cast<size_t>(p)];
        rebuild_OPT_links(p, l.head, l.tail, l.cursor, l.limits);
        return "rebuild pass";
    }
    case 5: sweep_once(); return "sweep";
    default:
        valid = !valid;
        bits.set_new_range_valid(valid);
        return "flag change";
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    std::freopen("/dev/null", "w", stdout); // the sweeper's diagnostic lines
    reset_area_tables();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider in(data, size);
    LocalBits bits;
    bool valid = false;
    std::array<PortLists, THREAD_PORTS> ports;
    for (int p = 0; p < THREAD_PORTS; ++p) {
        PortLists& l = ports[static_cast<size_t>(p)];
        opt_list_init(l.head, l.tail);
        l.cursor = l.head;
        l.limits = limits_from(in, p);
    }

    while (in.remaining_bytes() > 0) {
        const char* name = step(in, ports, bits, valid);
        if (const std::string e = tables_check(); !e.empty())
            broken(name, e);
        for (int p = 0; p < THREAD_PORTS; ++p) {
            const PortLists& l = ports[static_cast<size_t>(p)];
            if (const std::string e = opt_check(p, l.head, l.tail, l.cursor, l.limits); !e.empty())
                broken(name, e);
        }
    }

    for (PortLists& l : ports)
        opt_list_free(l.head, l.tail);
    reset_area_tables();
    return 0;
}
