// Extent of the local areas found from the two area pointers and the mapping
// that holds them. Every access the slave makes stays inside the extent found
// here.
#include "local_extent.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <sys/shm.h>

namespace {

struct Mapping {
    uintptr_t begin = 0;
    uintptr_t end = 0;  // 0: not found
};

// The end of a System V segment's mapping is rounded up to a page; the
// segment itself ends at its size. The kernel gives such a mapping the
// segment id as its inode number and a name starting with "/SYSV".
uintptr_t segment_end(uintptr_t begin, uintptr_t end, unsigned long inode, const char* name)
{
    shmid_ds ds{};
    if (std::strncmp(name, "/SYSV", 5) == 0 && shmctl(static_cast<int>(inode), IPC_STAT, &ds) == 0) {
        return std::min<uintptr_t>(end, begin + ds.shm_segsz);
    }
    return end;
}

// The mapping of this process that holds p, from /proc/self/maps.
Mapping mapping_of(const uint8_t* p)
{
    Mapping m;
    FILE* maps = std::fopen("/proc/self/maps", "r");
    if (maps == nullptr) {
        return m;
    }
    const auto at = reinterpret_cast<uintptr_t>(p);
    char line[512];
    while (std::fgets(line, sizeof line, maps) != nullptr) {
        uintptr_t begin = 0, end = 0;
        unsigned long inode = 0;
        char name[256] = "";
        if (std::sscanf(line, "%" SCNxPTR "-%" SCNxPTR " %*s %*s %*s %lu %255s", &begin, &end, &inode, name) >= 3
            && begin <= at && at < end) {
            m.begin = begin;
            m.end = segment_end(begin, end, inode, name);
            break;
        }
    }
    std::fclose(maps);
    return m;
}

size_t area_bytes(const uint8_t* area, const uint8_t* other)
{
    if (area == nullptr) {
        return 0;
    }
    const Mapping m = mapping_of(area);
    const auto a = reinterpret_cast<uintptr_t>(area);
    const auto o = reinterpret_cast<uintptr_t>(other);
    const uintptr_t end = (o > a && o < m.end) ? o : m.end;
    return end > a ? end - a : 0;
}

} // namespace

LocalExtent local_extent(const uint8_t* local_bit, const uint8_t* local_short)
{
    LocalExtent e;
    e.word_bytes = area_bytes(local_short, local_bit) & ~size_t{1};
    e.bit_bytes = area_bytes(local_bit, local_short) & ~size_t{3};
    return e;
}
