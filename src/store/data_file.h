// Register data file store: every block of PLC register data that a driver
// reads or writes is mirrored into one file per (port, PLC, register kind)
// under data_dir(), so that other programs on the device can look up the
// latest value of any register and whether its last transfer succeeded.
//
// File "<data_dir>/%x.dat", key = reg_id | plc_id << 8 | port << 16:
//   bytes 0..3   status of the last transfer (1 valid, 2 no answer, 3 error)
//   bytes 4..    logical data space; logical byte L is file byte L + 4.
// The logical space is cut into 4096-byte blocks. Blocks 0 and 1 hold data
// bytes 0..8191 directly; block 2 is the top directory (entry A >> 22); its
// entries name second-level directories (entry (A >> 12) % 1024), whose
// entries name data blocks. All integers are 32-bit little-endian.
//
// The store is switched on by local bit 9924.
#pragma once

#include <cstdint>
#include <mutex>
#include <sys/types.h>

#include "base/lock_rules.h"
#include "driver/plc_abi.h"

constexpr int PLC_REG_DAT_ENTRIES = 256;
constexpr int PLC_REG_DAT_BLOCK = 4096;
constexpr int PLC_REG_DAT_ZERO_SIZE = 16384;
constexpr int PLC_REG_DAT_SWITCH_BIT = 9924;

struct PlcRegDatEntry {
    int32_t fd;     // 0 or less: free
    uint32_t key;
    int32_t users;  // store calls writing through fd right now; never recycled while above 0
};

// The process-wide descriptor cache. `lock` guards `entries` and is held
// only to look up, pin, unpin or replace an entry, never across file I/O: a
// file is written by its own port's thread alone, through a pinned entry, so
// no other thread can close its descriptor (and let the number be reused by
// another open) in the middle of a write.
struct PlcRegDatArr {
    PlcRegDatEntry entries[PLC_REG_DAT_ENTRIES] = {};
    lock_rules::RuleMutex<lock_rules::DATA_FILES> lock;
};

// A descriptor borrowed for one store call. slot is the pinned entry, or -1
// for a descriptor that could not be cached because every entry was pinned;
// releasing unpins the entry, or closes such an uncached descriptor.
struct PlcRegDatFd {
    int fd = -1;
    int slot = -1;
};

PlcRegDatArr& PlcRegDatArr_Instance();
const uint8_t* PlcRegDatArr_Zero(); // PLC_REG_DAT_ZERO_SIZE zero bytes

// Mirrors one driver transfer. `reg` may be edited (Modbus bit view).
void PlcRegDatArr_WriteData(PlcRegDatArr& arr, int port, DrvRegAddr& reg, const DrvDataRef& data, int status);
void PlcRegDatArr_DoWriteData(PlcRegDatArr& arr, uint32_t key, int32_t addr, int32_t length,
                              const uint8_t* data, int status);
// fd is the failed open's result (0 or less) when the file cannot be opened;
// then nothing needs releasing.
PlcRegDatFd PlcRegDatArr_GetFileFd(PlcRegDatArr& arr, uint32_t key, int flags);
void PlcRegDatArr_ReleaseFileFd(PlcRegDatArr& arr, const PlcRegDatFd& f);

void PlcRegDatArr_WriteFile(int fd, int32_t addr, int32_t length, const uint8_t* data);
// Logical offset of data byte `addr`, allocating directory and data blocks as
// needed; -1 when the block map cannot be extended.
int64_t PlcRegDatArr_GetWriteDataOffset(int fd, int32_t addr);
int32_t PlcRegDatArr_GetSubBlock(int fd, int64_t block, int32_t index);
int PlcRegDatArr_SetSubBlock(int fd, int64_t block, int32_t index, int32_t value);
int64_t PlcRegDatArr_NewBlock(int fd);
int64_t PlcRegDatArr_FillZero(int fd, int64_t logical);
int64_t PlcRegDatArr_Seek2(int fd, int64_t logical);
off_t PlcRegDatArr_FileLen(int fd);
