/* A Modbus TCP master on Debian's libmodbus, for the gateway's server suite: one
 * operation, repeated, one line printed per answer, so that a test compares every
 * answer a master nobody here wrote received with the controller's registers.
 *
 *   libmodbus_master HOST PORT STATION OP ADDRESS COUNT|VALUE... [-n REPEAT] [-t MS]
 *
 * OP: read-coils, read-registers (COUNT units from ADDRESS), write-coil,
 * write-register (one VALUE), write-coils, write-registers (the VALUEs from ADDRESS).
 * Each answer prints as the values read ("ok" for a write), "exception CODE" (hex),
 * "timeout", or "error TEXT". Exit status: 0 when every answer was a good one. */
#include <errno.h>
#include <modbus.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kMaxUnits = 2000 };

static int usage(void)
{
    fprintf(stderr, "usage: libmodbus_master HOST PORT STATION OP ADDRESS COUNT|VALUE... [-n REPEAT] [-t MS]\n");
    return 2;
}

static long number(const char *text)
{
    char *end = NULL;
    const long v = strtol(text, &end, 0);
    if (*text == '\0' || *end != '\0') {
        fprintf(stderr, "not a number: %s\n", text);
        exit(2);
    }
    return v;
}

/* One answer's line; returns whether it was a good one. */
static int report(int result, const char *op, const uint8_t *bits, const uint16_t *regs)
{
    if (result < 0) {
        if (errno >= MODBUS_ENOBASE && errno <= EMBXGTAR)
            printf("exception %02X\n", errno - MODBUS_ENOBASE);
        else if (errno == ETIMEDOUT)
            printf("timeout\n");
        else
            printf("error %s\n", modbus_strerror(errno));
        return 0;
    }
    if (strncmp(op, "write", 5) == 0) {
        printf("ok\n");
        return 1;
    }
    for (int i = 0; i < result; ++i)
        printf(i ? " %u" : "%u", bits ? (unsigned)bits[i] : (unsigned)regs[i]);
    printf("\n");
    return 1;
}

int main(int argc, char **argv)
{
    long repeat = 1, timeoutMs = 1000;
    const char *args[8 + kMaxUnits];
    int n = 0;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "-n") == 0 && i + 1 < argc)
            repeat = number(argv[++i]);
        else if (strcmp(argv[i], "-t") == 0 && i + 1 < argc)
            timeoutMs = number(argv[++i]);
        else if (n < (int)(sizeof args / sizeof *args))
            args[n++] = argv[i];
    }
    if (n < 6)
        return usage();
    const char *op = args[3];
    const int address = (int)number(args[4]);
    const int units = n - 5;
    static uint16_t regs[kMaxUnits];
    static uint8_t bits[kMaxUnits];
    for (int i = 0; i < units; ++i) {
        regs[i] = (uint16_t)number(args[5 + i]);
        bits[i] = (uint8_t)(regs[i] != 0);
    }
    const int count = (int)number(args[5]);

    modbus_t *ctx = modbus_new_tcp(args[0], (int)number(args[1]));
    if (!ctx)
        return 2;
    modbus_set_slave(ctx, (int)number(args[2]));
    modbus_set_response_timeout(ctx, (uint32_t)(timeoutMs / 1000), (uint32_t)(timeoutMs % 1000 * 1000));
    /* After a time-out, what is still coming is flushed: a late answer is not taken
     * for the next request's. */
    modbus_set_error_recovery(ctx, MODBUS_ERROR_RECOVERY_PROTOCOL);
    if (modbus_connect(ctx) != 0) {
        printf("error %s\n", modbus_strerror(errno));
        modbus_free(ctx);
        return 1;
    }
    /* Line buffered: a test reading the lines as they come sees each answer at once. */
    setvbuf(stdout, NULL, _IOLBF, 0);
    int good = 1;
    for (long r = 0; r < repeat; ++r) {
        int result;
        if (strcmp(op, "read-coils") == 0)
            good &= report(modbus_read_bits(ctx, address, count, bits), op, bits, NULL);
        else if (strcmp(op, "read-registers") == 0)
            good &= report(modbus_read_registers(ctx, address, count, regs), op, NULL, regs);
        else {
            if (strcmp(op, "write-coil") == 0)
                result = modbus_write_bit(ctx, address, bits[0]);
            else if (strcmp(op, "write-register") == 0)
                result = modbus_write_register(ctx, address, regs[0]);
            else if (strcmp(op, "write-coils") == 0)
                result = modbus_write_bits(ctx, address, units, bits);
            else if (strcmp(op, "write-registers") == 0)
                result = modbus_write_registers(ctx, address, units, regs);
            else
                return usage();
            good &= report(result, op, NULL, NULL);
        }
    }
    modbus_close(ctx);
    modbus_free(ctx);
    return good ? 0 : 1;
}
