// Modbus TCP slave thread over libmodbus. Local areas are touched only under
// semaphore 0 and only inside their extent.
#include "modbus_slave.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <modbus.h>

#include "base/shm_sem.h"

namespace {

constexpr int LISTEN_BACKLOG = 8;
constexpr size_t MAX_MASTERS = 32;       // masters served at once; later ones are turned away
constexpr int SEND_TIMEOUT_US = 200000;  // bounds how long a reply to a master that does not read
                                         // can hold the segment semaphore
constexpr unsigned BIND_RETRY_S = 1;

// The part of one table that a request reads or writes.
struct Window {
    enum class Table { none, bits, registers } table = Table::none;
    int first = 0;        // covers everything the request reads or writes
    int count = 0;
    int write_first = 0;  // the part it writes (write_count 0: none)
    int write_count = 0;
};

Window window(Window::Table t, int first, int count, bool writes)
{
    return Window{t, first, count, first, writes ? count : 0};
}

// The window of a request whose PDU (function code first) holds `len` bytes.
// Function codes not listed get no window: libmodbus answers them from empty
// tables, so discrete inputs and input registers are "illegal data address".
Window window_of(const uint8_t* pdu, int len)
{
    using T = Window::Table;
    if (len < 5) {
        return {};
    }
    const int addr = MODBUS_GET_INT16_FROM_INT8(pdu, 1);
    const int nb = MODBUS_GET_INT16_FROM_INT8(pdu, 3);
    switch (pdu[0]) {
    case MODBUS_FC_READ_COILS: return window(T::bits, addr, nb, false);
    case MODBUS_FC_WRITE_SINGLE_COIL: return window(T::bits, addr, 1, true);
    case MODBUS_FC_WRITE_MULTIPLE_COILS: return window(T::bits, addr, nb, true);
    case MODBUS_FC_READ_HOLDING_REGISTERS: return window(T::registers, addr, nb, false);
    case MODBUS_FC_WRITE_SINGLE_REGISTER:
    case MODBUS_FC_MASK_WRITE_REGISTER: return window(T::registers, addr, 1, true);
    case MODBUS_FC_WRITE_MULTIPLE_REGISTERS: return window(T::registers, addr, nb, true);
    case MODBUS_FC_WRITE_AND_READ_REGISTERS: {
        if (len < 9) {
            return {};
        }
        const int wa = MODBUS_GET_INT16_FROM_INT8(pdu, 5);
        const int wn = MODBUS_GET_INT16_FROM_INT8(pdu, 7);
        const int lo = std::min(addr, wa);
        return Window{T::registers, lo, std::max(addr + nb, wa + wn) - lo, wa, wn};
    }
    default: return {};
    }
}

bool inside(const Window& w, const LocalExtent& e)
{
    const int64_t end = int64_t{w.first} + w.count;
    switch (w.table) {
    case Window::Table::bits: return w.count >= 1 && end <= static_cast<int64_t>(e.bit_bytes) * 8;
    case Window::Table::registers: return w.count >= 1 && end <= static_cast<int64_t>(e.word_bytes / 2);
    case Window::Table::none: break;
    }
    return false;
}

// A table of libmodbus's form that holds a copy of the window's values.
// The mapping points into the vectors, so the object stays where it is made.
struct WindowTable {
    explicit WindowTable(const Window& w)
    {
        const auto n = static_cast<size_t>(w.count);
        if (w.table == Window::Table::bits) {
            bits.resize(n);
            map.start_bits = w.first;
            map.nb_bits = w.count;
            map.tab_bits = bits.data();
        } else {
            values.resize(n);
            map.start_registers = w.first;
            map.nb_registers = w.count;
            map.tab_registers = values.data();
        }
    }
    WindowTable(const WindowTable&) = delete;
    WindowTable& operator=(const WindowTable&) = delete;

