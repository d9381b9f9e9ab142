#include "web_server.h"

#include <httplib.h>

#include "metrics.h"
#include "modbus_stats.h"
#include "payload.h"
#include "rtuplc_host/log.h"

namespace rtugw {

extern const char kWebPageHtml[]; // web/page.html, embedded at build time

namespace {

// Each open page holds a server thread for its event stream.
constexpr size_t kServerThreads = 16;
// At most this many events a second to each page, each with every change since the
// last: 1,000 values moving at once stay one message, not a thousand.
constexpr std::chrono::milliseconds kEventInterval{100};
// A comment line on a quiet stream, so that proxies and the browser keep it open.
constexpr std::chrono::milliseconds kKeepAlive{15000};
// The line's figures are copied for the page a few times a second, not every exchange.
constexpr std::chrono::milliseconds kFiguresInterval{250};
// The values changed since are copied for the pages as often as the pages are told: a
// line polled as fast as it answers changes every value many times in between.
constexpr std::chrono::milliseconds kValuesInterval = kEventInterval;
// A write waits behind the exchange in progress and its retries; past this, the
// request is answered with a time-out (the write may still land).
constexpr std::chrono::seconds kWriteTimeout{10};

constexpr int kOk = 200, kBadRequest = 400, kUnauthorized = 401, kForbidden = 403, kNotFound = 404, kBadGateway = 502,
              kGatewayTimeout = 504;

constexpr const char kJson[] = "application/json";
constexpr const char kItemPath[] = R"(/api/items/(\d+)/([^/]+)/([^/]+))";

std::string pathFrom(const httplib::Request &req)
{
    return req.matches[1].str() + '/' + req.matches[2].str() + '/' + req.matches[3].str();
}

void refuse(httplib::Response &res, int status, const std::string &why)
{
    res.status = status;
    res.set_content(answerJson("null", WriteAnswer{false, true, {}, why}), kJson);
}

} // namespace

bool sameSecret(const std::string &given, const std::string &secret)
{
    if (secret.empty())
        return false;
    unsigned char differ = given.size() == secret.size() ? 0 : 1;
    for (size_t i = 0; i < given.size(); ++i)
        differ |= static_cast<unsigned char>(given[i] ^ secret[i % secret.size()]);
    return differ == 0;
}

bool isLoopback(const std::string &host)
{
    return host == "localhost" || host == "::1" || host == "[::1]" || host.compare(0, 4, "127.") == 0;
}

bool WebPage::checkConfig(const Config &c, std::string *error)
{
    if (!c.http.enabled || isLoopback(c.http.host) || !c.http.token.empty())
        return true;
    *error = where(c, 0) + "http.listen: " + c.http.listen +
             " is reachable from other machines: give http.token-file, so that only holders of the token "
             "can write, or listen on 127.0.0.1";
    return false;
}

WebPage::WebPage(Model &model, const Broker &broker)
    : model_(model), broker_(broker), state_(model, std::chrono::minutes(model.config().http.historyMinutes)),
      server_(std::make_unique<httplib::Server>())
{
    routes();
}

WebPage::~WebPage()
{
    stop();
}

void WebPage::routes()
{
    httplib::Server &s = *server_;
    s.new_task_queue = [] { return new httplib::ThreadPool(kServerThreads); };
    s.Get("/", [](const httplib::Request &, httplib::Response &res) {
        res.set_header("Cache-Control", "no-store");
        res.set_content(kWebPageHtml, "text/html; charset=utf-8");
    });
    s.Get("/api/info", [this](const httplib::Request &, httplib::Response &res) {
        const Config &c = model_.config();
        res.set_content("{\"name\":" + jsonString(c.name) + ",\"topic\":" + jsonString(c.mqtt.topic) +
                            ",\"writes\":" + (c.http.token.empty() ? "false" : "true") +
                            ",\"history_minutes\":" + std::to_string(c.http.historyMinutes) + '}',
                        kJson);
    });
    s.Get("/api/items",
          [this](const httplib::Request &, httplib::Response &res) { res.set_content(state_.itemsJson(), kJson); });
    s.Get(std::string(kItemPath) + "/history", [this](const httplib::Request &req, httplib::Response &res) {
        std::string json;
        if (!state_.historyJson(pathFrom(req), &json))
            return refuse(res, kNotFound, "no value " + pathFrom(req) + " is polled");
        res.set_content(json, kJson);
    });
    s.Get("/api/stats",
          [this](const httplib::Request &, httplib::Response &res) { res.set_content(state_.statsJson(), kJson); });
    s.Get("/metrics", [this](const httplib::Request &, httplib::Response &res) {
        res.set_content(metricsText(state_.figures(), state_.stations(), state_.gauges()), kMetricsContentType);
    });
    s.Get("/api/events", [this](const httplib::Request &, httplib::Response &res) {
        res.set_header("Cache-Control", "no-store");
        auto seen = std::make_shared<uint64_t>(0);
        res.set_chunked_content_provider("text/event-stream", [this, seen](size_t, httplib::DataSink &sink) {
            const std::string update = state_.updatesSince(seen.get(), kKeepAlive);
            if (stopping_)
                return false;
            const std::string event = update.empty() ? std::string(": still here\n\n") : "data: " + update + "\n\n";
            if (!sink.is_writable() || !sink.write(event.data(), event.size()))
                return false; // the page is gone
            std::this_thread::sleep_for(kEventInterval);
            return !stopping_;
        });
    });
    s.Post(kItemPath, [this](const httplib::Request &req, httplib::Response &res) {
        const std::string &token = model_.config().http.token;
        if (token.empty())
            return refuse(res, kForbidden, "the page is read-only: the gateway has no http.token-file");
        const std::string auth = req.get_header_value("Authorization");
        const std::string scheme = "Bearer ";
        if (auth.compare(0, scheme.size(), scheme) != 0 || !sameSecret(auth.substr(scheme.size()), token)) {
            res.set_header("WWW-Authenticate", "Bearer realm=\"rtuplc-gateway\"");
            return refuse(res, kUnauthorized, "writing needs the gateway's token (Authorization: Bearer ...)");
        }
        const WriteRequestPayload request = parseWriteRequest(req.body);
        auto write = std::make_shared<PendingWrite>();
        write->path = pathFrom(req);
        write->value = request.value;
        write->isText = request.isText;
        write->refusal = request.error;
        write->idJson = request.idJson;
        state_.queueWrite(write);
        std::unique_lock<std::mutex> g(write->lock);
        if (!write->settled.wait_for(g, kWriteTimeout, [&] { return write->done || stopping_; })) {
            res.status = kGatewayTimeout;
            res.set_content(
                answerJson(write->idJson, WriteAnswer{false,
                                                      false,
                                                      {},
                                                      "no answer within " + std::to_string(kWriteTimeout.count()) +
                                                          " s; it may still land"}),
                kJson);
            return;
        }
        const WriteAnswer &a = write->answer;
        res.status = a.ok ? kOk : a.refused ? kBadRequest : kBadGateway;
        res.set_content(answerJson(write->idJson, a), kJson);
    });
}

bool WebPage::start(std::string *error)
{
    const HttpConfig &h = model_.config().http;
    if (!server_->bind_to_port(h.host, h.port)) {
        *error = where(model_.config(), 0) + "http.listen: cannot listen on " + h.listen +
                 " (the port is taken, or the address is not this machine's)";
        return false;
    }
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    rtuhost::logInfo("the live page is at http://%s/ (%s)", h.listen.c_str(),
                     h.token.empty() ? "read-only: no http.token-file" : "writes need the token");
    return true;
}

void WebPage::stop()
{
    if (stopping_.exchange(true))
        return;
    state_.stop(); // event streams end
    server_->stop();
    if (thread_.joinable())
        thread_.join();
}

void WebPage::valueChanged(size_t index)
{
    state_.valueChanged(index);
}

void WebPage::stationChanged(int)
{
    state_.stationsChanged();
}

void WebPage::takeWrites()
{
    for (const std::shared_ptr<PendingWrite> &w : state_.takeWrites()) {
        auto done = [w](const WriteAnswer &a) {
            std::lock_guard<std::mutex> g(w->lock);
            w->answer = a;
            w->done = true;
            w->settled.notify_all();
        };
        if (!w->refusal.empty())
            model_.refuse(w->path, w->refusal, done);
        else
            model_.write(w->path, w->value, done, w->isText);
    }
}

void WebPage::observeCycles()
{
    // Each request finished since the last look adds its time to the histogram; when
    // several finished in between (rare), each counts as their mean.
    const rtuhost::Stats &h = model_.hostStats();
    if (h.finished <= finishedSeen_)
        return;
    const uint64_t n = h.finished - finishedSeen_;
    const double each = double((h.cycleTotal - cycleSeen_).count()) / 1e6 / double(n);
    for (uint64_t i = 0; i < n; ++i)
        cycle_.add(each);
    finishedSeen_ = h.finished;
    cycleSeen_ = h.cycleTotal;
}

void WebPage::copyFigures()
{
    WebFigures f;
    f.host = model_.hostStats();
    f.mqtt = broker_.client().stats();
    f.writes = model_.writes();
    f.brokerUp = broker_.up();
    f.brokerState = broker_.state();
    for (const auto &[station, state] : model_.stations())
        f.lineUp = f.lineUp || state.online;
    f.pollsPerSecond = model_.pollsPerSecond();
    const auto steadyNow = std::chrono::steady_clock::now();
    const auto systemNow = std::chrono::system_clock::now();
    for (const auto &[station, silence] : model_.offline())
        f.nextProbe[station] = msSinceEpoch(
            systemNow + std::chrono::duration_cast<std::chrono::system_clock::duration>(silence.nextProbe - steadyNow));
    f.uptime = model_.uptimeSeconds();
    f.cycle = cycle_;
    if (model_.modbusStats) {
        f.modbusServer = true;
        f.modbus = model_.modbusStats->figures();
    }
    f.statsJson = withServerFigures(statsJson(f.host, f.mqtt, f.writes, f.pollsPerSecond, f.uptime), model_.modbusStats);
    state_.setFigures(std::move(f));
    state_.setReads(model_.blockReads());
}

void WebPage::tick()
{
    const auto now = std::chrono::steady_clock::now();
    if (now - lastValues_ >= kValuesInterval) {
        lastValues_ = now;
        state_.flush();
    }
    takeWrites();
    observeCycles();
    if (now - lastFigures_ >= kFiguresInterval) {
        lastFigures_ = now;
        copyFigures();
    }
}

} // namespace rtugw
