// Semaphore 0 of the set guards the shared segment. Every access to the
// header, the port records and the local areas is bracketed by take/give.
#pragma once

void shm_sem_take(int semid);
void shm_sem_give(int semid);

// Holds semaphore 0 of a set for the lifetime of the object.
class ShmSemGuard {
public:
    explicit ShmSemGuard(int semid) : semid_(semid) { shm_sem_take(semid_); }
    ~ShmSemGuard() { shm_sem_give(semid_); }
    ShmSemGuard(const ShmSemGuard&) = delete;
    ShmSemGuard& operator=(const ShmSemGuard&) = delete;

private:
    int semid_;
};
