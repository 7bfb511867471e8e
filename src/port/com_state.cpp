// Time-out bookkeeping and publication of station communication state.
// Semaphore 0 is taken only while no table or realtime-list lock is held.
#include "port/com_state.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cassert>
#include <cstdio>
#include <cstring>

#include "base/byte_order.h"
#include "base/globals.h"
#include "base/local_areas.h"
#include "base/shm_sem.h"
#include "driver/driver_traits.h"
#include "port/port_thread.h"
#include "port/refresh.h"
#include "store/addressing.h"
#include "store/data_file.h"

namespace {

time_t wall_seconds() { return time(nullptr); }

time_t steady_seconds()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec;
}

// The state bits live in the segment shared with the parent process and the
// connection threads, which change their neighbours under the segment
// semaphore. Each update therefore takes the semaphore for that one bit and
// changes it with an atomic byte operation. The caller holds no mutex or
// rwlock that a semaphore holder could wait for.
void write_local_bit(int n, bool on)
{
    if (local_bit == nullptr) {
        return;
    }
    assert(!lock_rules::holds(lock_rules::TABLES | lock_rules::REALTIME_LIST));
    ShmSemGuard guard(semid);
    if (on) {
        set_bit(n);
    } else {
        clear_bit(n);
    }
}

// Bit `bit` (0..15) of little-endian word `word` of local_short; a word
// beyond the word area (a small segment) is left alone.
void write_local_word_bit(int word, int bit, bool on)
{
    if (local_short == nullptr || word < 0 || static_cast<size_t>(word) * 2 + 2 > local_short_size()) {
        return;
    }
    ShmSemGuard guard(semid);
    std::atomic_ref<uint8_t> byte(local_short[word * 2 + bit / 8]);
    const auto mask = static_cast<uint8_t>(1u << (bit % 8));
    if (on) {
        byte.fetch_or(mask);
    } else {
        byte.fetch_and(static_cast<uint8_t>(~mask));
    }
}

void print_station_change(int plc_id, const char* what)
{
    std::printf("Plc(%d) %s\n", plc_id, what);
    std::printf("[C%d]\r\n", static_cast<int>(com_state_wall_clock()));
}

// A station in time-out is retried once a fraction (1 / interval_div) of its
// back-off interval has passed and it has been skipped max_tries times, or
// once the whole interval has passed.
constexpr int NORMAL_INTERVAL_DIV = 2;
constexpr int NORMAL_MAX_TRIES = 99;
constexpr int REALTIME_INTERVAL_DIV = 4;
constexpr int REALTIME_MAX_TRIES = 49;

// Time-out table key of a station: (port + 1) * KEY_PORT_UNIT + plc_id.
constexpr uint32_t KEY_PORT_UNIT = 65536;

constexpr int WORD_BITS = 16;  // station state bits per local word
constexpr int STATION_WORDS_PER_PORT = COM_OPER_MAX_ITEMS / WORD_BITS;

int must_com(ComStateItem& item, int interval_div, int max_tries)
{
    if ((item.state & COM_STATE_MASK) != COM_STATE_TIMEOUT) {
        return 1;
    }
    ++item.tries;
    if (item.timeouts <= COM_STATE_FAST_TIMEOUTS) {
        return 1;
    }
    const auto elapsed =
        static_cast<int32_t>(static_cast<uint32_t>(com_state_steady_clock()) - item.last_time);
    if (elapsed < item.interval / interval_div) {
        return 0;
    }
    return (elapsed >= item.interval || item.tries > max_tries) ? 1 : 0;
}

