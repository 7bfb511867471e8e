// Batch polling: many blocks in one driver exchange.
//
// A batch driver first learns a list of register entries (registration) and
// then answers for the whole list in one read. The port thread registers
// again whenever its block list changed, so the driver's list always matches
// the entries the thread builds.
#include "port/batch.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>

#include "driver/driver_traits.h"
#include "port/com_state.h"
#include "port/port_thread.h"
#include "port/refresh.h"
#include "store/addressing.h"
#include "store/data_file.h"

namespace {

// The list's tail sentinel is the only node without a next.
bool is_block(const OPT_node* node) { return node != nullptr && node->next != nullptr; }

bool bat_excluded(int reg_id) { return reg_id == 128 || reg_id == 129 || reg_id == 131 || reg_id == 132; }

bool batch_excluded(int reg_id, int driver)
{
    return !driver_traits(driver).batch_takes_reserved_ids && reg_id >= 128 && reg_id <= 133;
}

} // namespace

int bat_block_cost(const OPT_node* block)
{
    const REG_ADDR& r = block->reg_addr;
    if (r.reg_type == 0) {
        const int bit = ((r.reg_addr_start % 16) + 16) % 16;
        return bit + r.reg_data_width < 16 ? 1 : 2;
    }
    return std::max<int>(r.reg_data_width, 0);
}

int foud_bat_read_opt(OPT_node* list_head, OPT_node* list_tail)
{
    OPT_node* b = list_head->next;
    if (b == list_tail || bat_excluded(b->reg_addr.reg_id)) {
        return 0;
    }
    int total = 0;
    int count = 0;
    for (; b != list_tail && !bat_excluded(b->reg_addr.reg_id); b = b->next) {
        const int cost = bat_block_cost(b);
        if (total + cost > BAT_MAX_COST) {
            break;
        }
        total += cost;
        ++count;
    }
    return count;
}

int foud_opto_num(OPT_node* list_head, OPT_node* list_tail)
{
    int count = 0;
    for (OPT_node* b = list_head->next; b != list_tail && count < OPTO_MAX_BLOCKS; b = b->next) {
        ++count;
    }
    return count;
}

int foud_MQSC_bat_read_opt(OPT_node* list_head, OPT_node* list_tail, bool& more, int driver)
{
    OPT_node* b = list_head->next;
    if (b == list_tail) {
        return 0;
    }
    if (batch_excluded(b->reg_addr.reg_id, driver)) {
        more = true;
        return 0;
    }
    int count = 0;
    for (const OPT_node* prev = nullptr; b != list_tail; prev = b, b = b->next) {
        if (prev != nullptr && b->reg_addr.plc_id != prev->reg_addr.plc_id) {
            break;
        }
        if (batch_excluded(b->reg_addr.reg_id, driver)) {
            break;
        }
        ++count;
    }
    if (b == list_tail) {
        return count;
    }
    more = true;
    return count;
}

int block_entry_count(const OPT_node* block)
{
    const REG_ADDR& r = block->reg_addr;
    return r.reg_type == 0 ? 1 : std::max<int>(r.reg_data_width, 0);
}

int blocks_fitting(OPT_node* first, int n, int max_entries, int* entries)
{
    int total = 0;
    int count = 0;
    for (OPT_node* b = first; count < n && is_block(b); b = b->next) {
        const int e = block_entry_count(b);
        if (total + e > max_entries) {
            break;
        }
        total += e;
        ++count;
    }
    if (entries != nullptr) {
        *entries = total;
    }
    return count;
}

OPT_node* advance_blocks(OPT_node* node, int n)
{
    for (int i = 0; i < n && is_block(node); ++i) {
        node = node->next;
    }
    return node;
}

