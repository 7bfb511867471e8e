// The register address record and the four node kinds of the area tables:
// FAT (one per area), ORG (one per registered range, owns its value cache),
// OPT (one per poll block, per port thread) and RORT (one per realtime request).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <shared_mutex>

#include "base/lock_rules.h"

// Register address record: the same 16 bytes travel in client packets and in
// every table node. Two records name the same range only when all 16 bytes match.
struct REG_ADDR {
    uint8_t rec_tag;
    uint8_t deviceport_id;
    uint8_t plc_id;
    uint8_t addr_unit;
    uint8_t reg_type;       // 0 bit, 1 byte, 2 word, 4 double word
    uint8_t reg_id;         // <241 PLC kind, 241..248 none, 249..255 local / SRAM
    uint16_t byte_offset;
    int32_t reg_addr_start;
    int16_t reg_data_width;
    uint8_t bcd_flag;
    uint8_t reserved;       // carried and compared, never interpreted
};
static_assert(sizeof(REG_ADDR) == 16);
static_assert(offsetof(REG_ADDR, byte_offset) == 6);
static_assert(offsetof(REG_ADDR, reg_addr_start) == 8);
static_assert(offsetof(REG_ADDR, reg_data_width) == 12);
static_assert(offsetof(REG_ADDR, bcd_flag) == 14);

bool reg_addr_equal(const REG_ADDR& a, const REG_ADDR& b);

// Read-modify-write block: six little-endian 32-bit fields. step and the two
// limits hold IEEE single floats for value types 2 and 3.
struct rw_oper {
    int32_t op_code;
    int32_t step;
    int32_t limit_high;
    int32_t limit_low;
    int32_t direction;
    int32_t value_type;
};
static_assert(sizeof(rw_oper) == 24);

struct ORG_node;
struct OPT_node;

struct FAT_node {
    uint8_t deviceport_id;
    uint8_t plc_id;
    uint8_t reg_type;
    uint8_t reg_id;
    int32_t change_state;   // 0 blocks current, 1 rebuild, 2 group empty: delete
    ORG_node* org_first;
    FAT_node* prev;
    FAT_node* next;
    OPT_node* opt_first;
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
    ORG_node* org;          // first covered range; valid only while change_state is 0
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
// bit area (local bits 9260..9262), read at the moment of use.
bool table_flag_new_range_valid();     // bit 12
bool table_flag_keep_on_unregister();  // bit 13
bool table_flag_merge_realtime_reads();// bit 14
