// Register data files. The descriptor table is guarded by arr.lock; in a
// file, bytes 0..3 hold the status and byte L + 4 holds logical byte L.
#include "store/data_file.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstdio>
#include <fcntl.h>
#include <limits>
#include <string>
#include <unistd.h>

#include "base/byte_order.h"
#include "base/ignore_result.h"
#include "base/paths.h"
#include "store/addressing.h"

namespace {

constexpr int64_t STATUS_BYTES = 4;                      // the status word before the logical space
constexpr int64_t DIRECT_BYTES = 2 * PLC_REG_DAT_BLOCK;   // data bytes 0..8191 live in blocks 0 and 1
constexpr int64_t TOP_DIR_BLOCK = 2;
constexpr int64_t FIRST_FREE_BLOCK = 3;
constexpr int64_t DIR_ENTRY_BYTES = 4;                    // one 32-bit block number
constexpr int64_t DIR_ENTRIES = PLC_REG_DAT_BLOCK / DIR_ENTRY_BYTES;
constexpr int TOP_DIR_SHIFT = 22;                         // data address bits above one second-level directory
constexpr int BLOCK_SHIFT = 12;                           // data address bits inside one block
static_assert(PLC_REG_DAT_BLOCK == 1 << BLOCK_SHIFT);
static_assert(DIR_ENTRIES << BLOCK_SHIFT == int64_t{1} << TOP_DIR_SHIFT);
constexpr int MAX_BITS_PER_CALL = 4096;                 // one byte per bit in the working buffer
constexpr mode_t FILE_MODE = 0644;

// Writes `length` zero bytes at the current position, in zero-block chunks.
int64_t write_zeros(int fd, int64_t length)
{
    int64_t done = 0;
    while (done < length) {
        const auto n = static_cast<size_t>(std::min<int64_t>(length - done, PLC_REG_DAT_ZERO_SIZE));
        const ssize_t w = ::write(fd, PlcRegDatArr_Zero(), n);
        if (w <= 0) {
            return w;
        }
        done += w;
    }
    return done;
}

std::string data_file_path(uint32_t key)
{
    char name[16];
    std::snprintf(name, sizeof name, "%x.dat", key);
    return data_dir() + "/" + name;
}

int open_data_file(uint32_t key, int flags)
{
    const std::string path = data_file_path(key);
    int fd = ::open(path.c_str(), flags);
    if (fd < 0 && flags != 0) {
        fd = ::open(path.c_str(), flags | O_CREAT, FILE_MODE);
    }
    if (fd == 0) {
        // Descriptor 0 counts as "not open" in the table; with stdin closed the
        // first open lands there, so keep it occupied and take the next one.
        fd = ::open(path.c_str(), flags);
    }
    return fd;
}

// ---- descriptor table (caller holds arr.lock) ----

int find_open_locked(const PlcRegDatArr& arr, uint32_t key)
{
    for (int i = 0; i < PLC_REG_DAT_ENTRIES; ++i) {
        if (arr.entries[i].key == key && arr.entries[i].fd > 0) {
            return i;
        }
    }
    return -1;
}

PlcRegDatFd pin_locked(PlcRegDatArr& arr, int slot)
{
    PlcRegDatEntry& e = arr.entries[slot];
    assert(e.fd > 0 && e.users >= 0);
    ++e.users;
    return PlcRegDatFd{e.fd, slot};
}

// Entries fill from the last one down. With every entry open, the first one
// that no store call is using is recycled; -1 when all are in use.
int free_or_idle_slot_locked(const PlcRegDatArr& arr)
{
    for (int i = PLC_REG_DAT_ENTRIES - 1; i >= 0; --i) {
        if (arr.entries[i].fd <= 0) {
            return i;
        }
    }
    for (int i = 0; i < PLC_REG_DAT_ENTRIES; ++i) {
        if (arr.entries[i].users == 0) {
            return i;
        }
    }
    return -1;
}

uint32_t file_key(int port, const DrvRegAddr& reg)
{
    return static_cast<uint32_t>(reg.reg_id) | static_cast<uint32_t>(reg.plc_id) << 8 |
           static_cast<uint32_t>(port) << 16;
}

} // namespace

PlcRegDatArr& PlcRegDatArr_Instance()
{
    static PlcRegDatArr instance;
    return instance;
}

const uint8_t* PlcRegDatArr_Zero()
{
    static const std::array<uint8_t, PLC_REG_DAT_ZERO_SIZE> zero{};
    return zero.data();
}

