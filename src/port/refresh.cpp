// Cache refresh from driver replies and from completed writes.
#include "port/refresh.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <mutex>

#include "store/addressing.h"
#include "tables/table_ops.h"

namespace {

// Data bytes that a record's buffer holds; a negative size counts as none.
int64_t buffer_bytes(const REG_ADDR& rec)
{
    return std::max<int64_t>(0, cal_commbuf_size(rec));
}

// Copies n bytes from src + src_off to dst + dst_off, cut so that neither
// buffer is left.
void copy_bytes(uint8_t* dst, int64_t dst_cap, int64_t dst_off, const uint8_t* src, int64_t src_cap,
                int64_t src_off, int64_t n)
{
    if (dst == nullptr || src == nullptr || dst_off < 0 || src_off < 0) {
        return;
    }
    n = std::min({n, dst_cap - dst_off, src_cap - src_off});
    if (n > 0) {
        std::memmove(dst + dst_off, src + src_off, static_cast<size_t>(n));
    }
}

// The number of bits that fit both buffers from the given bit offsets.
int bounded_bits(int64_t n, int64_t dst_cap, int64_t dst_bit, int64_t src_cap, int64_t src_bit)
{
    if (dst_bit < 0 || src_bit < 0) {
        return 0;
    }
    n = std::min({n, dst_cap * 8 - dst_bit, src_cap * 8 - src_bit});
    return n > 0 ? static_cast<int>(n) : 0;
}

uint32_t now_seconds()
{
    return static_cast<uint32_t>(std::time(nullptr));
}

} // namespace

void bit_cpy(uint8_t* dst, const uint8_t* src, int n, int src_bit)
{
    for (int i = 0; i < n; ++i) {
        const int s = src_bit + i;
        const uint8_t mask = static_cast<uint8_t>(1u << (i % 8));
        if ((src[s / 8] >> (s % 8)) & 1) {
            dst[i / 8] |= mask;
        } else {
            dst[i / 8] &= static_cast<uint8_t>(~mask);
        }
    }
}

void tessel_bit_cpy(uint8_t* dst, const uint8_t* src, int n, int dst_bit)
{
    for (int i = 0; i < n; ++i) {
        const int d = dst_bit + i;
        const uint8_t mask = static_cast<uint8_t>(1u << (d % 8));
        if ((src[i / 8] >> (i % 8)) & 1) {
            dst[d / 8] |= mask;
        } else {
            dst[d / 8] &= static_cast<uint8_t>(~mask);
        }
    }
}

namespace {

// Copies the block's values of the registers [lo, lo + cnt), which both the
// block and group g hold, into g's cache.
void copy_block_overlap(ORG_node* g, const REG_ADDR& b, const uint8_t* buf, int64_t lo, int64_t cnt)
{
    const REG_ADDR& r = g->reg_addr;
    const int64_t bs = b.reg_addr_start;
    const int64_t gs = r.reg_addr_start;
    const int64_t block_cap = buffer_bytes(b);
    const int64_t group_cap = buffer_bytes(r);
    if (r.reg_type == 0) {
        const int n = bounded_bits(cnt, group_cap, lo - gs, block_cap, lo - bs);
        if (lo == bs) {
            tessel_bit_cpy(g->data, buf, n, static_cast<int>(bs - gs));
        } else {
            bit_cpy(g->data, buf, n, static_cast<int>(gs - bs));
        }
    } else {
        const int64_t w = element_bytes(r.reg_type);
        copy_bytes(g->data, group_cap, (lo - gs) * w, buf, block_cap, (lo - bs) * w, cnt * w);
    }
}

// A group spread over several blocks collects their outcomes in part_status
// until the block holding its end settles status.
void settle_group_status(ORG_node* g, int status, bool holds_start, bool holds_end)
{
    const int16_t st = static_cast<int16_t>(status);
    if (holds_end) {
        if (holds_start || g->part_status == STATUS_OK) {
            g->status = st;
        } else {
            g->status = g->part_status;
        }
        if (g->status == STATUS_OK) {
            g->refresh_time = now_seconds();
        }
    } else if (holds_start) {
        g->part_status = st;
    } else if (!(status == STATUS_OK && g->part_status > STATUS_OK)) {
        // A failure earlier in the group is kept until its end is read.
        g->part_status = st;
    }
}

} // namespace

void refresh_ORG_buff(const OPT_node* block, const uint8_t* buf, int status)
{
    if (block == nullptr) {
        return;
    }
    std::unique_lock lock(rwlock);
    const REG_ADDR& b = block->reg_addr;
    const int64_t bs = b.reg_addr_start;
    const int64_t be = bs + b.reg_data_width;

    for (ORG_node* g = ORT_link_head->next; g != ORT_link_tail; g = g->next) {
        const REG_ADDR& r = g->reg_addr;
        if (!same_area(r, b)) {
            continue;
        }
        const int64_t gs = r.reg_addr_start;
        const int64_t ge = gs + r.reg_data_width;
        if (gs >= be) {
            break; // the area's groups are ordered by start
        }
        if (bs >= ge) {
            continue;
        }
        const int64_t lo = std::max(bs, gs);
        if (status == STATUS_OK && buf != nullptr && g->data != nullptr) {
            copy_block_overlap(g, b, buf, lo, std::min(be, ge) - lo);
        }
        settle_group_status(g, status, lo == gs, ge <= be);
    }
}