    std::vector<uint8_t> bits;
    std::vector<uint16_t> values;
    modbus_mapping_t map{};
};

void load(const Window& w, const LocalAreas& a, WindowTable& t)
{
    for (int i = 0; i < w.count; ++i) {
        const int n = w.first + i;
        if (w.table == Window::Table::bits) {
            t.bits[i] = (a.bits[n / 8] >> (n % 8)) & 1;
        } else {
            t.values[i] = static_cast<uint16_t>(a.words[2 * n] | a.words[2 * n + 1] << 8);
        }
    }
}

// Bits change one at a time with atomic byte operations, as the server's
// own bit writers do, so that neighbours changed meanwhile are kept.
void store(const Window& w, const LocalAreas& a, const WindowTable& t)
{
    for (int n = w.write_first; n < w.write_first + w.write_count; ++n) {
        const int i = n - w.first;
        if (w.table == Window::Table::bits) {
            const auto mask = static_cast<uint8_t>(1u << (n % 8));
            if (t.bits[i] != 0) {
                __atomic_fetch_or(&a.bits[n / 8], mask, __ATOMIC_ACQ_REL);
            } else {
                __atomic_fetch_and(&a.bits[n / 8], static_cast<uint8_t>(~mask), __ATOMIC_ACQ_REL);
            }
        } else {
            a.words[2 * n] = static_cast<uint8_t>(t.values[i]);
            a.words[2 * n + 1] = static_cast<uint8_t>(t.values[i] >> 8);
        }
    }
}

// Answers one request. libmodbus checks counts and addresses against the
// window's table and builds the reply or the exception; the semaphore is
// held from the copy in to the copy back, so the request acts atomically.
void answer(modbus_t* ctx, const uint8_t* req, int len, const LocalAreas& a)
{
    const int header = modbus_get_header_length(ctx);
    const Window w = window_of(req + header, len - header);
    if (!inside(w, a.extent)) {
        modbus_mapping_t none{};
        modbus_reply(ctx, req, len, &none);
        return;
    }
    WindowTable t(w);
    ShmSemGuard sem(a.semid);
    load(w, a, t);
    modbus_reply(ctx, req, len, &t.map);
    store(w, a, t);
}

std::string listen_address()
{
    const char* v = std::getenv("COMSERVER_MODBUS_LISTEN");
    return (v != nullptr && *v != '\0') ? v : "0.0.0.0";
}

int listen_until_bound(modbus_t* ctx, uint16_t port)
{
    for (bool told = false;; told = true) {
        const int s = modbus_tcp_listen(ctx, LISTEN_BACKLOG);
        if (s >= 0) {
            std::printf("modbus: serving local areas on TCP port %u\r\n", port);
            return s;
        }
        if (!told) {
            std::printf("modbus: cannot listen on TCP port %u: %s; retrying every second\r\n", port,
                        modbus_strerror(errno));
        }
        ::sleep(BIND_RETRY_S);
    }
}

void accept_master(int listener, std::vector<pollfd>& fds)
{
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        return;
    }
    if (fds.size() > MAX_MASTERS) {
        ::close(fd);
        return;
    }
    const timeval tv{0, SEND_TIMEOUT_US};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    fds.push_back(pollfd{fd, POLLIN, 0});
}

// fds[0] is the listener, the rest are masters. A master whose request
// cannot be received (closed, broken frame) is dropped.
void serve(uint16_t port, LocalAreas a)
{
    modbus_t* ctx = modbus_new_tcp(listen_address().c_str(), port);
    if (ctx == nullptr) {
        std::printf("modbus: no slave on TCP port %u: %s\r\n", port, modbus_strerror(errno));
        return;
    }
    std::vector<pollfd> fds{pollfd{listen_until_bound(ctx, port), POLLIN, 0}};
    uint8_t req[MODBUS_TCP_MAX_ADU_LENGTH];
    for (;;) {
        if (::poll(fds.data(), fds.size(), -1) < 0) {
            continue;
        }
        for (size_t i = fds.size(); i-- > 1;) {
            if (fds[i].revents == 0) {
                continue;
            }
            modbus_set_socket(ctx, fds[i].fd);
            const int len = modbus_receive(ctx, req);
            if (len > 0) {
                answer(ctx, req, len, a);
            } else if (len < 0) {
                ::close(fds[i].fd);
                fds.erase(fds.begin() + static_cast<std::ptrdiff_t>(i));
            }
        }
        if (fds[0].revents & POLLIN) {
            accept_master(fds[0].fd, fds);
        }
    }
}

} // namespace

void start_slave(uint16_t tcp_port, const LocalAreas& areas)
{
    std::printf("modbus: slave areas: %zu words, %zu bits\r\n", areas.extent.word_bytes / 2,
                areas.extent.bit_bytes * 8);
    std::thread(serve, tcp_port, areas).detach();
}