void fill_block_entries(const OPT_node* block, OmronEntry* out)
{
    const REG_ADDR& r = block->reg_addr;
    const int count = block_entry_count(block);
    for (int k = 0; k < count; ++k) {
        OmronEntry& e = out[k];
        e.plc_id = r.plc_id;
        e.reg_type = r.reg_type;
        e.reg_id = r.reg_id;
        e.byte_offset = r.byte_offset;
        if (r.reg_type == 0) {
            e.address = static_cast<uint32_t>(r.reg_addr_start);
            e.count = static_cast<uint16_t>(r.reg_data_width);
        } else {
            e.address = static_cast<uint32_t>(r.reg_addr_start) + static_cast<uint32_t>(k);
            e.count = 1;
        }
    }
}

int build_OMRON_buff(OPT_node* prev, OmronEntry* array, int n, int max_entries)
{
    int written = 0;
    OPT_node* b = prev->next;
    for (int i = 0; i < n && is_block(b); ++i, b = b->next) {
        const int count = block_entry_count(b);
        if (written + count > max_entries) {
            break;
        }
        fill_block_entries(b, array + written);
        written += count;
    }
    return written;
}

void copy_data(const OPT_node* block, const OmronEntry* entry, uint8_t* dst)
{
    const REG_ADDR& r = block->reg_addr;
    if (r.reg_data_width < 1) {
        return;
    }
    if (r.reg_type == 0) {
        // One entry carries at most 32 bits; the driver never fills more.
        const int size = cal_commbuf_size(r);
        const int from_entry = std::min<int>(size, sizeof entry->value);
        std::memcpy(dst, entry->value, static_cast<size_t>(from_entry));
        if (size > from_entry) {
            std::memset(dst + from_entry, 0, static_cast<size_t>(size - from_entry));
        }
        return;
    }
    const int w = element_bytes(r.reg_type);
    if (w == 0) {
        return;
    }
    for (int i = 0; i < r.reg_data_width; ++i) {
        std::memcpy(dst + static_cast<size_t>(i) * w, entry[i].value, static_cast<size_t>(w));
    }
}

void refresh_bat_ORG(OPT_node* first, const OmronEntry* entry, uint8_t* buffer, int n, int status)
{
    const int file_status = (status == STATUS_OK || status == STATUS_NO_ANSWER) ? status : STATUS_FAILED;
    OPT_node* b = first;
    for (int i = 0; i < n && is_block(b); ++i, b = b->next) {
        const REG_ADDR& r = b->reg_addr;
        copy_data(b, entry, buffer);
        if (r.reg_type != 0) {
            refresh_ORG_buff_omron(b, buffer, status);
        } else {
            refresh_ORG_buff(b, buffer, status);
        }
        DrvRegAddr addr = drv_reg_addr(r);
        const DrvDataRef data{r.reg_data_width, buffer};
        PlcRegDatArr_WriteData(PlcRegDatArr_Instance(), r.deviceport_id, addr, data, file_status);
        entry += block_entry_count(b);
    }
}

// ---- port thread steps -------------------------------------------------------

