/* C interface of the communication server client.
 *
 * Functions returning int give 0 on success, a positive err code (1 not
 * ready / queued, 2 no answer from the PLC, 3 failed) when the server
 * answered with a status packet, or a negative COMCLIENT_E_* value when the
 * exchange itself failed. comclient_last_error() describes the last failure.
 */
#ifndef COMCLIENT_C_H
#define COMCLIENT_C_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    COMCLIENT_E_CONNECT = -1,   /* cannot resolve or connect */
    COMCLIENT_E_CLOSED = -2,    /* the server closed the connection */
    COMCLIENT_E_TIMEOUT = -3,   /* no reply in time */
    COMCLIENT_E_CHECKSUM = -4,  /* reply checksum mismatch */
    COMCLIENT_E_MALFORMED = -5, /* impossible reply, or not the kind expected */
    COMCLIENT_E_IO = -6,        /* other send / receive failure */
    COMCLIENT_E_ARG = -7,       /* bad argument or request too long */
    COMCLIENT_E_SPACE = -8      /* caller buffer too small; *len holds the size needed */
};

/* Register address record; comclient_encode turns it into the 16 wire bytes. */
typedef struct comclient_reg_addr {
    uint8_t tag;
    uint8_t port;         /* deviceport_id */
    uint8_t station;      /* plc_id */
    uint8_t addr_unit;
    uint8_t type;         /* 0 bit, 1 byte, 2 word, 4 double word */
    uint8_t kind;         /* reg_id */
    uint16_t byte_offset;
    int32_t start;
    int16_t count;
    uint8_t bcd;
    uint8_t reserved;
} comclient_reg_addr;

typedef struct comclient_conn comclient_conn;

/* NULL on failure; timeout_ms <= 0 selects the default of 5000 ms. */
comclient_conn* comclient_connect(const char* host, uint16_t port, int timeout_ms);
/* Closes the connection and frees the handle; NULL is ignored. */
void comclient_close(comclient_conn* c);
const char* comclient_last_error(const comclient_conn* c);

int comclient_register(comclient_conn* c, const comclient_reg_addr* recs, int n);
int comclient_unregister(comclient_conn* c, const comclient_reg_addr* recs, int n);

/* Cached read (command 3) into buf of cap bytes; *len receives the data size. */
int comclient_com_read(comclient_conn* c, const comclient_reg_addr* rec, uint8_t* buf, size_t cap, size_t* len);
/* The same, into a buffer allocated here; release it with comclient_free. */
int comclient_com_read_alloc(comclient_conn* c, const comclient_reg_addr* rec, uint8_t** data, size_t* len);
void comclient_free(void* p);

/* Write (command 5): 0 when written at once (local areas), 1 when queued. */
int comclient_write(comclient_conn* c, const comclient_reg_addr* rec, const uint8_t* data, size_t len);
/* Outcome of a queued write (command 7): 0 done, 1 pending, 2, 3. */
int comclient_writecheck(comclient_conn* c, const comclient_reg_addr* rec);

#ifdef __cplusplus
}
#endif

#endif
