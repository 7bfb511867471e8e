// Creation and removal of the System V segment and semaphore set. The
// destructor removes whatever create made, also after a failed create.
#include "host/ipc.h"

#include <cerrno>
#include <cstring>

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

namespace {

union semun {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

std::string sys_error(const char* what)
{
    return std::string(what) + ": " + std::strerror(errno);
}

} // namespace

HostIpc::~HostIpc()
{
    if (base_)
        shmdt(base_);
    if (shmid_ >= 0)
        shmctl(shmid_, IPC_RMID, nullptr);
    if (semid_ >= 0)
        semctl(semid_, 0, IPC_RMID);
}

bool HostIpc::create(size_t size, std::string& err)
{
    shmid_ = shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
    if (shmid_ < 0) {
        err = sys_error("shmget");
        return false;
    }
    void* p = shmat(shmid_, nullptr, 0);
    if (p == reinterpret_cast<void*>(-1)) {
        err = sys_error("shmat");
        return false;
    }
    base_ = static_cast<uint8_t*>(p);
    semid_ = semget(IPC_PRIVATE, 1, IPC_CREAT | 0600);
    if (semid_ < 0) {
        err = sys_error("semget");
        return false;
    }
    semun arg{};
    arg.val = 1;
    if (semctl(semid_, 0, SETVAL, arg) != 0) {
        err = sys_error("semctl SETVAL");
        return false;
    }
    return true;
}
