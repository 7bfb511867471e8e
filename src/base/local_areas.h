// Sizes of the local word area (local_short) and the local bit area
// (local_bit) inside the shared segment. The parent does not publish them,
// so they are derived once at start-up from the segment size and the two
// area offsets of the header. Until local_areas_init runs both sizes are 0,
// which makes every access to a local area out of bounds.
#pragma once

#include <cstddef>
#include <cstdint>

// Each area runs from its offset to the other area's offset when that lies
// higher, else to the end of the segment. The word area is cut to whole
// 16-bit words, the bit area to whole 32-bit words. Call once before any
// thread starts (main), or from a test before exercising local accesses.
void local_areas_init(size_t segment_size, uint32_t local_short_offset, uint32_t local_bit_offset);

size_t local_short_size();  // bytes of local_short that may be touched
size_t local_bit_size();    // bytes of local_bit that may be touched
