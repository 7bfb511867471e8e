// Storage of the process-wide state. It is written only during start-up,
// before any thread starts; afterwards it is read-only.
#include "base/globals.h"

int mode = 0;
int semid = -1;
uint8_t* local_bit = nullptr;
uint8_t* local_short = nullptr;
std::vector<com_port_info> com_info;
int port_num = 0;
std::array<bool, 256> port_threads{};

const com_port_info* com_port(int port)
{
    if (port < 0 || port >= port_num || static_cast<size_t>(port) >= com_info.size()) {
        return nullptr;
    }
    return &com_info[static_cast<size_t>(port)];
}

bool port_has_thread(int port)
{
    return port >= 0 && static_cast<size_t>(port) < port_threads.size() && port_threads[static_cast<size_t>(port)];
}
