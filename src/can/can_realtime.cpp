// Realtime request service of a CAN port: reads, writes, read-modify-writes
// and pulses, each tried once through the CAN driver entry points.
#include <cstdio>
#include <cstring>
#include <mutex>

#include "can/can_port.h"
#include "port/port_thread.h"
#include "port/refresh.h"
#include "store/addressing.h"
#include "store/rw_operation.h"
#include "tables/realtime_list.h"

namespace {

// What the service copies out of a request under `mutex`.
struct RequestCopy {
    RealtimeImage image{};
    int req_type = 0;
    rw_oper op{};
    int n = 0;          // data bytes of the range
    bool fits = false;  // the data fit the request's buffer and the driver buffer
};

RequestCopy take_request(CanPort& t, RORT_node* req)
{
    RequestCopy c;
    std::lock_guard lock(mutex);
    c.image.reg_addr = req->reg_addr;
    c.image.status = req->status;
    c.req_type = req->req_type;
    c.op = req->rw_oper;
    c.n = cal_commbuf_size(req->reg_addr);
    c.fits = c.n >= 0 && c.n <= CAN_BUF_SIZE && c.n <= req->data_len && req->data != nullptr;
    if (c.fits && c.req_type == REQ_WRITE) {
        std::memset(t.write_copy, 0, CAN_BUF_SIZE);
        std::memcpy(t.write_copy, req->data, static_cast<size_t>(c.n));
        std::memcpy(t.buf, req->data, static_cast<size_t>(c.n));
        c.image.data = t.write_copy;
    }
    return c;
}

void complete(RORT_node* req, int status)
{
    std::lock_guard lock(mutex);
    req->status = static_cast<int16_t>(status);
}

int driver_read(CanPort& t, const REG_ADDR& r)
{
    const DrvRegAddr addr = drv_reg_addr(r);
    DrvDataRef ref{r.reg_data_width, t.buf};
    return t.drv.read(&addr, &ref, &t.param, t.spi_mutex);
}

int driver_write(CanPort& t, const REG_ADDR& r)
{
    const DrvRegAddr addr = drv_reg_addr(r);
    DrvDataRef ref{r.reg_data_width, t.buf};
    return t.drv.write(&addr, &ref, &t.param, t.spi_mutex);
}

void serve_read(CanPort& t, RORT_node* req, const RequestCopy& c)
{
    if (t.drv.read == nullptr) {
        complete(req, STATUS_FAILED);
        return;
    }
    const int status = status_from_result(driver_read(t, c.image.reg_addr));
    std::lock_guard lock(mutex);
    if (status == STATUS_OK) {
        std::memcpy(req->data, t.buf, static_cast<size_t>(c.n));
    }
    req->status = static_cast<int16_t>(status);
}

void serve_write(CanPort& t, RORT_node* req, RequestCopy& c)
{
    if (t.drv.write == nullptr) {
        complete(req, STATUS_FAILED);
        return;
    }
    const int status = status_from_result(driver_write(t, c.image.reg_addr));
    complete(req, status);
    if (status == STATUS_OK) {
        c.image.status = static_cast<int16_t>(status);
        refresh_writeOK_ORG(c.image);
    }
}

// Reads the value, applies the operation and writes the result back. The
// operation runs on the write copy, which always has room for the 8 bytes
// an operation may touch; the request takes the result under `mutex`.
void serve_operation(CanPort& t, RORT_node* req, RequestCopy& c)
{
    if (t.drv.read == nullptr || t.drv.write == nullptr) {
        complete(req, STATUS_FAILED);
        return;
    }
    const int r = driver_read(t, c.image.reg_addr);
    if (r != 0) {
        complete(req, status_from_result(r));
        return;
    }
    const auto n = static_cast<size_t>(c.n);
    std::memset(t.write_copy, 0, CAN_BUF_SIZE);
    std::memcpy(t.write_copy, t.buf, n);
    process_rw_operation(c.image.reg_addr, t.write_copy, c.op, 0);
    std::memcpy(t.buf, t.write_copy, n);
    const int status = status_from_result(driver_write(t, c.image.reg_addr));

    std::lock_guard lock(mutex);
    std::memcpy(req->data, t.write_copy, n);
    req->rw_oper = c.op;
    req->status = static_cast<int16_t>(status);
}

// Writes 1 and then, if that worked, 0 to the first register.
void serve_pulse(CanPort& t, RORT_node* req, const RequestCopy& c)
{
    std::puts("rw function code 0x100");
    if (t.drv.write == nullptr) {
        complete(req, STATUS_FAILED);
        return;
    }
    std::memset(t.buf, 0, CAN_BUF_SIZE);
    t.buf[0] = 1;
    int r = driver_write(t, c.image.reg_addr);
    if (r == 0) {
        t.buf[0] = 0;
        r = driver_write(t, c.image.reg_addr);
    }
    complete(req, status_from_result(r));
}

} // namespace

void can_serve_request(CanPort& t, RORT_node* req)
{
    RequestCopy c = take_request(t, req);
    if (c.req_type == REQ_RMW) {
        std::printf("function code =%x\n", static_cast<unsigned>(c.op.op_code));
    }
    if (!c.fits) {
        complete(req, STATUS_FAILED);
        return;
    }
    switch (c.req_type) {
    case REQ_READ: serve_read(t, req, c); break;
    case REQ_RMW:
        if (c.op.op_code < RW_PULSE) {
            serve_operation(t, req, c);
        } else if (c.op.op_code == RW_PULSE) {
            serve_pulse(t, req, c);
        } else {
            // No such operation: complete it so that it does not block the
            // port's later requests for ever.
            complete(req, STATUS_FAILED);
        }
        break;
    default: serve_write(t, req, c); break;
    }
}

void can_serve_realtime(CanPort& t)
{
    for (int served = 0; served < REALTIME_REQUESTS_PER_CYCLE; ++served) {
        RORT_node* req = check_realtime_link(t.port);
        if (req == nullptr) {
            break;
        }
        can_serve_request(t, req);
    }
}
