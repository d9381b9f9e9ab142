/* The broker's own ceiling for the gateway benchmark: value messages of the gateway's
 * topics and sizes, published at QoS 1 as fast as the broker acknowledges them, with
 * nothing else to do. Prints the acknowledged messages per second.
 *
 *   bare_publisher HOST PORT USER PASSWORD PREFIX VALUES SECONDS [BURST PAUSE_MS]
 *
 * With BURST and PAUSE_MS, bursts of BURST messages (a whole reply's values) every
 * PAUSE_MS, each carrying the microsecond it was made in "us": the latency from the
 * publisher to a subscriber with nothing but the broker between.
 */
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#define WINDOW 256 /* messages awaiting their PUBACK, as the gateway allows */

static pthread_mutex_t mu = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t room = PTHREAD_COND_INITIALIZER;
static long inflight, acknowledged;
static int up;

static void on_connect(struct mosquitto *m, void *data, int rc, int flags, const mosquitto_property *props)
{
    (void)m, (void)data, (void)flags, (void)props;
    pthread_mutex_lock(&mu);
    up = rc == 0 ? 1 : -1;
    pthread_cond_signal(&room);
    pthread_mutex_unlock(&mu);
}

static void on_publish(struct mosquitto *m, void *data, int mid, int reason, const mosquitto_property *props)
{
    (void)m, (void)data, (void)mid, (void)reason, (void)props;
    pthread_mutex_lock(&mu);
    --inflight;
    ++acknowledged;
    pthread_cond_signal(&room);
    pthread_mutex_unlock(&mu);
}

static double now(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec + t.tv_nsec / 1e9;
}

int main(int argc, char **argv)
{
    if (argc != 8 && argc != 10) {
        fprintf(stderr, "usage: %s HOST PORT USER PASSWORD PREFIX VALUES SECONDS [BURST PAUSE_MS]\n", argv[0]);
        return 2;
    }
    const int values = atoi(argv[6]);
    const double seconds = atof(argv[7]);
    const long burst = argc == 10 ? atol(argv[8]) : 0;
    const double pause = argc == 10 ? atof(argv[9]) / 1000.0 : 0;
    double nextBurst = 0;
    mosquitto_lib_init();
    struct mosquitto *m = mosquitto_new("rtuplc-bare-publisher", true, NULL);
    mosquitto_int_option(m, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(m, MOSQ_OPT_TCP_NODELAY, 1); /* as the gateway */
    mosquitto_username_pw_set(m, argv[3], argv[4]);
    mosquitto_connect_v5_callback_set(m, on_connect);
    mosquitto_publish_v5_callback_set(m, on_publish);
    if (mosquitto_connect(m, argv[1], atoi(argv[2]), 30) != MOSQ_ERR_SUCCESS ||
        mosquitto_loop_start(m) != MOSQ_ERR_SUCCESS) {
        fprintf(stderr, "cannot connect\n");
        return 1;
    }
    pthread_mutex_lock(&mu);
    while (!up)
        pthread_cond_wait(&room, &mu);
    pthread_mutex_unlock(&mu);
    if (up < 0)
        return 1;
    char topic[128], payload[128];
    const double start = now();
    long sent = 0, first = -1;
    double measured = start;
    for (;;) {
        const double t = now();
        if (first < 0 && t - start >= 1.0) { /* a second of warm-up */
            pthread_mutex_lock(&mu);
            first = acknowledged;
            pthread_mutex_unlock(&mu);
            measured = t;
        }
        if (t - start >= seconds + 1.0)
            break;
        if (burst && sent % burst == 0) {
            while (now() < nextBurst)
                usleep(200);
            nextBurst = now() + pause;
        }
        pthread_mutex_lock(&mu);
        while (inflight >= WINDOW)
            pthread_cond_wait(&room, &mu);
        ++inflight;
        pthread_mutex_unlock(&mu);
        const int i = (int)(sent++ % values);
        struct timespec wall;
        clock_gettime(CLOCK_REALTIME, &wall);
        struct tm tm;
        gmtime_r(&wall.tv_sec, &tm);
        snprintf(topic, sizeof topic, "%s/1/D_W/%d", argv[5], i);
        const int len =
            snprintf(payload, sizeof payload,
                     "{\"value\":%d,\"quality\":\"good\",\"ts\":\"%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ\",\"us\":%lld}",
                     (int)(sent & 0xffff), tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min,
                     tm.tm_sec, wall.tv_nsec / 1000000, (long long)wall.tv_sec * 1000000 + wall.tv_nsec / 1000);
        mosquitto_publish_v5(m, NULL, topic, len, payload, 1, true, NULL);
    }
    pthread_mutex_lock(&mu);
    const long last = acknowledged;
    pthread_mutex_unlock(&mu);
    printf("%.0f messages/s\n", (last - first) / (now() - measured));
    mosquitto_disconnect(m);
    mosquitto_loop_stop(m, false);
    mosquitto_destroy(m);
    mosquitto_lib_cleanup();
    return 0;
}
