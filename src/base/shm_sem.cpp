// Take and give of segment semaphore 0. Each take is matched by a give on
// the same thread, and a thread never takes it twice.
#include "base/shm_sem.h"

#include <cerrno>
#include <sys/sem.h>

#include "base/lock_rules.h"

namespace {

void sem_step(int semid, short op)
{
    if (semid < 0) {
        return; // no segment attached (unit tests of code that locks)
    }
    sembuf b{};
    b.sem_num = 0;
    b.sem_op = op;
    b.sem_flg = 0;
    while (semop(semid, &b, 1) == -1 && errno == EINTR) {
    }
}

} // namespace

void shm_sem_take(int semid)
{
    lock_rules::taking(lock_rules::SEGMENT);
    sem_step(semid, -1);
    lock_rules::taken(lock_rules::SEGMENT);
}

void shm_sem_give(int semid)
{
    lock_rules::released(lock_rules::SEGMENT);
    sem_step(semid, +1);
}
