/* The gateway benchmark's subscriber: takes every message under a topic filter at
 * QoS 1, as a plant's client does, and notes when each arrived (the wall clock to the
 * nanosecond). The lines "SECONDS.NANOSECONDS TOPIC PAYLOAD" are kept in memory and
 * written when it is told to stop (SIGTERM or SIGINT), so that writing them costs the
 * machine nothing while the broker and the publisher are measured: a subscriber that
 * writes and flushes a line per message spends a system call on each, on the same two
 * cores. Retained messages the broker had kept from before are left out.
 *
 *   stamp_subscriber HOST PORT USER PASSWORD FILTER > FILE
 */
#include <mosquitto.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static volatile sig_atomic_t stopping;
static char *lines;
static size_t used, capacity;

static void on_stop(int sig)
{
    (void)sig;
    stopping = 1;
}

static void on_connect(struct mosquitto *m, void *data, int rc)
{
    (void)data;
    if (rc == 0)
        mosquitto_subscribe(m, NULL, (const char *)mosquitto_userdata(m), 1);
}

static void on_message(struct mosquitto *m, void *data, const struct mosquitto_message *msg)
{
    (void)m, (void)data;
    struct timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    if (msg->retain)
        return; /* what the broker kept from before, not a message of the run */
    const size_t need = strlen(msg->topic) + (size_t)msg->payloadlen + 40;
    if (used + need > capacity) {
        capacity = (capacity + need) * 2;
        lines = realloc(lines, capacity);
        if (lines == NULL) {
            fprintf(stderr, "out of memory\n");
            exit(1);
        }
    }
    used += (size_t)sprintf(lines + used, "%lld.%09ld %s ", (long long)t.tv_sec, t.tv_nsec, msg->topic);
    memcpy(lines + used, msg->payload, (size_t)msg->payloadlen);
    used += (size_t)msg->payloadlen;
    lines[used++] = '\n';
}

int main(int argc, char **argv)
{
    if (argc != 6) {
        fprintf(stderr, "usage: %s HOST PORT USER PASSWORD FILTER > FILE\n", argv[0]);
        return 2;
    }
    signal(SIGTERM, on_stop);
    signal(SIGINT, on_stop);
    mosquitto_lib_init();
    struct mosquitto *m = mosquitto_new(NULL, true, argv[5]);
    mosquitto_int_option(m, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_username_pw_set(m, argv[3], argv[4]);
    mosquitto_connect_callback_set(m, on_connect);
    mosquitto_message_callback_set(m, on_message);
    if (mosquitto_connect(m, argv[1], atoi(argv[2]), 30) != MOSQ_ERR_SUCCESS) {
        fprintf(stderr, "cannot connect\n");
        return 1;
    }
    while (!stopping) {
        const int rc = mosquitto_loop(m, 100, 1);
        if (rc != MOSQ_ERR_SUCCESS && !stopping && mosquitto_reconnect(m) != MOSQ_ERR_SUCCESS)
            nanosleep(&(struct timespec){0, 100000000}, NULL);
    }
    fwrite(lines, 1, used, stdout);
    fflush(stdout);
    mosquitto_destroy(m);
    mosquitto_lib_cleanup();
    return 0;
}
