// Costs that grow with what clients register: registering ranges, the port
// thread's rebuild pass (run every cycle, even when nothing changed), the
// block refresh scan and the packet checksum.
#include <benchmark/benchmark.h>

#include <mutex>
#include <vector>

#include "base/protocol.h"
#include "port/refresh.h"
#include "tables/opt_builder.h"
#include "tables/table_ops.h"

namespace {

REG_ADDR range(uint8_t port, uint8_t plc, uint8_t kind, int32_t start, int16_t width)
{
    REG_ADDR r{};
    r.deviceport_id = port;
    r.plc_id = plc;
    r.reg_type = 2;
    r.reg_id = kind;
    r.reg_addr_start = start;
    r.reg_data_width = width;
    return r;
}

// Fills the tables with areas x ranges word ranges spread over four ports.
void fill_tables(int areas, int ranges)
{
    static bool initialised = false;
    if (!initialised) {
        links_init();
        initialised = true;
    }
    std::unique_lock lock(rwlock);
    for (int a = 0; a < areas; ++a) {
        for (int i = 0; i < ranges; ++i) {
            insert_ORT_FAT(range(static_cast<uint8_t>(a % 4), static_cast<uint8_t>(a / 4), 3, i * 10, 8));
        }
    }
}

void empty_tables()
{
    std::unique_lock lock(rwlock);
    while (ORT_link_head->next != ORT_link_tail) {
        ORG_node* o = ORT_link_head->next;
        delete_ORT_FAT(find_FAT(o), o);
    }
}

void BM_RegisterRanges(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    for (auto _ : state) {
        fill_tables(1, n);
        state.PauseTiming();
        empty_tables();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_RegisterRanges)->Arg(100)->Arg(1000);

// The rebuild pass of one port when nothing changed: a walk of the FAT list.
void BM_IdleRebuildPass(benchmark::State& state)
{
    fill_tables(static_cast<int>(state.range(0)), 4);
    OPT_node* head = nullptr;
    OPT_node* tail = nullptr;
    opt_list_init(head, tail);
    OPT_node* cursor = head;
    const OPT_limits limits{256, 16, 64, 4, 128, 8, 32, 2};
    rebuild_OPT_links(0, head, tail, cursor, limits); // builds port 0's blocks once
    for (auto _ : state) {
        benchmark::DoNotOptimize(rebuild_OPT_links(0, head, tail, cursor, limits));
    }
    // Let the pass remove port 0's emptied areas before its list goes, as
    // a port thread would: no FAT node may keep pointing into a freed list.
    empty_tables();
    rebuild_OPT_links(0, head, tail, cursor, limits);
    opt_list_free(head, tail);
}
BENCHMARK(BM_IdleRebuildPass)->Arg(16)->Arg(256)->Arg(1024);

// One block read's cache refresh with many registered areas before it.
void BM_RefreshBlock(benchmark::State& state)
{
    fill_tables(static_cast<int>(state.range(0)), 4);
    OPT_node block{};
    block.reg_addr = range(3, static_cast<uint8_t>((state.range(0) - 1) / 4), 3, 0, 38);
    std::vector<uint8_t> buf(76, 0x5a);
    for (auto _ : state) {
        refresh_ORG_buff(&block, buf.data(), 1);
    }
    empty_tables();
}
BENCHMARK(BM_RefreshBlock)->Arg(16)->Arg(256)->Arg(1024);

void BM_CheckSum(benchmark::State& state)
{
    std::vector<uint8_t> body(static_cast<size_t>(state.range(0)), 0x11);
    for (auto _ : state) {
        benchmark::DoNotOptimize(check_sum(body.data(), static_cast<int>(body.size())));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_CheckSum)->Arg(18)->Arg(4086);

} // namespace