void PlcRegDatArr_WriteData(PlcRegDatArr& arr, int port, DrvRegAddr& reg, const DrvDataRef& data, int status)
{
    if (get_bit(PLC_REG_DAT_SWITCH_BIT) == 0) {
        return;
    }
    const int64_t elem = reg.reg_type < 1 ? 1 : reg.reg_type;
    const int64_t addr = static_cast<int64_t>(reg.reg_addr_start) * elem;
    const int32_t count = data.data != nullptr ? data.count : 0; // no data: status only
    int64_t length = static_cast<int64_t>(count) * elem;
    // One call covers non-negative data addresses inside the 32-bit space and
    // at most 4096 bits; anything else is not stored at all.
    if (addr < 0 || addr + std::max<int64_t>(length, 0) > std::numeric_limits<int32_t>::max()) {
        return;
    }
    if (reg.reg_type == 0 && count > MAX_BITS_PER_CALL) {
        return;
    }
    const uint32_t key = file_key(port, reg);

    if (count != 0 && reg.reg_type == 0) {
        std::array<uint8_t, MAX_BITS_PER_CALL> bytes{};
        CvtBits2Bytes(data.data, 0, count, bytes.data());
        PlcRegDatArr_DoWriteData(arr, key, static_cast<int32_t>(addr), count, bytes.data(), status);
        return;
    }
    PlcRegDatArr_DoWriteData(arr, key, static_cast<int32_t>(addr), static_cast<int32_t>(length), data.data,
                             status);

    if (RegAddr_IsModbusExtend(port, reg) != 0) {
        const int bits = change_Modbus_Extend_to_REG_ADDR_temp(reg, count);
        const DrvDataRef view{bits, data.data};
        PlcRegDatArr_WriteData(arr, port, reg, view, status);
    }
}

void PlcRegDatArr_DoWriteData(PlcRegDatArr& arr, uint32_t key, int32_t addr, int32_t length,
                              const uint8_t* data, int status)
{
    const PlcRegDatFd f = PlcRegDatArr_GetFileFd(arr, key, O_RDWR);
    if (f.fd <= 0) {
        return;
    }
    uint8_t word[STATUS_BYTES];
    put_le32(word, static_cast<uint32_t>(status));
    ::lseek(f.fd, 0, SEEK_SET);
    ignore_result(::write(f.fd, word, sizeof word));
    if (status == STATUS_OK) {
        PlcRegDatArr_WriteFile(f.fd, addr, length, data);
    }
    PlcRegDatArr_ReleaseFileFd(arr, f);
}

PlcRegDatFd PlcRegDatArr_GetFileFd(PlcRegDatArr& arr, uint32_t key, int flags)
{
    {
        std::lock_guard guard(arr.lock);
        if (const int slot = find_open_locked(arr, key); slot >= 0) {
            return pin_locked(arr, slot);
        }
    }
    // Opening happens outside the lock.
    const int fd = open_data_file(key, flags);
    if (fd <= 0) {
        return PlcRegDatFd{fd, -1};
    }
    std::lock_guard guard(arr.lock);
    if (const int slot = find_open_locked(arr, key); slot >= 0) {
        // Cached meanwhile by another thread with the same port number.
        ::close(fd);
        return pin_locked(arr, slot);
    }
    const int slot = free_or_idle_slot_locked(arr);
    if (slot < 0) {
        return PlcRegDatFd{fd, -1};
    }
    PlcRegDatEntry& e = arr.entries[slot];
    if (e.fd > 0) {
        ::close(e.fd); // an idle entry: nobody writes through it
    }
    e = PlcRegDatEntry{fd, key, 0};
    return pin_locked(arr, slot);
}

void PlcRegDatArr_ReleaseFileFd(PlcRegDatArr& arr, const PlcRegDatFd& f)
{
    if (f.slot < 0) {
        if (f.fd > 0) {
            ::close(f.fd);
        }
        return;
    }
    std::lock_guard guard(arr.lock);
    PlcRegDatEntry& e = arr.entries[f.slot];
    assert(e.fd == f.fd && e.users > 0);
    --e.users;
}

void PlcRegDatArr_WriteFile(int fd, int32_t addr, int32_t length, const uint8_t* data)
{
    assert(!lock_rules::holds(lock_rules::DATA_FILES)); // never held across file I/O
    while (length > 0) {
        const int64_t logical = PlcRegDatArr_GetWriteDataOffset(fd, addr);
        if (logical < 0) {
            return;
        }
        const int32_t n = std::min(PLC_REG_DAT_BLOCK - addr % PLC_REG_DAT_BLOCK, length);
        PlcRegDatArr_Seek2(fd, logical);
        ignore_result(::write(fd, data, static_cast<size_t>(n)));
        addr += n;
        data += n;
        length -= n;
    }
}

