// Control file of the simulated driver plug-in.
//
// One file, mapped shared by the plug-in instances inside the server and by
// the tests that drive them, holds the simulated register memory, the
// behaviour of each simulated station and a log of every entry-point call.
// The layout is a plain fixed struct; all access goes through the helpers
// below, which take the process-shared lock stored in the file.
#pragma once

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr uint32_t SIM_CONTROL_MAGIC = 0x4d495343;   // "CSIM"
constexpr uint32_t SIM_CONTROL_VERSION = 1;
constexpr int SIM_STATIONS = 64;
constexpr int SIM_REGIONS = 32;
constexpr size_t SIM_REGION_BYTES = 65536;
constexpr uint64_t SIM_LOG_ENTRIES = 4096;

// Result codes the simulated stations return.
constexpr int32_t SIM_OK = 0;
constexpr int32_t SIM_TIMEOUT = 2;
constexpr int32_t SIM_ERROR = 3;

// Which entry point a call-log record stands for.
enum SimEntry : uint32_t {
    SIM_CALL_INIT = 1,
    SIM_CALL_INIT2 = 2,
    SIM_CALL_READ = 3,
    SIM_CALL_WRITE = 4,
    SIM_CALL_SLAVE = 5,
    SIM_CALL_OMRON_READ = 6,
    SIM_CALL_OMRON_REGISTER = 7,
    SIM_CALL_CANOPEN_READ = 8,
};

// Behaviour of one station (bus, station). Stations without an entry
// answer at once with SIM_OK.
struct SimStation {
    uint32_t bus;
    uint16_t station;
    uint8_t used;
    uint8_t pad;
    int32_t result;     // result code every protocol call returns
    uint32_t delay_ms;  // pause before answering
};

// One register memory region: the byte space of one register kind of one station.
struct SimRegion {
    uint32_t bus;
    uint16_t station;
    uint8_t reg_id;
    uint8_t used;
};

// One call-log record. For read/write calls the fields describe the range;
// for batch calls they describe the first entry and count is the number of
// entries; for the start-up calls see docs/sim.md.
struct SimCall {
    uint64_t seq;
    uint32_t entry;     // SimEntry
    uint32_t bus;
    uint16_t plc_id;
    uint8_t reg_type;
    uint8_t reg_id;
    int32_t start;
    int32_t count;
    int32_t result;
};

struct SimControl {
    uint32_t magic;
    uint32_t version;
    uint32_t size;      // sizeof(SimControl) of the writer
    uint32_t reserved;
    union {
        pthread_mutex_t mutex;
        uint8_t room[64];
    } lock;
    alignas(8) uint64_t call_count;     // records ever logged; read lock-free
    SimStation stations[SIM_STATIONS];
    SimRegion regions[SIM_REGIONS];
    SimCall calls[SIM_LOG_ENTRIES];
    uint8_t memory[SIM_REGIONS][SIM_REGION_BYTES];
};
static_assert(sizeof(pthread_mutex_t) <= 64);
static_assert(sizeof(SimStation) == 16);
static_assert(sizeof(SimRegion) == 8);
static_assert(sizeof(SimCall) == 32);
static_assert(offsetof(SimControl, call_count) == 80);

// Owns the mapping of a control file.
class SimControlFile {
public:
    SimControlFile() = default;
    explicit SimControlFile(SimControl* ctl) : ctl_(ctl) {}
    SimControlFile(SimControlFile&& o) noexcept : ctl_(std::exchange(o.ctl_, nullptr)) {}
    SimControlFile& operator=(SimControlFile&& o) noexcept
    {
        std::swap(ctl_, o.ctl_);
        return *this;
    }
    SimControlFile(const SimControlFile&) = delete;
    SimControlFile& operator=(const SimControlFile&) = delete;
    ~SimControlFile()
    {
        if (ctl_)
            munmap(ctl_, sizeof(SimControl));
    }
    SimControl* get() const { return ctl_; }
    SimControl* operator->() const { return ctl_; }
    SimControl& operator*() const { return *ctl_; }
    explicit operator bool() const { return ctl_ != nullptr; }

private:
    SimControl* ctl_ = nullptr;
};

// Holds the file's lock. A holder that died leaves the lock to the next
// taker, which carries on with the data as it is.
class SimLock {
public:
    explicit SimLock(SimControl& ctl) : m_(&ctl.lock.mutex)
    {
        if (pthread_mutex_lock(m_) == EOWNERDEAD)
            pthread_mutex_consistent(m_);
    }
    ~SimLock() { pthread_mutex_unlock(m_); }
    SimLock(const SimLock&) = delete;
    SimLock& operator=(const SimLock&) = delete;

private:
    pthread_mutex_t* m_;
};