namespace {

// Polls the blocks from `from` to the end of the list one at a time, then
// parks the cursor on the last block so the next advance wraps.
void poll_singly(PortThread& t, OPT_node* from)
{
    for (OPT_node* b = from; is_block(b) && b != t.list_tail; b = b->next) {
        port_read_block(t, b);
    }
    t.cursor = t.list_tail->prev;
    ::usleep(1);
}

int count_chunks(OPT_node* b, int left)
{
    int chunks = 0;
    while (left > 0 && is_block(b)) {
        int nb = blocks_fitting(b, left, BATCH_CHUNK_ENTRIES);
        if (nb == 0) {
            nb = 1; // read on its own
        } else {
            ++chunks;
        }
        b = advance_blocks(b, nb);
        left -= nb;
    }
    return chunks;
}

// Reads the n blocks of the batch in chunks. Returns false when a failed
// registration or read ended the cycle.
bool read_batch_chunks(PortThread& t, int n)
{
    PlcParam* param = &t.param.param;
    const int chunks = count_chunks(t.list_head->next, n);
    OPT_node* b = t.list_head->next;
    int e = 0;
    int left = n;
    int chunk_no = 0;
    while (left > 0 && is_block(b)) {
        int entries = 0;
        const int nb = blocks_fitting(b, left, BATCH_CHUNK_ENTRIES, &entries);
        if (nb == 0) {
            // Too many entries for one call: an ordinary block read.
            port_read_block(t, b);
            e += block_entry_count(b);
            b = b->next;
            --left;
            continue;
        }
        ++chunk_no;
        OmronEntry* arr = t.entries.data() + e;
        if (t.blocks_changed) {
            const int r = t.drv.omron_register(arr, entries, param);
            if (r == COM_STATE_TIMEOUT) {
                refresh_bat_ORG(b, arr, t.buf, nb, STATUS_NO_ANSWER);
                return false;
            }
            if (r != 0) {
                return false;
            }
        }
        const int r = t.drv.omron_read(arr, entries, param);
        SetPortState(t.port, r);
        const int status = status_from_result(r);
        if (chunks == 1) {
            // The driver's list now holds the whole batch: later cycles only read.
            refresh_bat_ORG(b, arr, t.buf, nb, status);
            t.blocks_changed = r != 0;
            if (r != 0) {
                return false;
            }
        } else if (r == 0 || chunk_no == 1) {
            refresh_bat_ORG(b, arr, t.buf, nb, status);
        } else {
            // A later chunk failed: the rest of the batch takes its status.
            refresh_bat_ORG(b, arr, t.buf, left, status);
            t.blocks_changed = true;
            return false;
        }
        b = advance_blocks(b, nb);
        e += entries;
        left -= nb;
    }
    return true;
}

} // namespace

bool port_bat_opto_step(PortThread& t)
{
    const bool bat = port_is_bat(t);
    int n = bat ? foud_bat_read_opt(t.list_head, t.list_tail) : foud_opto_num(t.list_head, t.list_tail);
    t.bat_found = bat && n > 0;
    n = blocks_fitting(t.list_head->next, n, OMRON_ENTRIES);
    PlcParam* param = &t.param.param;

    if (t.blocks_changed) {
        // The last batch's blocks may be gone.
        t.bat_last = nullptr;
        t.bat_next = nullptr;
        if (n == 0) {
            t.blocks_changed = false;
            t.entry_count = 0;
            return false;
        }
        t.entry_count = build_OMRON_buff(t.list_head, t.entries.data(), n, OMRON_ENTRIES);
        const int r = t.drv.omron_register(t.entries.data(), t.entry_count, param);
        if (r == COM_STATE_TIMEOUT) {
            refresh_bat_ORG(t.list_head->next, t.entries.data(), t.buf, n, STATUS_NO_ANSWER);
            return true;
        }
        if (r != 0) {
            return true;
        }
        t.blocks_changed = false;
    } else if (t.batch_done || n == 0) {
        return false;
    }

    const int r = t.drv.omron_read(t.entries.data(), t.entry_count, param);
    SetPortState(t.port, r);
    const int status = status_from_result(r);
    if (r != 0) {
        t.blocks_changed = true;
    }
    refresh_bat_ORG(t.list_head->next, t.entries.data(), t.buf, n, status);
    t.bat_last = advance_blocks(t.list_head, n);
    t.bat_next = t.bat_last->next;
    ::usleep(1);
    t.batch_done = true;
    return true;
}

void port_batch_cycle(PortThread& t)
{
    if (t.cursor == t.list_head || t.cursor == t.list_tail) {
        ::usleep(100);
        return;
    }
    bool more = false;
    int n = foud_MQSC_bat_read_opt(t.list_head, t.list_tail, more, t.drv.driver_no);
    // The entry array bounds the batch; blocks beyond it are polled singly.
    const int fit = blocks_fitting(t.list_head->next, n, OMRON_ENTRIES);
    if (fit < n) {
        more = true;
        n = fit;
    }
    if (n == 0) {
        poll_singly(t, t.list_head->next);
        return;
    }
    t.entry_count = build_OMRON_buff(t.list_head, t.entries.data(), n, OMRON_ENTRIES);
    if (!read_batch_chunks(t, n)) {
        return;
    }
    if (more) {
        poll_singly(t, advance_blocks(t.list_head, n)->next);
    }
}