int64_t PlcRegDatArr_GetWriteDataOffset(int fd, int32_t addr)
{
    if (addr < DIRECT_BYTES) {
        PlcRegDatArr_FillZero(fd, addr);
        return addr;
    }
    PlcRegDatArr_FillZero(fd, (TOP_DIR_BLOCK + 1) * PLC_REG_DAT_BLOCK);

    // A map entry or a new block below 3 would point into the direct area or
    // the top directory: the map is unusable and nothing is written.
    const int32_t top_index = addr >> TOP_DIR_SHIFT;
    int64_t dir = PlcRegDatArr_GetSubBlock(fd, TOP_DIR_BLOCK, top_index);
    if (dir <= 0) {
        dir = PlcRegDatArr_NewBlock(fd);
        if (dir < FIRST_FREE_BLOCK ||
            PlcRegDatArr_SetSubBlock(fd, TOP_DIR_BLOCK, top_index, static_cast<int32_t>(dir)) == 0) {
            return -1;
        }
    } else if (dir < FIRST_FREE_BLOCK) {
        return -1;
    }

    const auto sub_index = static_cast<int32_t>((addr >> BLOCK_SHIFT) % DIR_ENTRIES);
    int64_t block = PlcRegDatArr_GetSubBlock(fd, dir, sub_index);
    if (block <= 0) {
        block = PlcRegDatArr_NewBlock(fd);
        if (block < FIRST_FREE_BLOCK ||
            PlcRegDatArr_SetSubBlock(fd, dir, sub_index, static_cast<int32_t>(block)) == 0) {
            return -1;
        }
    } else if (block < FIRST_FREE_BLOCK) {
        return -1;
    }
    return block * PLC_REG_DAT_BLOCK + addr % PLC_REG_DAT_BLOCK;
}

int32_t PlcRegDatArr_GetSubBlock(int fd, int64_t block, int32_t index)
{
    const int64_t pos = STATUS_BYTES + block * PLC_REG_DAT_BLOCK + index * DIR_ENTRY_BYTES;
    if (PlcRegDatArr_FileLen(fd) < pos + DIR_ENTRY_BYTES) {
        return -1;
    }
    uint8_t word[DIR_ENTRY_BYTES];
    if (::pread(fd, word, sizeof word, static_cast<off_t>(pos)) != DIR_ENTRY_BYTES) {
        return -1;
    }
    return static_cast<int32_t>(get_le32(word));
}

int PlcRegDatArr_SetSubBlock(int fd, int64_t block, int32_t index, int32_t value)
{
    const int64_t pos = STATUS_BYTES + block * PLC_REG_DAT_BLOCK + index * DIR_ENTRY_BYTES;
    if (PlcRegDatArr_FileLen(fd) < pos + DIR_ENTRY_BYTES) {
        return 0;
    }
    uint8_t word[DIR_ENTRY_BYTES];
    put_le32(word, static_cast<uint32_t>(value));
    return ::pwrite(fd, word, sizeof word, static_cast<off_t>(pos)) == DIR_ENTRY_BYTES ? 1 : 0;
}

int64_t PlcRegDatArr_NewBlock(int fd)
{
    const off_t old_len = PlcRegDatArr_FileLen(fd);
    if (old_len < STATUS_BYTES) {
        return -1;
    }
    if (write_zeros(fd, PLC_REG_DAT_BLOCK) != PLC_REG_DAT_BLOCK) {
        // A partial block would shift every later block number: undo it.
        ignore_result(::ftruncate(fd, old_len));
        return -1;
    }
    return (old_len - STATUS_BYTES) / PLC_REG_DAT_BLOCK;
}

int64_t PlcRegDatArr_FillZero(int fd, int64_t logical)
{
    const int64_t r = PlcRegDatArr_Seek2(fd, logical);
    if (r >= 0) {
        return r;
    }
    return write_zeros(fd, -r);
}

int64_t PlcRegDatArr_Seek2(int fd, int64_t logical)
{
    const int64_t len = PlcRegDatArr_FileLen(fd);
    if (logical + STATUS_BYTES < len) {
        ::lseek(fd, static_cast<off_t>(logical + STATUS_BYTES), SEEK_SET);
        return 0;
    }
    return len - (logical + STATUS_BYTES);
}

off_t PlcRegDatArr_FileLen(int fd)
{
    return ::lseek(fd, 0, SEEK_END);
}
