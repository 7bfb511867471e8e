// Where the device's local areas end, as seen from inside a plug-in, which is
// handed only the two area pointers. Each area runs from its pointer to the
// other area's pointer when that lies higher in the same mapping, else to the
// end of the shared segment that holds it: the rule the server sizes them by.
// The word area is cut to whole 16-bit words, the bit area to whole 32-bit words.
#pragma once

#include <cstddef>
#include <cstdint>

struct LocalExtent {
    size_t word_bytes = 0;  // bytes of local_short that may be touched
    size_t bit_bytes = 0;   // bytes of local_bit that may be touched
};

// An area whose pointer lies in no mapping gets size 0.
LocalExtent local_extent(const uint8_t* local_bit, const uint8_t* local_short);
