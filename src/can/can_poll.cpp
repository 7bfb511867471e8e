// Block limits, batch entry building and the batch poll of a CAN port.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "can/can_port.h"
#include "port/batch.h"
#include "port/port_thread.h"
#include "port/refresh.h"

OPT_limits can_block_limits(const com_port_info& rec)
{
    const int max_words = rec.max_words;
    const int word_gap = rec.word_gap;
    auto len = [](int v, int cap) { return std::clamp(v, 1, cap); };

    OPT_limits l{};
    l.bit_len = len(rec.max_bits, CAN_ENTRY_BITS);
    l.bit_gap = rec.bit_gap;
    l.word_len = len(max_words, CAN_CALL_ENTRIES);
    l.word_gap = word_gap;
    l.dword_len = len(static_cast<uint16_t>((max_words + 1) / 2), CAN_CALL_ENTRIES);
    l.dword_gap = static_cast<uint8_t>((word_gap + 1) / 2);
    l.byte_len = len(static_cast<uint16_t>(max_words * 2), CAN_CALL_ENTRIES);
    l.byte_gap = static_cast<uint8_t>(word_gap * 2);
    return l;
}

int foud_pdo_num(OPT_node* first, OPT_node* end)
{
    int n = 0;
    for (OPT_node* b = first; b != end && b != nullptr; b = b->next) {
        ++n;
    }
    return n;
}

void can_poll_blocks(CanPort& t)
{
    if (t.drv.canopen_read == nullptr) {
        // Without the batch entry point the port has no way to poll.
        return;
    }
    OPT_node* block = t.list_head->next;
    int remaining = foud_pdo_num(block, t.list_tail);
    bool first_call = true;
    while (remaining > 0) {
        const int blocks = blocks_fitting(block, remaining, CAN_CALL_ENTRIES);
        if (blocks == 0) {
            // A block wider than one call cannot be read; the limits never
            // build one, so this only guards against a foreign list.
            refresh_ORG_buff(block, t.buf, STATUS_FAILED);
            block = block->next;
            --remaining;
            continue;
        }
        const int entries = build_OMRON_buff(block->prev, t.entries.data(), blocks, CAN_ENTRY_ROOM);
        const int r = t.drv.canopen_read(t.entries.data(), entries, &t.param, t.spi_mutex);
        int status = STATUS_OK;
        if (r == 0) {
            t.can_plc_no_response = 0;
        } else {
            ++t.can_plc_no_response;
            status = status_from_result(r);
        }
        // A later call's failure reaches its blocks only once the failures
        // have piled up; until then their caches keep what they hold, since
        // the entries' values were not filled by this call.
        if (first_call || r == 0 || t.can_plc_no_response > CAN_MAX_NO_RESPONSE) {
            refresh_bat_ORG(block, t.entries.data(), t.buf, blocks, status);
        }
        first_call = false;
        block = advance_blocks(block, blocks);
        remaining -= blocks;
    }

    std::printf("1++++can_plc_no_response=%d\r\n", t.can_plc_no_response);
    if (t.can_plc_no_response > CAN_MAX_NO_RESPONSE) {
        std::puts("reinit LPC2119********************\r");
        if (t.drv.init != nullptr) {
            t.drv.init(&t.dev, &t.param, t.spi_mutex);
        }
        t.can_plc_no_response = 0;
    }
}

void can_cycle(CanPort& t)
{
    can_serve_realtime(t);
    rebuild_OPT_links(t.port, t.list_head, t.list_tail, t.cursor, t.limits);
    if (t.cursor == t.list_head || t.cursor == t.list_tail) {
        ::usleep(1);
        return;
    }
    can_poll_blocks(t);
    // The next cycle's advance wraps to the first block.
    t.cursor = t.list_tail->prev;
    ::usleep(2);
}
