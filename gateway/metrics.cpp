#include "metrics.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace rtugw {

const char kMetricsContentType[] = "text/plain; version=0.0.4; charset=utf-8";

namespace {

constexpr const char kPrefix[] = "rtuplc_gateway_";

class Writer {
public:
    void family(const char *name, const char *type, const char *help)
    {
        text_ +=
            std::string("# HELP ") + kPrefix + name + ' ' + help + "\n# TYPE " + kPrefix + name + ' ' + type + '\n';
    }
    void sample(const std::string &name, const std::string &labels, double value)
    {
        char number[48];
        std::snprintf(number, sizeof number, "%.17g", value);
        text_ += kPrefix + name + (labels.empty() ? "" : '{' + labels + '}') + ' ' + number + '\n';
    }
    void one(const char *name, const char *type, const char *help, double value)
    {
        family(name, type, help);
        sample(name, {}, value);
    }
    std::string text() const { return text_; }

private:
    std::string text_;
};

std::string label(const char *key, const std::string &value)
{
    return std::string(key) + "=\"" + value + '"';
}

// Other masters served through the gateway's Modbus server.
void modbusMetrics(Writer &w, const ModbusFigures &m)
{
    w.family("modbus_requests_total", "counter", "Requests from other Modbus masters, by function.");
    for (size_t i = 0; i < ModbusFigures::kFunctions; ++i)
        w.sample("modbus_requests_total", label("function", ModbusFigures::functionLabel(i)), double(m.requests[i]));
    w.family("modbus_answers_total", "counter",
             "Their answers, by outcome: from the cache, from the line (the controller's own, exceptions included), "
             "or an exception of the gateway's, by code.");
    w.sample("modbus_answers_total", label("outcome", "cache"), double(m.fromCache));
    w.sample("modbus_answers_total", label("outcome", "line"), double(m.lineAnswers));
    for (size_t code = 1; code < ModbusFigures::kExceptionCodes; ++code) {
        if (m.exceptions[code] == 0)
            continue;
        char text[16];
        std::snprintf(text, sizeof text, "exception_%02zX", code);
        w.sample("modbus_answers_total", label("outcome", text), double(m.exceptions[code]));
    }
    w.one("modbus_forwarded_total", "counter", "Requests put on the line for other masters.", double(m.forwarded));
    w.one("modbus_cache_hit_ratio", "gauge", "Share of other masters' reads answered from the cache.", m.hitRatio());
    w.one("modbus_queued_requests", "gauge", "Other masters' requests waiting for the line.", double(m.queued));
    w.one("modbus_masters", "gauge", "Other masters connected.", double(m.masters));
    w.one("modbus_line_seconds_total", "counter", "Line time taken by other masters' requests.",
          double(m.lineMicros) / 1e6);
    w.one("modbus_connections_refused_total", "counter",
          "Connections refused: too many, or from a network not allowed.", double(m.refused));
    w.one("modbus_connections_dropped_total", "counter", "Connections closed: idle, not reading, or not Modbus.",
          double(m.dropped));
}

} // namespace

std::string metricsText(const WebFigures &f, const std::map<int, bool> &stations, const std::vector<Gauge> &gauges)
{
    Writer w;
    const rtuhost::Stats &h = f.host;
    w.one("polls_total", "counter", "Poll reads done, answered or failed.", double(h.polls));
    w.one("accepted_total", "counter", "Replies the driver accepted.", double(h.accepted));
    w.one("retries_total", "counter", "Frames sent again after no or a bad reply.", double(h.retries));
    w.one("failures_total", "counter", "Requests that failed after their retries.", double(h.failures));
    w.one("probes_total", "counter", "Single attempts sent to offline stations, to see whether they are back.",
          double(h.probes));
    w.one("silent_seconds_total", "counter", "Line time spent on requests that no station answered.",
          double(h.silentTime.count()) / 1e6);

    w.family("replies_dropped_total", "counter", "Bytes on the line that answered no request in flight, by reason.");
    static const char *const reasons[] = {"late", "doubled", "foreign", "malformed"};
    for (int r = 0; r < 4; ++r)
        w.sample("replies_dropped_total", label("reason", reasons[r]), double(h.line.dropped[r]));

    w.family("writes_total", "counter", "Write requests from the broker and the page, by result.");
    w.sample("writes_total", label("result", "ok"), double(f.writes.ok));
    w.sample("writes_total", label("result", "failed"), double(f.writes.failed));
    w.sample("writes_total", label("result", "refused"), double(f.writes.refused));

    w.one("published_total", "counter", "Messages the broker acknowledged (QoS 1) or was sent (QoS 0).",
          double(f.mqtt.published));
    w.one("held_messages", "gauge", "Messages held while the broker is away.", double(f.mqtt.held));
    w.one("buffer_dropped_total", "counter", "Intermediate values dropped from a full outbox.", double(f.mqtt.dropped));

    w.family("station_up", "gauge", "1 when the station answered its last request.");
    for (const auto &[station, online] : stations)
        w.sample("station_up", label("station", std::to_string(station)), online ? 1 : 0);
    w.family("station_next_probe_seconds", "gauge",
             "Seconds until an offline station, polled no more, is tried again.");
    const auto now =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    for (const auto &[station, at] : f.nextProbe)
        w.sample("station_next_probe_seconds", label("station", std::to_string(station)),
                 double(std::max<int64_t>(0, at - now)) / 1000.0);
    w.one("line_up", "gauge", "1 when some station on the line answers.", f.lineUp ? 1 : 0);
    w.one("broker_connected", "gauge", "1 when connected to the MQTT broker.", f.brokerUp ? 1 : 0);
    w.one("uptime_seconds", "gauge", "Seconds since the gateway started.", double(f.uptime));

    if (!gauges.empty()) {
        // A value not read, or bad, is left out: a gap says more than a stale number.
        w.family("value", "gauge", "Items asked for with metrics: true, as published: the engineering value.");
        for (const Gauge &g : gauges) {
            if (g.good)
                w.sample("value", g.labels, g.value);
        }
    }

    w.family("poll_cycle_seconds", "histogram",
             "Time of a request on the line, from its first frame to its answer or failure, retries included.");
    uint64_t cumulative = 0;
    for (size_t i = 0; i < kCycleBuckets.size(); ++i) {
        cumulative += f.cycle.counts[i];
        char le[32];
        std::snprintf(le, sizeof le, "%g", kCycleBuckets[i]);
        w.sample("poll_cycle_seconds_bucket", label("le", le), double(cumulative));
    }
    w.sample("poll_cycle_seconds_bucket", label("le", "+Inf"), double(f.cycle.count));
    w.sample("poll_cycle_seconds_sum", {}, f.cycle.sum);
    w.sample("poll_cycle_seconds_count", {}, double(f.cycle.count));
    if (f.modbusServer)
        modbusMetrics(w, f.modbus);
    return w.text();
}

} // namespace rtugw
