/* Reads one range through the C interface:
 *   comclient_c_example HOST PORT STATION KIND START COUNT
 * Registers the word range, then prints its cached words, or the status. */
#include <stdio.h>
#include <stdlib.h>

#include "comclient_c.h"

int main(int argc, char** argv)
{
    if (argc != 7) {
        fprintf(stderr, "usage: %s HOST PORT STATION KIND START COUNT\n", argv[0]);
        return 2;
    }
    comclient_conn* c = comclient_connect(argv[1], (uint16_t)atoi(argv[2]), 0);
    if (!c) {
        fprintf(stderr, "cannot connect to %s:%s\n", argv[1], argv[2]);
        return 2;
    }
    comclient_reg_addr rec = {0};
    rec.station = (uint8_t)atoi(argv[3]);
    rec.kind = (uint8_t)atoi(argv[4]);
    rec.type = 2;
    rec.start = atoi(argv[5]);
    rec.count = (int16_t)atoi(argv[6]);

    int rc = comclient_register(c, &rec, 1);
    if (rc == 0) {
        uint8_t* data = NULL;
        size_t len = 0;
        rc = comclient_com_read_alloc(c, &rec, &data, &len);
        if (rc == 0) {
            for (size_t i = 0; i + 1 < len; i += 2)
                printf("%u\n", (unsigned)(data[i] | (data[i + 1] << 8)));
            comclient_free(data);
        }
    }
    if (rc != 0)
        fprintf(stderr, "result %d: %s\n", rc, comclient_last_error(c));
    comclient_close(c);
    return rc == 0 ? 0 : (rc > 0 ? 1 : 2);
}
