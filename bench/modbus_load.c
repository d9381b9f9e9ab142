/* Load for the gateway's Modbus server: N masters on one thread (epoll), each with one
 * read outstanding at a time (as a master waits for its answer), reading the same
 * registers as fast as they are answered. Prints one line of figures:
 *
 *   answered N exceptions N failed N seconds S rate R p50_us X p99_us X p999_us X max_us X
 *
 * "answered" counts good replies, "exceptions" exception replies (the first code seen
 * after "code"), "failed" replies that did not match their request (another
 * transaction, another function, a wrong length) and connections lost.
 *
 *   modbus_load [--rtu] [--connections N] [--seconds S] [--warm-up S] [--station N]
 *               [--function 3|1] [--address A] [--count N] HOST PORT
 *
 * --rtu frames the requests as RTU over TCP (station, PDU, CRC; no transaction id),
 * for the gateway's rtu-over-tcp listener and for the simulator itself. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum { kMaxConnections = 1024, kBuffer = 512 };

struct Master {
    int fd;
    uint16_t tid;
    uint64_t sentAt;
    uint8_t in[kBuffer];
    size_t have;
};

static struct {
    int rtu, connections, station, function, address, count;
    double seconds, warmUp;
} opt = {0, 16, 1, 3, 0, 10, 5.0, 1.0};

static uint64_t nowNs(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (uint64_t)t.tv_sec * 1000000000u + (uint64_t)t.tv_nsec;
}

static uint16_t crc16(const uint8_t *p, size_t n)
{
    uint16_t crc = 0xFFFF;
    while (n--) {
        crc ^= *p++;
        for (int i = 0; i < 8; ++i)
            crc = (crc & 1) ? (uint16_t)((crc >> 1) ^ 0xA001) : (uint16_t)(crc >> 1);
    }
    return crc;
}

/* The request of one master: MBAP with its transaction id, or an RTU frame. */
static size_t request(const struct Master *m, uint8_t *out)
{
    const uint8_t pdu[] = {(uint8_t)opt.function, (uint8_t)(opt.address >> 8), (uint8_t)opt.address,
                           (uint8_t)(opt.count >> 8), (uint8_t)opt.count};
    size_t n = 0;
    if (!opt.rtu) {
        const uint8_t mbap[] = {(uint8_t)(m->tid >> 8), (uint8_t)m->tid, 0, 0, 0, (uint8_t)(1 + sizeof pdu)};
        memcpy(out, mbap, sizeof mbap);
        n = sizeof mbap;
    }
    out[n++] = (uint8_t)opt.station;
    memcpy(out + n, pdu, sizeof pdu);
    n += sizeof pdu;
    if (opt.rtu) {
        const uint16_t crc = crc16(out, n);
        out[n++] = (uint8_t)crc;
        out[n++] = (uint8_t)(crc >> 8);
    }
    return n;
}

/* Bytes of the reply that begins the buffer, 0 while more are needed, -1 when what
 * came cannot be the answer to this master's request. */
static long replyLength(const struct Master *m)
{
    const size_t head = opt.rtu ? 0 : 6;
    if (m->have < head + 3)
        return 0;
    const uint8_t *p = m->in;
    if (!opt.rtu && ((p[0] << 8 | p[1]) != m->tid || p[2] || p[3]))
        return -1;
    if (p[head] != opt.station || (p[head + 1] & 0x7F) != opt.function)
        return -1;
    const size_t pdu = (p[head + 1] & 0x80) ? 2 : 2 + (size_t)p[head + 2];
    const size_t total = head + 1 + pdu + (opt.rtu ? 2 : 0);
    if (!opt.rtu && (size_t)(p[4] << 8 | p[5]) != 1 + pdu)
        return -1;
    if (m->have < total)
        return 0;
    if (opt.rtu && crc16(p, total - 2) != (uint16_t)(p[total - 2] | p[total - 1] << 8))
        return -1;
    return (long)total;
}

static int send_request(struct Master *m)
{
    uint8_t out[32];
    ++m->tid;
    const size_t n = request(m, out);
    m->sentAt = nowNs();
    return send(m->fd, out, n, MSG_NOSIGNAL) == (ssize_t)n ? 0 : -1;
}

static int byValue(const void *a, const void *b)
{
    const uint32_t x = *(const uint32_t *)a, y = *(const uint32_t *)b;
    return x < y ? -1 : x > y;
}

