// Start-up and poll cycle of a serial or 'U'-mode port thread. Only this
// thread calls its driver.
#include "port/process_thread.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <unistd.h>

#include "driver/driver_traits.h"
#include "port/port_thread.h"
#include "port/refresh.h"
#include "store/addressing.h"

namespace {

constexpr uint32_t LOCAL_BIT_SUSPEND_POLLING = 9923;

} // namespace

bool port_is_batch_class(const PortThread& t) { return driver_traits(t.drv.driver_no).poll == PollClass::batch; }
bool port_is_bat(const PortThread& t) { return driver_traits(t.drv.driver_no).poll == PollClass::bat; }
bool port_is_opto(const PortThread& t) { return driver_traits(t.drv.driver_no).poll == PollClass::opto; }

OPT_limits port_block_limits(const com_port_info& rec)
{
    int max_words = rec.max_words;
    int max_bits = rec.max_bits;
    int word_gap = rec.word_gap;
    int bit_gap = rec.bit_gap;
    // The overrides look at the configured number.
    const BlockSizing sizing = driver_traits(rec.plc_driver_no).sizing;
    if (sizing == BlockSizing::one_register) {
        max_words = 1;
        max_bits = 16;
        word_gap = 0;
        bit_gap = 16;
    } else if (sizing == BlockSizing::unlimited) {
        max_words = 0;
        max_bits = 0;
        word_gap = 0;
        bit_gap = 0;
    }
    max_words = std::max(max_words, 1);
    max_bits = std::max(max_bits, 1);
    const int dword_gap = static_cast<uint8_t>((word_gap + 1) / 2);
    const int byte_gap = static_cast<uint8_t>(word_gap * 2);

    // One block must fit the 4096-byte driver buffer.
    OPT_limits l{};
    l.bit_len = std::min(max_bits, 8 * PORT_BUF_SIZE - 1);
    l.bit_gap = bit_gap;
    l.word_len = std::min(max_words, PORT_BUF_SIZE / 2);
    l.word_gap = word_gap;
    l.dword_len = std::min((max_words + 1) / 2, PORT_BUF_SIZE / 4);
    l.dword_gap = dword_gap;
    if (sizing == BlockSizing::unlimited) {
        l.byte_len = l.word_len;
        l.byte_gap = word_gap;
    } else {
        l.byte_len = std::min(static_cast<int>(static_cast<uint16_t>(max_words * 2)), PORT_BUF_SIZE);
        l.byte_len = std::max(l.byte_len, 1);
        l.byte_gap = byte_gap;
    }
    return l;
}

void port_read_block(PortThread& t, OPT_node* block)
{
    const REG_ADDR& r = block->reg_addr;
    const int size = std::clamp<int>(cal_commbuf_size(r), 0, PORT_BUF_SIZE);
    std::memset(t.buf, 0, static_cast<size_t>(size));
    DrvRegAddr addr = drv_reg_addr(r);
    DrvDataRef ref{r.reg_data_width, t.buf};
    std::memset(t.buf, 0, PORT_BUF_CLEARED);

    if (get_bit(LOCAL_BIT_SUSPEND_POLLING) != 0) {
        return;
    }
    const int status = status_from_result(ComOper_BlockRead(t.op, &addr, &ref, &t.param.param));
    if (port_is_bat(t) && r.reg_id != 131 && r.reg_id != 132) {
        refresh_ORG_buff_omron(block, t.buf, status);
    } else {
        refresh_ORG_buff(block, t.buf, status);
    }
}

void port_idle_cycle(PortThread& t)
{
    port_serve_realtime(t);
    rebuild_OPT_links(t.port, t.list_head, t.list_tail, t.cursor, t.limits);
}

namespace {

void start_port(PortThread& t, const com_port_info& rec)
{
    t.rec = rec;
    t.port = rec.deviceport;
    opt_list_init(t.list_head, t.list_tail);
    if (rec.working_mode != WORKING_MODE_U) {
        choose_device_path(rec.deviceport, read_sram_change_uart() != 0, t.path);
    }
    std::puts("process thread\r");
    std::printf("deviceport=%d\r\n", rec.deviceport);
    std::printf("dev=%s\r\n", t.path);

    build_plc_param(rec, t.param);
    build_port_device(rec, t.path, t.dev);
    t.limits = port_block_limits(rec);

    t.drv = load_driver(rec, t.dev, t.param);
    t.usable = driver_usable(t.drv);
    if (port_is_batch_class(t) || port_is_bat(t) || port_is_opto(t)) {
        // A batch returns a bit block through one entry: never ask for more
        // bits than its value field holds.
        t.limits.bit_len = std::min(t.limits.bit_len, OMRON_ENTRY_BITS);
    }
    t.op = ComOper{};
    t.op.port = static_cast<uint32_t>(t.port);
    t.op.read_fn = t.drv.read;
    t.op.write_fn = t.drv.write;
    t.cursor = t.list_head;
}

bool list_empty(const PortThread& t) { return t.list_head->next == t.list_tail; }

void single_block_read(PortThread& t)
{
    if (port_is_bat(t) && t.bat_found && t.cursor == t.list_head->next && t.bat_next != nullptr) {
        t.cursor = t.bat_next;
    }
    if (t.cursor != t.list_head && t.cursor != t.list_tail) {
        port_read_block(t, t.cursor);
    }
    ++t.cycle_count;
    if (t.cycle_count % 5 == 0 || t.op.item_count > 0) {
        ::usleep(1000);
    }
    if (list_empty(t)) {
        ::usleep(10000);
    }
}

void run_cycle(PortThread& t)
{
    if (list_empty(t)) {
        ::usleep(10000);
    }
    port_serve_realtime(t);

    bool wrapped = false;
    if (rebuild_OPT_links(t.port, t.list_head, t.list_tail, t.cursor, t.limits, &wrapped)) {
        t.blocks_changed = true;
    }
    if (wrapped) {
        t.batch_done = false;
    }

    if (port_is_bat(t) || port_is_opto(t)) {
        if (port_bat_opto_step(t)) {
            return;
        }
    }
    if (port_is_batch_class(t)) {
        port_batch_cycle(t);
        return;
    }
    single_block_read(t);
}

} // namespace

void process_thread(com_port_info rec)
{
    // The thread's state is large (buffers, entry array): keep it off the stack.
    auto t = std::make_unique<PortThread>();
    start_port(*t, rec);
    for (;;) {
        if (!t->usable) {
            // A port without its entry points never calls its driver.
            port_idle_cycle(*t);
            ::usleep(10000);
            continue;
        }
        run_cycle(*t);
    }
}
