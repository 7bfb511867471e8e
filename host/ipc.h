// The System V segment and semaphore set that comhost owns for the server's
// lifetime. Both are removed when the owner goes away.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

class HostIpc {
public:
    HostIpc() = default;
    ~HostIpc();
    HostIpc(const HostIpc&) = delete;
    HostIpc& operator=(const HostIpc&) = delete;

    // Creates a private segment of size bytes (mode 0600), attaches it, and
    // a set of one semaphore with value 1. On failure returns false with a
    // message in err; whatever was created is removed by the destructor.
    bool create(size_t size, std::string& err);

    int shmid() const { return shmid_; }
    int semid() const { return semid_; }
    uint8_t* base() const { return base_; }

private:
    int shmid_ = -1;
    int semid_ = -1;
    uint8_t* base_ = nullptr;
};
