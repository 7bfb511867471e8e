// Communication state of the PLC stations of a port. A station that stops
// answering would cost a full driver time-out on every request and slow the
// whole port; each port thread therefore keeps its stations in time-out in
// its ComOper record, backs off from them, and publishes their state on
// stdout, in the shared local areas and in the process-wide VGlobComState.
#pragma once

#include <cstdint>
#include <ctime>
#include <mutex>

#include "base/lock_rules.h"
#include "driver/plc_abi.h"

constexpr int COM_STATE_OK = 0;               // driver result / item state: answered
constexpr int COM_STATE_TIMEOUT = 2;          // driver result / item state: no answer
constexpr uint32_t COM_STATE_MASK = 0xF;      // ComStateItem.state bits holding the state
constexpr int COM_STATE_FAST_TIMEOUTS = 3;    // time-outs retried at full speed and not yet published per station
constexpr int COM_STATE_MAX_INTERVAL = 10;    // back-off ceiling in seconds
constexpr int COM_OPER_MAX_ITEMS = 256;       // one per station (plc_id is a byte)
constexpr int VGLOB_COM_STATE_SLOTS = 1024;
constexpr uint32_t COM_OPER_MULTI_STATION = 1; // ComOper.flags bit 0

// Local bits and words written or read here.
constexpr int LOCAL_BIT_SKIP_ENABLE = 9263;    // read: allow skipping stations in time-out
constexpr int LOCAL_BIT_PORT2_TIMEOUT = 9259;  // a station of port 2 is in time-out
constexpr int LOCAL_BIT_PORT_STATE = 9500;     // + port (0..PORT_STATE_BITS - 1): set = failing
constexpr int PORT_STATE_BITS = 32;
constexpr int LOCAL_WORD_STATION_STATE = 9432; // + 16 * port + plc_id / 16, ports 0 and 1

// One station of one port in time-out.
struct ComStateItem {
    uint32_t state;     // low 4 bits: 0 normal, 2 time-out
    uint32_t port;
    uint16_t plc_id;
    uint16_t interval;  // back-off in seconds: 2, 4, 8, 10, 10, ...
    uint32_t last_time; // steady clock seconds of the last update
    uint16_t tries;     // decisions since the last update
    uint16_t timeouts;
};

// Per port thread; zeroed at start, then port, read_fn and write_fn are set.
struct ComOper {
    uint32_t flags;
    uint32_t port;
    int32_t item_count;
    ComStateItem items[COM_OPER_MAX_ITEMS];
    uint32_t ok_count;
    uint32_t ng_count;
    uint32_t station_count;
    uint32_t station_seen[8];
    ev_plc_read_fn read_fn;
    ev_plc_write_fn write_fn;
};

// Process-wide table of the keys ((port + 1) * 65536 + plc_id) of every
// station that some port has in time-out. Every VGlobComState_* function
// takes `lock` itself, so a connection thread may call VGlobComState_Find
// on the instance directly.
struct VGlobComState {
    uint32_t unused = 0;
    int32_t count = 0;
    int32_t slots = 0;   // high-water mark, never shrinks
    uint32_t keys[VGLOB_COM_STATE_SLOTS] = {};
    lock_rules::RuleMutex<lock_rules::TIMEOUT_TABLE> lock;  // never held with another lock
};

// Clocks in seconds; tests point them at controllable ones. The back-off
// decisions and the items' time stamps read the steady clock (monotonic), so
// a wall clock set back or forward never stops or hurries the retries of a
// station; the wall clock (time()) only stamps the "[C%d]" lines.
using com_state_clock_fn = time_t (*)();
extern com_state_clock_fn com_state_steady_clock;
extern com_state_clock_fn com_state_wall_clock;

// Driver calls wrapped with the time-out bookkeeping. Result: the driver's
// result code, or 2 when the station was skipped without a driver call.
int ComOper_BlockRead(ComOper& op, DrvRegAddr* addr, DrvDataRef* ref, PlcParam* param);
int ComOper_RtmRead(ComOper& op, DrvRegAddr* addr, DrvDataRef* ref, PlcParam* param);
int ComOper_Write(ComOper& op, DrvRegAddr* addr, DrvDataRef* ref, PlcParam* param);

int ComOper_FindTimeoutItem(ComOper& op, const DrvRegAddr& addr);
int ComOper_MustNormCom(ComOper& op, int index);
int ComOper_MustRtmCom(ComOper& op, int index);
void ComOper_StatPlcs(ComOper& op, const DrvRegAddr& addr);
void ComOper_UpdateOk(ComOper& op, int index);
void ComOper_UpdateTimeout(ComOper& op, int index, const DrvRegAddr& addr);

void ComStateItem_Create(ComStateItem& item, uint32_t port, const DrvRegAddr& addr, int state);
void ComStateItem_Update(ComStateItem& item, int state);
void ComStateItem_SetState(ComStateItem& item, int state);
int ComStateItem_MustNormCom(ComStateItem& item);
int ComStateItem_MustRtmCom(ComStateItem& item);
uint32_t ComStateItem_GetKey4ComState(const ComStateItem& item);

VGlobComState& VGlobComState_Instance();
int VGlobComState_Find(VGlobComState& table, uint32_t key);
int VGlobComState_Add(VGlobComState& table, uint32_t key);
int VGlobComState_Rmv(VGlobComState& table, int index);
void VGlobComState_SetState(VGlobComState& table, uint32_t key, int state);

// Local bit 9500 + port (ports 0..31): set when state is non-zero.
void SetPortState(int port, int state);