namespace {

// The first group of a block's run, or nullptr when the block's org pointer
// cannot be trusted. It is only trustworthy while its area's blocks are
// current: any change to the group may have freed that node. Caller holds
// the table lock for writing.
ORG_node* omron_first_group(const OPT_node* block)
{
    const REG_ADDR& b = block->reg_addr;
    FAT_node* fat = FAT_link_head->next;
    while (fat != FAT_link_tail && !same_area(*fat, b)) {
        fat = fat->next;
    }
    if (fat == FAT_link_tail || fat->change_state != AREA_CURRENT) {
        return nullptr;
    }
    ORG_node* g = block->org;
    if (g == nullptr || g == ORT_link_head || g == ORT_link_tail || g->data == nullptr) {
        return nullptr;
    }
    return g;
}

// Copies the part of the block's data that overlaps group g into g's buffer.
// Group and block starts are both register numbers (client addresses are
// normalised to registers before they enter the tables), whatever the
// address unit: the overlap is placed by register offsets alone.
void omron_copy_overlap(ORG_node* g, const REG_ADDR& b, const uint8_t* buf, int64_t len)
{
    const REG_ADDR& r = g->reg_addr;
    const int64_t bs = b.reg_addr_start;
    const int64_t gs = r.reg_addr_start;
    const int64_t lo = std::max(bs, gs);
    const int64_t block_cap = buffer_bytes(b);
    const int64_t group_cap = buffer_bytes(r);
    if (r.reg_type == 0) {
        const int n = bounded_bits(len, group_cap, lo - gs, block_cap, lo - bs);
        if (lo == gs) {
            bit_cpy(g->data, buf, n, static_cast<int>(lo - bs));
        } else {
            tessel_bit_cpy(g->data, buf, n, static_cast<int>(lo - gs));
        }
    } else {
        const int64_t unit = element_bytes(r.reg_type);
        copy_bytes(g->data, group_cap, (lo - gs) * unit, buf, block_cap, (lo - bs) * unit, len);
    }
}

} // namespace

void refresh_ORG_buff_omron(const OPT_node* block, const uint8_t* buf, int status)
{
    if (block == nullptr) {
        return;
    }
    std::unique_lock lock(rwlock);
    ORG_node* g = omron_first_group(block);
    if (g == nullptr) {
        return;
    }
    const REG_ADDR& b = block->reg_addr;
    const int64_t bs = b.reg_addr_start;
    const int64_t be = bs + b.reg_data_width;
    const int16_t st = static_cast<int16_t>(status);

    for (; g != ORT_link_tail && same_area(g->reg_addr, b); g = g->next) {
        const REG_ADDR& r = g->reg_addr;
        const int64_t gs = r.reg_addr_start;
        const int64_t ge = gs + r.reg_data_width;
        if (gs >= be) {
            break;
        }
        if (bs >= ge) {
            continue;
        }
        const int64_t unit = r.reg_type == 0 ? 1 : element_bytes(r.reg_type);
        const int64_t len = (std::min(ge, be) - std::max(bs, gs)) * unit;

        g->status = st;
        if (status == STATUS_OK && buf != nullptr) {
            omron_copy_overlap(g, b, buf, len);
        }
        if (ge <= be && g->status == STATUS_OK) {
            g->status = st;
            if (g->status == STATUS_OK) {
                g->refresh_time = now_seconds();
            }
        }
    }
}

void refresh_writeOK_ORG(RealtimeImage image)
{
    if (image.data == nullptr) {
        return;
    }
    std::unique_lock lock(rwlock);
    const REG_ADDR& w = image.reg_addr;
    const int64_t ws = w.reg_addr_start;
    const int64_t we = ws + w.reg_data_width;
    const int64_t write_cap = buffer_bytes(w);

    auto contains_start = [ws](const REG_ADDR& r) {
        return r.reg_addr_start <= ws && ws < int64_t{r.reg_addr_start} + r.reg_data_width;
    };

    ORG_node* g = ORT_link_head->next;
    for (; g != ORT_link_tail; g = g->next) {
        const REG_ADDR& r = g->reg_addr;
        if (r.deviceport_id == w.deviceport_id && r.plc_id == w.plc_id && r.reg_id == w.reg_id &&
            r.bcd_flag == w.bcd_flag && contains_start(r)) {
            break;
        }
    }

    for (; g != ORT_link_tail && same_area(g->reg_addr, w) && contains_start(g->reg_addr); g = g->next) {
        const REG_ADDR& r = g->reg_addr;
        if (g->data == nullptr) {
            continue;
        }
        const int64_t gs = r.reg_addr_start;
        const int64_t ge = gs + r.reg_data_width;
        const int64_t cnt = std::min(ge, we) - ws;
        const int64_t group_cap = buffer_bytes(r);
        if (w.reg_type == 0) {
            const int n = bounded_bits(cnt, group_cap, ws - gs, write_cap, 0);
            tessel_bit_cpy(g->data, image.data, n, static_cast<int>(ws - gs));
        } else {
            // Byte groups take the written values as words and double words do.
            const int64_t width = element_bytes(w.reg_type);
            copy_bytes(g->data, group_cap, (ws - gs) * width, image.data, write_cap, 0, cnt * width);
        }
    }
}