inline SimControl* sim_control_map(int fd)
{
    void* p = mmap(nullptr, sizeof(SimControl), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return p == MAP_FAILED ? nullptr : static_cast<SimControl*>(p);
}

// Creates (or empties) the control file at path and maps it. Empty on failure.
inline SimControlFile sim_control_create(const std::string& path)
{
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return {};
    if (ftruncate(fd, sizeof(SimControl)) != 0) {
        close(fd);
        return {};
    }
    SimControl* ctl = sim_control_map(fd);
    if (!ctl)
        return {};
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&ctl->lock.mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    ctl->version = SIM_CONTROL_VERSION;
    ctl->size = sizeof(SimControl);
    // The magic goes in last: an opener that sees it sees an initialised file.
    std::atomic_ref<uint32_t>(ctl->magic).store(SIM_CONTROL_MAGIC, std::memory_order_release);
    return SimControlFile(ctl);
}

// Maps an existing control file made by sim_control_create. Empty when the
// file is missing, too short or not a control file of this version.
inline SimControlFile sim_control_open(const std::string& path)
{
    int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return {};
    struct stat st {};
    if (fstat(fd, &st) != 0 || st.st_size < static_cast<off_t>(sizeof(SimControl))) {
        close(fd);
        return {};
    }
    SimControlFile file(sim_control_map(fd));
    if (!file)
        return {};
    if (std::atomic_ref<uint32_t>(file->magic).load(std::memory_order_acquire) != SIM_CONTROL_MAGIC
        || file->version != SIM_CONTROL_VERSION || file->size != sizeof(SimControl))
        return {};
    return file;
}

// ---- register memory -------------------------------------------------------

// The memory of (bus, station, reg_id), or nullptr when it has none yet and
// create is false, or when the region table is full. Caller holds the lock.
inline uint8_t* sim_region_locked(SimControl& ctl, uint32_t bus, uint16_t station, uint8_t reg_id,
                                  bool create)
{
    int free_slot = -1;
    for (int i = 0; i < SIM_REGIONS; ++i) {
        const SimRegion& r = ctl.regions[i];
        if (!r.used) {
            if (free_slot < 0)
                free_slot = i;
        } else if (r.bus == bus && r.station == station && r.reg_id == reg_id) {
            return ctl.memory[i];
        }
    }
    if (!create || free_slot < 0)
        return nullptr;
    ctl.regions[free_slot] = SimRegion{bus, station, reg_id, 1};
    std::memset(ctl.memory[free_slot], 0, SIM_REGION_BYTES);
    return ctl.memory[free_slot];
}

// Whether count registers of reg_type from start lie inside one region.
inline bool sim_range_ok(uint8_t reg_type, int32_t start, int32_t count)
{
    if (start < 0 || count < 0)
        return false;
    int64_t end = int64_t{start} + count;
    switch (reg_type) {
    case 0: return end <= int64_t{SIM_REGION_BYTES} * 8;
    case 1:
    case 2:
    case 4: return end * reg_type <= int64_t{SIM_REGION_BYTES};
    default: return false;
    }
}

// Copies registers out of a region (mem may be null: all zero) into buf in
// buffer layout: bits packed LSB first, other widths little-endian back to back.
inline void sim_copy_out(const uint8_t* mem, uint8_t reg_type, int32_t start, int32_t count, uint8_t* buf)
{
    if (reg_type == 0) {
        std::memset(buf, 0, (static_cast<size_t>(count) + 7) / 8);
        for (int32_t i = 0; mem && i < count; ++i) {
            int32_t b = start + i;
            if (mem[b / 8] >> (b % 8) & 1)
                buf[i / 8] |= static_cast<uint8_t>(1u << (i % 8));
        }
        return;
    }
    size_t n = static_cast<size_t>(count) * reg_type;
    if (mem)
        std::memcpy(buf, mem + static_cast<size_t>(start) * reg_type, n);
    else
        std::memset(buf, 0, n);
}

inline void sim_copy_in(uint8_t* mem, uint8_t reg_type, int32_t start, int32_t count, const uint8_t* buf)
{
    if (reg_type == 0) {
        for (int32_t i = 0; i < count; ++i) {
            int32_t b = start + i;
            auto mask = static_cast<uint8_t>(1u << (b % 8));
            if (buf[i / 8] >> (i % 8) & 1)
                mem[b / 8] |= mask;
            else
                mem[b / 8] &= static_cast<uint8_t>(~mask);
        }
        return;
    }
    std::memcpy(mem + static_cast<size_t>(start) * reg_type, buf, static_cast<size_t>(count) * reg_type);
}

// Reads count registers into buf (buffer layout). Returns SIM_OK, or
// SIM_ERROR for a bad width or a range outside the region.
inline int32_t sim_mem_read(SimControl& ctl, uint32_t bus, uint16_t station, uint8_t reg_id,
                            uint8_t reg_type, int32_t start, int32_t count, uint8_t* buf)
{
    if (!sim_range_ok(reg_type, start, count))
        return SIM_ERROR;
    SimLock lock(ctl);
    sim_copy_out(sim_region_locked(ctl, bus, station, reg_id, false), reg_type, start, count, buf);
    return SIM_OK;
}

// Stores count registers from buf (buffer layout). SIM_ERROR also when the
// region table is full.
inline int32_t sim_mem_write(SimControl& ctl, uint32_t bus, uint16_t station, uint8_t reg_id,
                             uint8_t reg_type, int32_t start, int32_t count, const uint8_t* buf)
{
    if (!sim_range_ok(reg_type, start, count))
        return SIM_ERROR;
    if (count == 0)
        return SIM_OK;
    SimLock lock(ctl);
    uint8_t* mem = sim_region_locked(ctl, bus, station, reg_id, true);
    if (!mem)
        return SIM_ERROR;
    sim_copy_in(mem, reg_type, start, count, buf);
    return SIM_OK;
}

// One register of reg_type 1, 2 or 4 (value little-endian), or one bit for reg_type 0.
inline bool sim_control_set_value(SimControl& ctl, uint32_t bus, uint16_t station, uint8_t reg_id,
                                  uint8_t reg_type, int32_t addr, uint32_t value)
{
    uint8_t buf[4] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                      static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
    if (reg_type == 0)
        buf[0] = value ? 1 : 0;
    return sim_mem_write(ctl, bus, station, reg_id, reg_type, addr, 1, buf) == SIM_OK;
}

inline uint32_t sim_control_get_value(SimControl& ctl, uint32_t bus, uint16_t station, uint8_t reg_id,
                                      uint8_t reg_type, int32_t addr)
{
    uint8_t buf[4] = {};
    sim_mem_read(ctl, bus, station, reg_id, reg_type, addr, 1, buf);
    return buf[0] | buf[1] << 8 | buf[2] << 16 | static_cast<uint32_t>(buf[3]) << 24;
}

inline bool sim_control_set_bit(SimControl& ctl, uint32_t bus, uint16_t station, uint8_t reg_id,
                                int32_t bit, bool on)
{
    return sim_control_set_value(ctl, bus, station, reg_id, 0, bit, on);
}

inline bool sim_control_get_bit(SimControl& ctl, uint32_t bus, uint16_t station, uint8_t reg_id, int32_t bit)
{
    return sim_control_get_value(ctl, bus, station, reg_id, 0, bit) != 0;
}

// ---- station behaviour -----------------------------------------------------

// Sets how station (bus, station) answers from now on. False when the table is full.
inline bool sim_control_set_station(SimControl& ctl, uint32_t bus, uint16_t station, int32_t result,
                                    uint32_t delay_ms)
{
    SimLock lock(ctl);
    SimStation* slot = nullptr;
    for (SimStation& s : ctl.stations) {
        if (s.used && s.bus == bus && s.station == station) {
            slot = &s;
            break;
        }
        if (!s.used && !slot)
            slot = &s;
    }
    if (!slot)
        return false;
    *slot = SimStation{bus, station, 1, 0, result, delay_ms};
    return true;
}

inline SimStation sim_control_station(SimControl& ctl, uint32_t bus, uint16_t station)
{
    SimLock lock(ctl);
    for (const SimStation& s : ctl.stations)
        if (s.used && s.bus == bus && s.station == station)
            return s;
    return SimStation{bus, station, 0, 0, SIM_OK, 0};
}

// ---- call log ----------------------------------------------------------------

// Appends a record; its seq is the number of records logged before it.
inline void sim_control_log(SimControl& ctl, SimCall call)
{
    SimLock lock(ctl);
    std::atomic_ref<uint64_t> count(ctl.call_count);
    uint64_t seq = count.load(std::memory_order_relaxed);
    call.seq = seq;
    ctl.calls[seq % SIM_LOG_ENTRIES] = call;
    count.store(seq + 1, std::memory_order_release);
}

// Number of records ever logged (never decreases); safe without the lock.
inline uint64_t sim_control_call_count(SimControl& ctl)
{
    return std::atomic_ref<uint64_t>(ctl.call_count).load(std::memory_order_acquire);
}

// The records with seq >= from that are still in the ring, oldest first.
inline std::vector<SimCall> sim_control_calls(SimControl& ctl, uint64_t from = 0)
{
    SimLock lock(ctl);
    uint64_t end = ctl.call_count;
    uint64_t first = std::max(from, end > SIM_LOG_ENTRIES ? end - SIM_LOG_ENTRIES : 0);
    std::vector<SimCall> out;
    for (uint64_t s = first; s < end; ++s)
        out.push_back(ctl.calls[s % SIM_LOG_ENTRIES]);
    return out;
}