// Sends a write longer than the driver takes at once as consecutive pieces
// of at most max elements, each with fresh copies of its address and data
// reference. A bit piece may start inside a byte of the data, so its bits are
// first moved to the start of a scratch buffer. The first piece that fails
// ends the write and gives its result: a write succeeds only when every
// piece did.
int write_pieces(ComOper& op, const DrvRegAddr& addr, const DrvDataRef& ref, PlcParam* param, int max)
{
    std::array<uint8_t, PORT_BUF_SIZE> bits{};
    const bool bit_range = addr.reg_type == 0;
    const int limit = bit_range ? std::min(max, 8 * PORT_BUF_SIZE) : max;
    DrvRegAddr at = addr;
    for (int done = 0; done < ref.count;) {
        const int n = std::min(ref.count - done, limit);
        uint8_t* data = ref.data + RegAddr_Bytes(addr, done);
        if (bit_range) {
            bit_cpy(bits.data(), ref.data, n, done);
            data = bits.data();
        }
        DrvRegAddr piece_addr = at;
        DrvDataRef piece{n, data};
        const int r = op.write_fn(&piece_addr, &piece, param);
        if (r != 0) {
            return r;
        }
        RegAddr_Add(at, n);
        done += n;
    }
    return 0;
}

int find_locked(const VGlobComState& table, uint32_t key)
{
    if (table.count < 1 || table.slots < 1 || key == 0) {
        return -1;
    }
    for (int i = 0; i < table.slots; ++i) {
        if (table.keys[i] == key) {
            return i;
        }
    }
    return -1;
}

int add_locked(VGlobComState& table, uint32_t key)
{
    if (key == 0) {
        return 0;
    }
    int slot = -1;
    for (int i = 0; i < table.slots; ++i) {
        if (table.keys[i] == 0) {
            slot = i;
            break;
        }
    }
    if (slot < 0) {
        if (table.slots >= VGLOB_COM_STATE_SLOTS) {
            return 0;
        }
        slot = table.slots++;
    }
    table.keys[slot] = key;
    ++table.count;
    return 1;
}

int rmv_locked(VGlobComState& table, int index)
{
    if (index < 0 || index >= VGLOB_COM_STATE_SLOTS || table.keys[index] == 0) {
        return 0;
    }
    table.keys[index] = 0;
    --table.count;
    return 1;
}

} // namespace

namespace {

// The preamble every driver call shares: finds the station's time-out item
// and, when several stations share the port, tells whether the station is
// skipped this time. A skipped call counts as not good and is answered as a
// time-out without reaching the driver. Cyclic polls back off by the normal
// rule, realtime requests by the realtime rule.
enum class CallKind { poll, realtime };

bool skip_station(ComOper& op, const DrvRegAddr& addr, CallKind kind, int& index)
{
    index = ComOper_FindTimeoutItem(op, addr);
    if ((op.flags & COM_OPER_MULTI_STATION) == 0) {
        return false;
    }
    const int must = kind == CallKind::poll ? ComOper_MustNormCom(op, index) : ComOper_MustRtmCom(op, index);
    if (must != 0) {
        return false;
    }
    ++op.ng_count;
    return true;
}

} // namespace

com_state_clock_fn com_state_steady_clock = steady_seconds;
com_state_clock_fn com_state_wall_clock = wall_seconds;

int ComOper_BlockRead(ComOper& op, DrvRegAddr* addr, DrvDataRef* ref, PlcParam* param)
{
    int index = -1;
    if (skip_station(op, *addr, CallKind::poll, index)) {
        return COM_STATE_TIMEOUT;
    }
    DrvRegAddr copy = *addr;
    const int32_t count = ref->count;
    const int r = op.read_fn(addr, ref, param);
    ref->count = count; // a driver may change the count during the call

    if (r != COM_STATE_TIMEOUT) {
        ComOper_UpdateOk(op, index);
    } else {
        ComOper_UpdateTimeout(op, index, copy);
    }
    PlcRegDatArr_WriteData(PlcRegDatArr_Instance(), static_cast<int>(op.port), copy, *ref, status_from_result(r));
    return r;
}

