// C functions over comclient::Client. Exceptions never cross this boundary.
#include "comclient_c.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "comclient.h"

struct comclient_conn {
    std::optional<comclient::Client> client;
    std::string last_error;
};

namespace {

comclient::RegAddr to_reg_addr(const comclient_reg_addr& r)
{
    comclient::RegAddr a;
    a.tag = r.tag;
    a.port = r.port;
    a.station = r.station;
    a.addr_unit = r.addr_unit;
    a.type = r.type;
    a.kind = r.kind;
    a.byte_offset = r.byte_offset;
    a.start = r.start;
    a.count = r.count;
    a.bcd = r.bcd;
    a.reserved = r.reserved;
    return a;
}

std::vector<comclient::RegAddr> to_reg_addrs(const comclient_reg_addr* recs, int n)
{
    std::vector<comclient::RegAddr> v;
    for (int i = 0; i < n; ++i)
        v.push_back(to_reg_addr(recs[i]));
    return v;
}

int error_code(comclient::ErrorKind kind)
{
    using comclient::ErrorKind;
    switch (kind) {
    case ErrorKind::connect: return COMCLIENT_E_CONNECT;
    case ErrorKind::closed: return COMCLIENT_E_CLOSED;
    case ErrorKind::timeout: return COMCLIENT_E_TIMEOUT;
    case ErrorKind::checksum: return COMCLIENT_E_CHECKSUM;
    case ErrorKind::malformed: return COMCLIENT_E_MALFORMED;
    case ErrorKind::io: return COMCLIENT_E_IO;
    case ErrorKind::request: return COMCLIENT_E_ARG;
    }
    return COMCLIENT_E_IO;
}

int fail(comclient_conn* c, int code, const std::string& what)
{
    c->last_error = what;
    return code;
}

// Runs one exchange and maps its outcome to the C result codes: 0 for an
// acknowledgement, data or ok status, the err code for a failed status.
template <typename Fn>
int run(comclient_conn* c, Fn&& fn)
{
    if (!c || !c->client)
        return COMCLIENT_E_ARG;
    try {
        comclient::Reply r = fn(*c->client);
        if (r.kind == comclient::ReplyKind::status && !r.ok)
            return fail(c, r.err, "status err " + std::to_string(r.err));
        c->last_error.clear();
        return 0;
    } catch (const comclient::Error& e) {
        return fail(c, error_code(e.kind()), e.what());
    } catch (const std::bad_alloc&) {
        return fail(c, COMCLIENT_E_IO, "out of memory");
    }
}

}  // namespace

extern "C" {

comclient_conn* comclient_connect(const char* host, uint16_t port, int timeout_ms)
{
    if (!host)
        return nullptr;
    std::chrono::milliseconds t = timeout_ms > 0 ? std::chrono::milliseconds(timeout_ms)
                                                 : comclient::kDefaultTimeout;
    try {
        auto c = std::make_unique<comclient_conn>();
        c->client.emplace(host, port, t);
        return c.release();
    } catch (...) {
        return nullptr;
    }
}

void comclient_close(comclient_conn* c)
{
    std::unique_ptr<comclient_conn> owned(c);
}

const char* comclient_last_error(const comclient_conn* c)
{
    return c ? c->last_error.c_str() : "no handle";
}

int comclient_register(comclient_conn* c, const comclient_reg_addr* recs, int n)
{
    if (n < 0 || (n > 0 && !recs))
        return COMCLIENT_E_ARG;
    return run(c, [&](comclient::Client& cl) { return cl.register_areas(to_reg_addrs(recs, n)); });
}

int comclient_unregister(comclient_conn* c, const comclient_reg_addr* recs, int n)
{
    if (n < 0 || (n > 0 && !recs))
        return COMCLIENT_E_ARG;
    return run(c, [&](comclient::Client& cl) { return cl.unregister_areas(to_reg_addrs(recs, n)); });
}

int comclient_com_read(comclient_conn* c, const comclient_reg_addr* rec, uint8_t* buf, size_t cap, size_t* len)
{
    if (!rec || !len || (cap > 0 && !buf))
        return COMCLIENT_E_ARG;
    std::vector<uint8_t> data;
    int rc = run(c, [&](comclient::Client& cl) {
        comclient::Reply r = cl.com_read(to_reg_addr(*rec));
        data = r.data;
        return r;
    });
    if (rc != 0)
        return rc;
    *len = data.size();
    if (data.size() > cap)
        return fail(c, COMCLIENT_E_SPACE, "buffer too small");
    if (!data.empty())
        std::memcpy(buf, data.data(), data.size());
    return 0;
}

int comclient_com_read_alloc(comclient_conn* c, const comclient_reg_addr* rec, uint8_t** data, size_t* len)
{
    if (!rec || !data || !len)
        return COMCLIENT_E_ARG;
    *data = nullptr;
    *len = 0;
    std::vector<uint8_t> got;
    int rc = run(c, [&](comclient::Client& cl) {
        comclient::Reply r = cl.com_read(to_reg_addr(*rec));
        got = r.data;
        return r;
    });
    if (rc != 0)
        return rc;
    auto* p = static_cast<uint8_t*>(std::malloc(got.empty() ? 1 : got.size()));
    if (!p)
        return fail(c, COMCLIENT_E_IO, "out of memory");
    if (!got.empty())
        std::memcpy(p, got.data(), got.size());
    *data = p;
    *len = got.size();
    return 0;
}

void comclient_free(void* p)
{
    std::free(p);
}

int comclient_write(comclient_conn* c, const comclient_reg_addr* rec, const uint8_t* data, size_t len)
{
    if (!rec || (len > 0 && !data))
        return COMCLIENT_E_ARG;
    return run(c, [&](comclient::Client& cl) {
        return cl.write(to_reg_addr(*rec), std::span<const uint8_t>(data, len));
    });
}

int comclient_writecheck(comclient_conn* c, const comclient_reg_addr* rec)
{
    if (!rec)
        return COMCLIENT_E_ARG;
    return run(c, [&](comclient::Client& cl) { return cl.writecheck(to_reg_addr(*rec)); });
}

}  // extern "C"
