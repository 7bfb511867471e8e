// comserver MODE SHMID SEMID
// Reads the shared configuration, starts one polling thread per usable port,
// the sweeper, and serves TCP clients, each on its own thread, for ever.
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#include "base/globals.h"
#include "base/local_areas.h"
#include "base/paths.h"
#include "base/shm_sem.h"
#include "can/can_thread.h"
#include "port/process_thread.h"
#include "server/connection.h"
#include "tables/sweeper.h"
#include "tables/tables.h"

namespace {

constexpr size_t CAN_PORT_SLOTS = 5;

template <typename Fn, typename... Args>
void start_detached(Fn fn, Args... args)
{
    try {
        std::thread(fn, args...).detach();
    } catch (const std::system_error&) {
        std::puts("Create thread error\r");
        std::exit(0);
    }
}

void block_sigpipe()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    sigprocmask(SIG_BLOCK, &set, nullptr);
}

int open_listener(uint16_t port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        std::puts("Create listen socket error\r");
        std::exit(0);
    }
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(port);
    while (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        std::puts(" Bind socket error\r");
        ::sleep(1);
    }
    // The system's maximum backlog: a burst of clients waits in the queue
    // instead of having its connects dropped and retried seconds later.
    if (::listen(fd, SOMAXCONN) != 0) {
        std::printf("Listening socket error");
        std::exit(0);
    }
    return fd;
}

// Argument order is fixed by comhost: MODE SHMID SEMID. Returns the SHMID;
// the mode and the semaphore set go to the process-wide state.
int parse_args(int argc, char** argv)
{
    if (argc < 4) {
        std::puts("usage: comserver MODE SHMID SEMID\r");
        std::exit(0);
    }
    mode = static_cast<int>(std::strtol(argv[1], nullptr, 10));
    const int shmid = static_cast<int>(std::strtol(argv[2], nullptr, 10));
    semid = static_cast<int>(std::strtol(argv[3], nullptr, 10));
    return shmid;
}

uint8_t* attach_segment(int shmid, size_t& seg_size)
{
    void* seg = ::shmat(shmid, nullptr, 0);
    if (seg == reinterpret_cast<void*>(-1)) {
        std::printf("shmat error: %s\r\n", std::strerror(errno));
        std::exit(0);
    }
    shmid_ds info{};
    seg_size = ::shmctl(shmid, IPC_STAT, &info) == 0 ? info.shm_segsz : 0;
    return static_cast<uint8_t*>(seg);
}

// Reads the header under the semaphore, sets up the local areas and leaves
// our PID for the parent. Returns the TCP port to listen on.
uint16_t read_header(uint8_t* base, size_t seg_size)
{
    auto* hdr = reinterpret_cast<shm_head*>(base);
    const pid_t pid = ::getpid();

    shm_sem_take(semid);
    local_bit = base + hdr->local_bit_offset;
    local_short = base + hdr->local_short_offset;
    local_areas_init(seg_size, hdr->local_short_offset, hdr->local_bit_offset);
    const uint16_t tcp_port = hdr->PORT;
    std::printf("PORT=%d\r\n", static_cast<int16_t>(tcp_port));
    port_num = hdr->port_num;
    std::printf("port_num=%d\r\n", port_num);
    hdr->server_pid = static_cast<uint32_t>(pid);
    std::puts("release sem");
    shm_sem_give(semid);
    std::puts("released");
    return tcp_port;
}

com_port_info read_port_record(const uint8_t* base, int i)
{
    com_port_info rec;
    ShmSemGuard sem(semid);
    std::memcpy(&rec, base + SHM_PORT_RECORDS + 32 * static_cast<size_t>(i), sizeof rec);
    return rec;
}

// CAN ports share one SPI descriptor, opened with the first of them. Their
// thread arguments live for the whole process. Returns false when the SPI
// device cannot be opened, which ends the server.
bool launch_can_port(const com_port_info& rec, int i)
{
    static std::array<can_port_arg, CAN_PORT_SLOTS> can_args{};
    static size_t can_count = 0;
    static int spi_fd = -1;

    if (can_count == CAN_PORT_SLOTS) {
        std::printf("too many CAN ports: port %d gets no thread\r\n", i);
        return true;
    }
    if (spi_fd < 0) {
        spi_fd = ::open(spi_path().c_str(), O_RDWR);
        if (spi_fd < 0) {
            std::puts("open error: can't open the spi file! ");
            return false;
        }
    }
    can_args[can_count] = can_port_arg{rec, spi_fd};
    start_detached(can_process_thread, static_cast<const can_port_arg*>(&can_args[can_count]));
    port_threads[rec.deviceport] = true;
    ++can_count;
    return true;
}

// One thread per usable port, in port order. Returns false when start-up
// must end the server.
bool start_port_threads(const uint8_t* base)
{
    com_info.assign(static_cast<size_t>(port_num), com_port_info{});
    for (int i = 0; i < port_num; ++i) {
        const com_port_info rec = read_port_record(base, i);
        com_info[static_cast<size_t>(i)] = rec;
        std::printf("working_mode=%d\r\n", rec.working_mode);
        std::printf("plc_driver_no=%d\r\n", rec.plc_driver_no);

        if (rec.plc_driver_no == PLC_DRIVER_NONE || rec.working_mode == WORKING_MODE_UNUSED) {
            continue;
        }
        if (rec.working_mode == WORKING_MODE_CAN) {
            if (!launch_can_port(rec, i)) {
                return false;
            }
            continue;
        }
        ::usleep(1000000);
        start_detached(process_thread, rec);
        port_threads[rec.deviceport] = true;
    }
    return true;
}

[[noreturn]] void serve_clients(int listener)
{
    for (;;) {
        sockaddr_in peer{};
        socklen_t peer_len = sizeof peer;
        const int sock = ::accept(listener, reinterpret_cast<sockaddr*>(&peer), &peer_len);
        if (sock < 0) {
            std::puts("Accept error\r");
            std::perror("perror\r\n");
            ::sleep(1);
            continue;
        }
        start_connection(client_arg{sock, semid, peer});
    }
}

} // namespace

int main(int argc, char** argv)
{
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    block_sigpipe();

    const int shmid = parse_args(argc, argv);
    links_init();
    size_t seg_size = 0;
    uint8_t* base = attach_segment(shmid, seg_size);
    const uint16_t tcp_port = read_header(base, seg_size);
    if (!start_port_threads(base)) {
        return 0;
    }

    const int listener = open_listener(tcp_port);
    start_detached(service_thread);
    serve_clients(listener);
}
