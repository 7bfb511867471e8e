// Derivation of the local area sizes from the segment header, done once at
// start-up before any thread reads them.
#include "base/local_areas.h"

namespace {

// Written once at start-up, read-only afterwards.
struct local_area_sizes {
    size_t short_bytes = 0;
    size_t bit_bytes = 0;
};

local_area_sizes areas;

size_t area_bytes(size_t segment_size, uint32_t offset, uint32_t other_offset)
{
    size_t end = other_offset > offset ? other_offset : segment_size;
    if (end > segment_size) {
        end = segment_size;
    }
    return end > offset ? end - offset : 0;
}

} // namespace

void local_areas_init(size_t segment_size, uint32_t local_short_offset, uint32_t local_bit_offset)
{
    areas.short_bytes = area_bytes(segment_size, local_short_offset, local_bit_offset) & ~size_t{1};
    areas.bit_bytes = area_bytes(segment_size, local_bit_offset, local_short_offset) & ~size_t{3};
}

size_t local_short_size() { return areas.short_bytes; }
size_t local_bit_size() { return areas.bit_bytes; }
