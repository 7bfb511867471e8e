// Layout and contents of the shared segment that comhost hands to the server.
//
//   0x00                 shm_head
//   0x30 + 32 * i        record of port i
//   word_offset          local word area, 4096-aligned, local_word_count * 2 bytes
//   bit_offset           local bit area, 4-byte aligned, whole 32-bit words,
//                        up to the end of the segment
//
// Each local area runs from its offset up to the other area's offset when
// that is higher, else to the end of the segment; the server learns the
// sizes from the segment size.
#pragma once

#include <cstddef>
#include <cstdint>

#include "host/config.h"

struct SegmentLayout {
    size_t word_offset;
    size_t word_bytes;
    size_t bit_offset;
    size_t bit_bytes;
    size_t size;        // whole segment
};

SegmentLayout segment_layout(const HostConfig& cfg);

// Writes header, port records and initial local bits into a segment of
// layout.size bytes at base; everything else is zeroed. server_pid stays 0.
void segment_fill(uint8_t* base, const SegmentLayout& layout, const HostConfig& cfg);