int ComOper_RtmRead(ComOper& op, DrvRegAddr* addr, DrvDataRef* ref, PlcParam* param)
{
    int index = -1;
    if (skip_station(op, *addr, CallKind::realtime, index)) {
        return COM_STATE_TIMEOUT;
    }
    DrvRegAddr copy = *addr;
    const int r = op.read_fn(addr, ref, param);
    if (r != COM_STATE_TIMEOUT) {
        ComOper_UpdateOk(op, index);
        if (r == COM_STATE_OK) {
            PlcRegDatArr_WriteData(PlcRegDatArr_Instance(), static_cast<int>(op.port), copy, *ref, STATUS_OK);
        }
    } else {
        ComOper_UpdateTimeout(op, index, copy);
    }
    return r;
}

int ComOper_Write(ComOper& op, DrvRegAddr* addr, DrvDataRef* ref, PlcParam* param)
{
    int index = -1;
    if (skip_station(op, *addr, CallKind::realtime, index)) {
        return COM_STATE_TIMEOUT;
    }

    // Keep what was asked for: the driver may convert its buffer in place,
    // and the data file records the values in the caller's order.
    DrvRegAddr copy = *addr;
    const int32_t count = ref->count;
    const int bytes = RegAddr_Bytes(*addr, count);
    const bool recordable = ref->data != nullptr && bytes >= 0 && bytes <= PORT_BUF_SIZE;
    std::array<uint8_t, PORT_BUF_SIZE> sent{};
    if (recordable) {
        std::memcpy(sent.data(), ref->data, static_cast<size_t>(bytes));
    }

    const int max = RegAddr_MaxWidth(*addr, *param);
    const int r = (max >= 1 && count > max) ? write_pieces(op, *addr, *ref, param, max)
                                            : op.write_fn(addr, ref, param);

    if (r != COM_STATE_TIMEOUT) {
        ComOper_UpdateOk(op, index);
        if (r == COM_STATE_OK && recordable) {
            if (is_siemens_driver(param->plc_driver_no) && copy.reg_type == 4 && copy.addr_unit == 1) {
                simens_change(sent.data(), count);
            }
            const DrvDataRef written{count, sent.data()};
            PlcRegDatArr_WriteData(PlcRegDatArr_Instance(), static_cast<int>(op.port), copy, written, STATUS_OK);
        }
    } else {
        ComOper_UpdateTimeout(op, index, copy);
    }
    return r;
}

int ComOper_FindTimeoutItem(ComOper& op, const DrvRegAddr& addr)
{
    int found = -1;
    for (int i = 0; i < op.item_count; ++i) {
        const ComStateItem& item = op.items[i];
        if ((item.state & COM_STATE_MASK) == COM_STATE_TIMEOUT && item.plc_id == addr.plc_id) {
            found = i;
            break;
        }
    }
    if (get_bit(LOCAL_BIT_SKIP_ENABLE) == 0) {
        op.flags &= ~COM_OPER_MULTI_STATION;
    } else {
        ComOper_StatPlcs(op, addr);
    }
    return found;
}

int ComOper_MustNormCom(ComOper& op, int index)
{
    return index < 0 ? 1 : ComStateItem_MustNormCom(op.items[index]);
}

int ComOper_MustRtmCom(ComOper& op, int index)
{
    return index < 0 ? 1 : ComStateItem_MustRtmCom(op.items[index]);
}

void ComOper_StatPlcs(ComOper& op, const DrvRegAddr& addr)
{
    if (addr.plc_id >= COM_OPER_MAX_ITEMS) {
        return;
    }
    uint32_t& word = op.station_seen[addr.plc_id / 32];
    const uint32_t mask = 1u << (addr.plc_id % 32);
    if ((word & mask) != 0) {
        return;
    }
    word |= mask;
    if (++op.station_count > 1) {
        op.flags |= COM_OPER_MULTI_STATION;
    }
}

void ComOper_UpdateOk(ComOper& op, int index)
{
    if (index >= 0 && index < op.item_count) {
        ComStateItem& item = op.items[index];
        print_station_change(item.plc_id, "OK");
        ComStateItem_Update(item, COM_STATE_OK);
        std::copy(op.items + index + 1, op.items + op.item_count, op.items + index);
        --op.item_count;
        op.ok_count = 0;
        op.ng_count = 0;
    }
    ++op.ok_count;
}

