// The four node kinds of the area tables:
// FAT (one per area), ORG (one per registered range, owns its value cache),
// OPT (one per poll block, per port thread) and RORT (one per realtime request).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <shared_mutex>

#include "base/lock_rules.h"
#include "base/reg_addr.h"

struct ORG_node;
struct OPT_node;

// FAT_node::change_state: what the port thread's next rebuild pass does.
enum : int32_t {
    AREA_CURRENT = 0,  // the poll blocks match the ranges: nothing
    AREA_REBUILD = 1,  // ranges changed: build the blocks again
    AREA_EMPTY = 2,    // no range left: delete the area
};

struct FAT_node {
    uint8_t deviceport_id;
    uint8_t plc_id;
    uint8_t reg_type;
    uint8_t reg_id;
    int32_t change_state;   // AREA_CURRENT, AREA_REBUILD or AREA_EMPTY
    ORG_node* org_first;
    FAT_node* prev;
    FAT_node* next;
    OPT_node* opt_first;
};

// Kinds of realtime request (RORT_node::req_type).
enum : int16_t {
    REQ_READ = 0,
    REQ_WRITE = 1,
    REQ_RMW = 2,  // read-modify-write
};

struct ORG_node {
    // Sweeps since the range was last read. Cached reads reset it holding
    // rwlock only for reading, many at once, hence atomic; the sweeper ages
    // it holding rwlock for writing.
    std::atomic<int16_t> age;
    int16_t status;         // 0 none yet, 1 valid, 2 no answer, 3 failed
    int16_t part_status;
    REG_ADDR reg_addr;
    uint32_t refresh_time;
    uint8_t* data;          // cal_commbuf_size(reg_addr) bytes, owned
    ORG_node* prev;
    ORG_node* next;
};

struct OPT_node {
    REG_ADDR reg_addr;
    ORG_node* org;          // first covered range; valid only while change_state is AREA_CURRENT
    OPT_node* prev;
    OPT_node* next;
};

struct RORT_node {
    int16_t req_type;       // 0 read, 1 write, 2 read-modify-write
    int16_t status;         // 0 pending, 1 done, 2 no answer, 3 failed
    REG_ADDR reg_addr;
    int16_t age;
    int16_t data_len;
    ::rw_oper rw_oper;
    uint8_t* data;          // owned
    uint32_t owner;         // id of the connection that queued it
    bool retired;           // superseded by a newer request of its owner: never collected
    RORT_node* prev;
    RORT_node* next;
};

// List sentinels, created by links_init.
extern FAT_node* FAT_link_head;
extern FAT_node* FAT_link_tail;
extern ORG_node* ORT_link_head;
extern ORG_node* ORT_link_tail;
extern RORT_node* RORT_link_head;
extern RORT_node* RORT_link_tail;
extern int32_t real_link_len;

// rwlock guards FAT, ORG (and caches) and each OPT list while it is rebuilt;
// mutex guards the RORT list and its nodes. Never hold both at once (checked
// in debug builds, see base/lock_rules.h).
extern lock_rules::TablesLock rwlock;
extern lock_rules::RuleMutex<lock_rules::REALTIME_LIST> mutex;

void links_init();

// Table flags: bits 12, 13, 14 of the 32-bit word at byte 1156 of the local
// bit area, read at the moment of use.
constexpr int LOCAL_BIT_NEW_RANGE_VALID = 9260;
constexpr int LOCAL_BIT_KEEP_ON_UNREGISTER = 9261;
constexpr int LOCAL_BIT_MERGE_REALTIME_READS = 9262;
bool table_flag_new_range_valid();     // bit 12
bool table_flag_keep_on_unregister();  // bit 13
bool table_flag_merge_realtime_reads();// bit 14