int main(int argc, char **argv)
{
    const char *host = NULL;
    int port = 0;
    for (int i = 1; i < argc; ++i) {
        const char *a = argv[i], *v = i + 1 < argc ? argv[i + 1] : NULL;
        if (strcmp(a, "--rtu") == 0)
            opt.rtu = 1;
        else if (v && strcmp(a, "--connections") == 0)
            opt.connections = atoi(argv[++i]);
        else if (v && strcmp(a, "--seconds") == 0)
            opt.seconds = atof(argv[++i]);
        else if (v && strcmp(a, "--warm-up") == 0)
            opt.warmUp = atof(argv[++i]);
        else if (v && strcmp(a, "--station") == 0)
            opt.station = atoi(argv[++i]);
        else if (v && strcmp(a, "--function") == 0)
            opt.function = atoi(argv[++i]);
        else if (v && strcmp(a, "--address") == 0)
            opt.address = atoi(argv[++i]);
        else if (v && strcmp(a, "--count") == 0)
            opt.count = atoi(argv[++i]);
        else if (!host)
            host = a;
        else
            port = atoi(a);
    }
    if (!host || port <= 0 || opt.connections < 1 || opt.connections > kMaxConnections) {
        fprintf(stderr, "usage: modbus_load [--rtu] [--connections N] [--seconds S] [--warm-up S] [--station N]\n"
                        "                   [--function 3|1] [--address A] [--count N] HOST PORT\n");
        return 2;
    }

    struct sockaddr_in to = {.sin_family = AF_INET, .sin_port = htons((uint16_t)port)};
    if (inet_pton(AF_INET, host, &to.sin_addr) != 1) {
        fprintf(stderr, "modbus_load: %s is not an IPv4 address\n", host);
        return 2;
    }
    const int ep = epoll_create1(0);
    static struct Master masters[kMaxConnections];
    for (int i = 0; i < opt.connections; ++i) {
        struct Master *m = &masters[i];
        m->fd = socket(AF_INET, SOCK_STREAM, 0);
        const int one = 1;
        setsockopt(m->fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        if (connect(m->fd, (struct sockaddr *)&to, sizeof to) != 0) {
            fprintf(stderr, "modbus_load: connect: %s\n", strerror(errno));
            return 1;
        }
        m->tid = (uint16_t)(i * 4096);
        struct epoll_event e = {.events = EPOLLIN, .data.ptr = m};
        epoll_ctl(ep, EPOLL_CTL_ADD, m->fd, &e);
    }

    /* Latencies of the measured part, in ns; a few million fit. */
    size_t cap = 1u << 22, n = 0;
    uint32_t *lat = malloc(cap * sizeof *lat);
    uint64_t answered = 0, exceptions = 0, failed = 0;
    int code = 0, open = opt.connections;
    const uint64_t start = nowNs(), measureFrom = start + (uint64_t)(opt.warmUp * 1e9),
                   end = measureFrom + (uint64_t)(opt.seconds * 1e9);
    for (int i = 0; i < opt.connections; ++i)
        send_request(&masters[i]);
    struct epoll_event events[64];
    uint64_t now = start;
    while (open > 0 && (now = nowNs()) < end) {
        const int k = epoll_wait(ep, events, 64, 100);
        for (int e = 0; e < k; ++e) {
            struct Master *m = events[e].data.ptr;
            const ssize_t got = recv(m->fd, m->in + m->have, sizeof m->in - m->have, 0);
            long len = 0;
            if (got > 0) {
                m->have += (size_t)got;
                len = replyLength(m);
            }
            if (got <= 0 || len < 0) {
                if (got == 0 || len < 0 || (errno != EAGAIN && errno != EINTR)) {
                    ++failed;
                    epoll_ctl(ep, EPOLL_CTL_DEL, m->fd, NULL);
                    close(m->fd);
                    --open;
                }
                continue;
            }
            if (len == 0)
                continue;
            const uint64_t t = nowNs();
            const uint8_t fn = m->in[opt.rtu ? 1 : 7];
            if (t >= measureFrom) {
                if (fn & 0x80) {
                    ++exceptions;
                    if (!code)
                        code = m->in[opt.rtu ? 2 : 8];
                } else {
                    ++answered;
                }
                if (n < cap)
                    lat[n++] = (uint32_t)(t - m->sentAt > UINT32_MAX ? UINT32_MAX : t - m->sentAt);
            }
            memmove(m->in, m->in + len, m->have - (size_t)len);
            m->have -= (size_t)len;
            if (send_request(m) != 0) {
                ++failed;
                epoll_ctl(ep, EPOLL_CTL_DEL, m->fd, NULL);
                close(m->fd);
                --open;
            }
        }
    }
    const double seconds = (double)(now - measureFrom) / 1e9;
    qsort(lat, n, sizeof *lat, byValue);
#define AT(q) (n ? lat[(size_t)((double)(n - 1) * (q))] / 1000.0 : 0.0)
    printf("answered %llu exceptions %llu code %02X failed %llu seconds %.3f rate %.1f p50_us %.1f p99_us %.1f "
           "p999_us %.1f max_us %.1f\n",
           (unsigned long long)answered, (unsigned long long)exceptions, code, (unsigned long long)failed, seconds,
           seconds > 0 ? (double)answered / seconds : 0.0, AT(0.5), AT(0.99), AT(0.999), AT(1.0));
    return failed ? 1 : 0;
}