void ComOper_UpdateTimeout(ComOper& op, int index, const DrvRegAddr& addr)
{
    if (index < 0) {
        print_station_change(addr.plc_id, "NG");
        if (op.item_count < COM_OPER_MAX_ITEMS) {
            ComStateItem_Create(op.items[op.item_count], op.port, addr, COM_STATE_TIMEOUT);
            ++op.item_count;
        }
        op.ok_count = 0;
        op.ng_count = 0;
    } else if (index < op.item_count) {
        ComStateItem_Update(op.items[index], COM_STATE_TIMEOUT);
    }
    ++op.ng_count;
}

void ComStateItem_Create(ComStateItem& item, uint32_t port, const DrvRegAddr& addr, int state)
{
    item = ComStateItem{};
    item.port = port;
    item.plc_id = addr.plc_id;
    item.interval = 1;
    item.timeouts = 1;
    ComStateItem_Update(item, state);
}

void ComStateItem_Update(ComStateItem& item, int state)
{
    ComStateItem_SetState(item, state);
    item.last_time = static_cast<uint32_t>(com_state_steady_clock());
    item.tries = 0;
    item.interval = static_cast<uint16_t>(std::min(2 * item.interval, COM_STATE_MAX_INTERVAL));
    if (state == COM_STATE_TIMEOUT) {
        ++item.timeouts;
    }
}

void ComStateItem_SetState(ComStateItem& item, int state)
{
    VGlobComState_SetState(VGlobComState_Instance(), ComStateItem_GetKey4ComState(item), state);
    if (item.port <= 1) {
        const int word =
            LOCAL_WORD_STATION_STATE + STATION_WORDS_PER_PORT * static_cast<int>(item.port) + item.plc_id / WORD_BITS;
        if (state == COM_STATE_OK) {
            write_local_word_bit(word, item.plc_id % WORD_BITS, false);
        } else if (item.timeouts > COM_STATE_FAST_TIMEOUTS) {
            write_local_word_bit(word, item.plc_id % WORD_BITS, true);
        }
    } else if (item.port == 2) {
        write_local_bit(LOCAL_BIT_PORT2_TIMEOUT, state != COM_STATE_OK);
    }
    SetPortState(static_cast<int>(item.port), state);
    item.state = (item.state & ~COM_STATE_MASK) | (static_cast<uint32_t>(state) & COM_STATE_MASK);
}

int ComStateItem_MustNormCom(ComStateItem& item) { return must_com(item, NORMAL_INTERVAL_DIV, NORMAL_MAX_TRIES); }

int ComStateItem_MustRtmCom(ComStateItem& item) { return must_com(item, REALTIME_INTERVAL_DIV, REALTIME_MAX_TRIES); }

uint32_t ComStateItem_GetKey4ComState(const ComStateItem& item)
{
    return (item.port + 1) * KEY_PORT_UNIT + item.plc_id;
}

VGlobComState& VGlobComState_Instance()
{
    static VGlobComState instance;
    return instance;
}

int VGlobComState_Find(VGlobComState& table, uint32_t key)
{
    std::lock_guard guard(table.lock);
    return find_locked(table, key);
}

int VGlobComState_Add(VGlobComState& table, uint32_t key)
{
    std::lock_guard guard(table.lock);
    return add_locked(table, key);
}

int VGlobComState_Rmv(VGlobComState& table, int index)
{
    std::lock_guard guard(table.lock);
    return rmv_locked(table, index);
}

void VGlobComState_SetState(VGlobComState& table, uint32_t key, int state)
{
    std::lock_guard guard(table.lock);
    const int index = find_locked(table, key);
    if (state != COM_STATE_OK && index < 0) {
        add_locked(table, key);
    } else if (state == COM_STATE_OK && index >= 0) {
        rmv_locked(table, index);
    }
}

void SetPortState(int port, int state)
{
    if (port < 0 || port >= PORT_STATE_BITS) {
        return;
    }
    write_local_bit(LOCAL_BIT_PORT_STATE + port, state != COM_STATE_OK);
}
