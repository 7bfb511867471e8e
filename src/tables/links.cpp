// List sentinels, the two table locks and the table flags.
#include "tables/tables.h"

FAT_node* FAT_link_head = nullptr;
FAT_node* FAT_link_tail = nullptr;
ORG_node* ORT_link_head = nullptr;
ORG_node* ORT_link_tail = nullptr;
RORT_node* RORT_link_head = nullptr;
RORT_node* RORT_link_tail = nullptr;
int32_t real_link_len = 0;

lock_rules::TablesLock rwlock;
lock_rules::RuleMutex<lock_rules::REALTIME_LIST> mutex;

void links_init()
{
    // Sentinels live for the whole process; value-initialisation zero-fills
    // them. Start-up allocations use plain new: without them nothing can run,
    // so std::bad_alloc ending the process is right. Nodes allocated while
    // serving use new (std::nothrow) and their callers handle nullptr.
    FAT_link_head = new FAT_node{};
    FAT_link_tail = new FAT_node{};
    ORT_link_head = new ORG_node{};
    ORT_link_tail = new ORG_node{};
    RORT_link_head = new RORT_node{};
    RORT_link_tail = new RORT_node{};

    FAT_link_head->next = FAT_link_tail;
    FAT_link_tail->prev = FAT_link_head;
    ORT_link_head->next = ORT_link_tail;
    ORT_link_tail->prev = ORT_link_head;
    RORT_link_head->next = RORT_link_tail;
    RORT_link_tail->prev = RORT_link_head;

    // The ORG node before the FAT tail's (empty) group is the last ORG node.
    FAT_link_head->org_first = ORT_link_head;
    FAT_link_tail->org_first = ORT_link_tail;
    real_link_len = 0;
}

bool table_flag_new_range_valid() { return get_bit(LOCAL_BIT_NEW_RANGE_VALID) != 0; }
bool table_flag_keep_on_unregister() { return get_bit(LOCAL_BIT_KEEP_ON_UNREGISTER) != 0; }
bool table_flag_merge_realtime_reads() { return get_bit(LOCAL_BIT_MERGE_REALTIME_READS) != 0; }
