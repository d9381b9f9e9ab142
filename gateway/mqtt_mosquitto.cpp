#include "mqtt_mosquitto.h"

#include "mqtt_diagnosis.h"
#include "mqtt_sender.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace rtugw {

namespace {

using Clock = std::chrono::steady_clock;

// libmosquitto's own reconnect is not used: every attempt is ours, from pump(), so that
// each gets the will of its moment and each failure is told why, with a doubling backoff.
constexpr auto kFirstRetry = std::chrono::seconds(1);
constexpr auto kLongestRetry = std::chrono::seconds(30);
// A broker that takes the connection but never answers the CONNECT.
constexpr auto kConnectTimeout = std::chrono::seconds(10);
// How long a failed attempt's cause is looked for with a plain TCP connect.
constexpr int kProbeTimeoutMs = 1500;
constexpr int kSubscribeQos = 1;
constexpr auto kStopPoll = std::chrono::milliseconds(1);
// The connection's thread waits this long at most between its turns: the keepalive is
// checked each turn, and a window that stays full is looked at again.
constexpr int kIdleWaitMs = 1000;
constexpr int kWindowFullWaitMs = 10;
// With the window full the thread waits for a quarter of it to be acknowledged (a
// PUBACK takes 4 or 5 bytes) rather than waking for each: a write request coming
// meanwhile waits at most kWindowFullWaitMs. A quarter of the window the broker
// granted, not of ours: a broker that lets 20 fly (mosquitto's default) never owes
// 64 acknowledgements at once.
constexpr int kAckBytes = 4;
// After the library refused a message (full, or closing), before it is tried again.
constexpr int kRefusedWaitMs = 1;
// Before the CONNACK the library carries the connection itself (the TLS handshake, the
// broker's answer); this long per turn, woken at once by a disconnect.
constexpr int kConnectingWaitMs = 100;
// How long stopping waits for the network thread to end once told to: a thread still in
// the TCP connect to an address that does not answer may take minutes, and is left to it.
constexpr auto kNetworkEndWait = std::chrono::seconds(1);
// The system's authorities, when no CA file is configured.
constexpr const char *kSystemAuthorities = "/etc/ssl/certs";

// Why a TCP connection to host:port cannot be made, in words; empty when it can. The
// library only says "connection refused" or "TLS error", which does not tell a stopped
// broker from a wrong address once the attempt is over.
std::string probeTcp(const std::string &host, int port)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    const int gai = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (gai != 0)
        return std::string("unknown host (") + gai_strerror(gai) + ")";
    int error = ETIMEDOUT;
    const int fd = socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = errno;
    } else {
        if (connect(fd, found->ai_addr, found->ai_addrlen) == 0) {
            error = 0;
        } else if (errno != EINPROGRESS) {
            error = errno;
        } else {
            pollfd p{fd, POLLOUT, 0};
            if (poll(&p, 1, kProbeTimeoutMs) == 1) {
                socklen_t len = sizeof error;
                getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len);
            }
        }
        close(fd);
    }
    freeaddrinfo(found);
    return error == 0 ? std::string() : errnoText(error);
}

// Whether the broker's certificate chain is one `ca` (the system's authorities when
// empty) vouches for, whatever name it bears: OpenSSL's "certificate verify failed" is
// the same for a certificate of another host as for one of an unknown authority.
bool chainTrusted(const std::string &host, int port, const std::string &ca)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
        return false;
    bool trusted = false;
    const int fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval limit{kProbeTimeoutMs / 1000, (kProbeTimeoutMs % 1000) * 1000};
    SSL_CTX *ctx = SSL_CTX_new(TLS_client_method());
    if (fd >= 0 && ctx && setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0 &&
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0 &&
        (ca.empty() ? SSL_CTX_set_default_verify_paths(ctx)
                    : SSL_CTX_load_verify_locations(ctx, ca.c_str(), nullptr)) == 1 &&
        connect(fd, found->ai_addr, found->ai_addrlen) == 0) {
        SSL *ssl = SSL_new(ctx);
        SSL_set_fd(ssl, fd);
        SSL_set_tlsext_host_name(ssl, host.c_str());
        // Not verified while connecting: the result alone is asked for after.
        SSL_set_verify(ssl, SSL_VERIFY_NONE, nullptr);
        trusted = SSL_connect(ssl) == 1 && SSL_get_verify_result(ssl) == X509_V_OK;
        SSL_free(ssl);
    }
    SSL_CTX_free(ctx);
    if (fd >= 0)
        close(fd);
    freeaddrinfo(found);
    return trusted;
}

std::string propertyString(const mosquitto_property *props, int id)
{
    char *value = nullptr;
    if (!mosquitto_property_read_string(props, id, &value, false) || !value)
        return {};
    std::string out(value);
    free(value);
    return out;
}

std::string propertyBinary(const mosquitto_property *props, int id)
{
    void *value = nullptr;
    uint16_t len = 0;
    if (!mosquitto_property_read_binary(props, id, &value, &len, false) || !value)
        return {};
    std::string out(static_cast<const char *>(value), len);
    free(value);
    return out;
}

struct Library {
    Library() { mosquitto_lib_init(); }
    ~Library() { mosquitto_lib_cleanup(); }
};

} // namespace

struct MosquittoMqttClient::Impl {
    explicit Impl(const MqttSettings &settings)
        : s(settings), where(settings.host + ":" + std::to_string(settings.port)),
          sender(
              settings.buffer, up, [this](const Message &m) { return send(m); }, [this] { return handed.load(); })
    {
    }

    ~Impl()
    {
        if (wakeFd >= 0)
            close(wakeFd);
    }

    const MqttSettings s;
    const std::string where; // HOST:PORT, for messages
    mosquitto *mosq = nullptr;
    // Wakes the connection's thread from its wait: work from the poll loop, a
    // subscription, a disconnect.
    const int wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    std::atomic<bool> up{false};
    MqttSender sender;
    std::atomic<long> handed{0}; // handed to libmosquitto, not yet acknowledged

    // The network thread of the current connection; done once it has ended.
    std::thread network;
    std::atomic<bool> networkDone{true};
    std::atomic<bool> closing{false}; // a DISCONNECT we asked for: no Lost event

    // The network thread meets the poll loop here.
    std::mutex mu;
    std::vector<std::string> filters;
    std::vector<Message> incoming;
    std::vector<MqttEvent> events;
    bool attempting = false;
    bool wasUp = false; // the current connection got its CONNACK
    int refusal = 0;    // the broker's CONNACK reason, when it refused
    Clock::time_point attemptStarted{};
    bool endAsked = false; // the current attempt was told to end, taking too long
    Clock::time_point nextAttempt{};
    Clock::duration backoff = kFirstRetry;
    std::string lastFailure; // reported already; a repeat of it is not news
    std::string tlsDetail;   // OpenSSL's first complaint during the current attempt
    Handshake handshake;     // how far the current attempt's TLS handshake got

    std::function<Message()> willProvider;
    mosquitto_property *connectProperties = nullptr;

    bool create(std::string *error);
    void connect();
    void run();   // the network thread
    void carry(); // its turns once the broker accepted us
    void wake()
    {
        const uint64_t one = 1;
        static_cast<void>(write(wakeFd, &one, sizeof one));
    }
    void subscribeAll();
    bool send(const Message &m);
    void event(MqttEvent e) { events.push_back(std::move(e)); } // under mu
    void failed(const std::string &text);                       // under mu
    std::string failureText();
    void joinNetwork();
    // Tells the network thread to end and waits for it, a bounded time; false when it
    // is still connecting and was left to end on its own.
    bool endNetwork();

    static void onConnect(mosquitto *, void *context, int rc, int flags, const mosquitto_property *props);
    static void onDisconnect(mosquitto *, void *context, int rc, const mosquitto_property *props);
    static void onPublish(mosquitto *, void *context, int mid, int reason, const mosquitto_property *props);
    static void onMessage(mosquitto *, void *context, const mosquitto_message *m, const mosquitto_property *props);
    static void onLog(mosquitto *, void *context, int level, const char *text);
};

bool MosquittoMqttClient::Impl::create(std::string *error)
{
    static Library library;
    // clean start off: the broker keeps the session (subscriptions, queued QoS 1) for us
    // while we are away, for the session expiry interval sent with each CONNECT.
    mosq = mosquitto_new(s.clientId.c_str(), false, this);
    if (!mosq) {
        *error = "cannot create the broker client: " + errnoText(errno);
        return false;
    }
    mosquitto_int_option(mosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_threaded_set(mosq, true);
    // Many small PUBLISH packets in a row: each goes at once rather than after the
    // previous one is acknowledged.
    mosquitto_int_option(mosq, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_v5_callback_set(mosq, onConnect);
    mosquitto_disconnect_v5_callback_set(mosq, onDisconnect);
    mosquitto_publish_v5_callback_set(mosq, onPublish);
    mosquitto_message_v5_callback_set(mosq, onMessage);
    if (!s.username.empty() &&
        mosquitto_username_pw_set(mosq, s.username.c_str(), s.password.empty() ? nullptr : s.password.c_str()) !=
            MOSQ_ERR_SUCCESS) {
        *error = "the broker client refuses the user name";
        return false;
    }
    if (s.tls) {
        const int rc = mosquitto_tls_set(
            mosq, s.ca.empty() ? nullptr : s.ca.c_str(), s.ca.empty() ? kSystemAuthorities : nullptr,
            s.cert.empty() ? nullptr : s.cert.c_str(), s.key.empty() ? nullptr : s.key.c_str(), nullptr);
        if (rc != MOSQ_ERR_SUCCESS) {
            *error = std::string("the TLS settings are refused: ") + mosquitto_strerror(rc);
            return false;
        }
        mosquitto_tls_insecure_set(mosq, false); // the certificate must name the host we asked for
    }
    mosquitto_property_add_int32(&connectProperties, MQTT_PROP_SESSION_EXPIRY_INTERVAL, s.sessionExpiry);
    return true;
}

void MosquittoMqttClient::Impl::connect()
{
    joinNetwork();
    // The library's log tells why a TLS handshake failed; it is listened to until the
    // broker accepts us, and no longer: it makes a line of every message sent.
    mosquitto_log_callback_set(mosq, onLog);
    const Message will = willProvider ? willProvider() : s.will;
    if (will.topic.empty())
        mosquitto_will_clear(mosq);
    else
        mosquitto_will_set_v5(mosq, will.topic.c_str(), int(will.payload.size()), will.payload.data(), will.qos,
                              will.retain, nullptr);
    {
        std::lock_guard<std::mutex> lock(mu);
        attempting = true;
        wasUp = false;
        refusal = 0;
        attemptStarted = Clock::now();
        endAsked = false;
        tlsDetail.clear();
        handshake = Handshake{};
    }
    closing = false;
    networkDone = false;
    network = std::thread([this] { run(); });
}

void MosquittoMqttClient::Impl::run()
{
    // The TCP connection and the TLS handshake, then the CONNECT; the CONNACK and all
    // that follows come in the loop, which ends with the connection.
    const int rc = mosquitto_connect_bind_v5(mosq, s.host.c_str(), s.port, s.keepalive, nullptr, connectProperties);
    if (rc != MOSQ_ERR_SUCCESS) {
        const std::string text = failureText();
        std::lock_guard<std::mutex> lock(mu);
        if (attempting)
            failed(text);
    } else {
        {
            // The handshake is through: what ends the connection before the CONNACK is
            // the broker's refusal of us.
            std::lock_guard<std::mutex> lock(mu);
            handshake.serverHello = handshake.verified = handshake.connectSent = true;
        }
        // Until the CONNACK, or the end of the attempt.
        while (!up && mosquitto_socket(mosq) != -1) {
            const int rc = mosquitto_loop(mosq, kConnectingWaitMs, 1);
            if (rc != MOSQ_ERR_SUCCESS && rc != MOSQ_ERR_NO_CONN && mosquitto_socket(mosq) != -1)
                std::this_thread::sleep_for(std::chrono::milliseconds(kRefusedWaitMs));
        }
        if (mosquitto_socket(mosq) != -1)
            carry();
    }
    networkDone = true;
}

// The connection's turns, on its own thread: hand the library what waits as far as the
// window lets, have it written in one go, read what the broker sent (acknowledgements
// by the dozen), keep the connection alive; then wait for the broker or for work. The
// library's own loop wakes and writes once a message; this one once a batch.
void MosquittoMqttClient::Impl::carry()
{
    const int sock = mosquitto_socket(mosq);
    int lowWater = 1; // bytes that make the socket readable
    const auto setLowWater = [&](int bytes) {
        if (bytes != lowWater && setsockopt(sock, SOL_SOCKET, SO_RCVLOWAT, &bytes, sizeof bytes) == 0)
            lowWater = bytes;
    };
    while (mosquitto_socket(mosq) == sock) {
        const MqttSender::Round round = sender.handOver();
        if (mosquitto_want_write(mosq)) {
            // Corked, a batch leaves in as few TCP segments as it fills, and the broker
            // wakes once for it rather than once a message.
            const int cork = round.sent > 1 ? 1 : 0;
            if (cork)
                setsockopt(sock, IPPROTO_TCP, TCP_CORK, &cork, sizeof cork);
            mosquitto_loop_write(mosq, 1);
            if (cork && mosquitto_socket(mosq) == sock) {
                const int uncork = 0;
                setsockopt(sock, IPPROTO_TCP, TCP_CORK, &uncork, sizeof uncork);
            }
            if (mosquitto_socket(mosq) != sock)
                break;
        }
        int waitMs = kIdleWaitMs;
        if (round.refused)
            waitMs = kRefusedWaitMs;
        else if (round.full)
            waitMs = kWindowFullWaitMs;
        else if (round.more || !sender.waitForWork())
            waitMs = 0; // the next batch, or more came meanwhile
        setLowWater(round.full ? int(std::max(1L, sender.window() / 4)) * kAckBytes : 1);
        pollfd p[2] = {{sock, short(POLLIN | (mosquitto_want_write(mosq) ? POLLOUT : 0)), 0}, {wakeFd, POLLIN, 0}};
        const int ready = poll(p, 2, waitMs);
        if (ready > 0) {
            if (p[1].revents & POLLIN) {
                uint64_t count;
                static_cast<void>(read(wakeFd, &count, sizeof count));
            }
            if (p[0].revents & (POLLIN | POLLERR | POLLHUP))
                mosquitto_loop_read(mosq, 1);
            if (mosquitto_socket(mosq) == sock && (p[0].revents & POLLOUT))
                mosquitto_loop_write(mosq, 1);
        } else if (ready == 0 && round.full) {
            // Fewer acknowledgements than the low water came, and no more are owed:
            // what came is read all the same, or the window would stay full for ever.
            mosquitto_loop_read(mosq, 1);
        }
        if (mosquitto_socket(mosq) == sock)
            mosquitto_loop_misc(mosq); // the keepalive
    }
}

void MosquittoMqttClient::Impl::joinNetwork()
{
    if (network.joinable())
        network.join();
}

bool MosquittoMqttClient::Impl::endNetwork()
{
    closing = true;
    up = false;
    mosquitto_disconnect(mosq);
    wake(); // the DISCONNECT is written by the connection's thread
    for (const Clock::time_point end = Clock::now() + kNetworkEndWait; !networkDone && Clock::now() < end;)
        std::this_thread::sleep_for(kStopPoll);
    if (!networkDone)
        return false;
    joinNetwork();
    return true;
}

void MosquittoMqttClient::Impl::failed(const std::string &text)
{
    attempting = false;
    nextAttempt = Clock::now() + backoff;
    backoff = std::min<Clock::duration>(backoff * 2, kLongestRetry);
    if (text != lastFailure)
        event(MqttEvent{MqttEvent::Type::Failed, false, text});
    lastFailure = text;
}

std::string MosquittoMqttClient::Impl::failureText()
{
    ConnectFailure f;
    f.host = s.host;
    f.port = s.port;
    f.tls = s.tls;
    f.ca = s.ca;
    f.cert = s.cert;
    f.username = s.username;
    f.clientId = s.clientId;
    {
        std::lock_guard<std::mutex> lock(mu);
        f.reason = refusal;
        f.tlsDetail = tlsDetail;
        f.handshake = handshake;
    }
    if (f.tls && f.tlsDetail == "certificate verify failed" && chainTrusted(s.host, s.port, s.ca)) {
        f.tlsDetail.clear();
        f.handshake.verified = true;
        f.handshake.nameMismatch = true;
    }
    return connectFailureText(f, [this] { return probeTcp(s.host, s.port); });
}

void MosquittoMqttClient::Impl::subscribeAll()
{
    std::vector<std::string> copies;
    {
        std::lock_guard<std::mutex> lock(mu);
        copies = filters;
    }
    if (copies.empty())
        return;
    std::vector<char *> topics;
    for (std::string &f : copies)
        topics.push_back(f.data());
    mosquitto_subscribe_multiple(mosq, nullptr, int(topics.size()), topics.data(), kSubscribeQos, 0, nullptr);
}

// Called by the connection's thread, which counts the message in flight before.
bool MosquittoMqttClient::Impl::send(const Message &m)
{
    mosquitto_property *props = nullptr;
    // Whoever asked with correlation data matches our answer by it.
    if (!m.correlation.empty())
        mosquitto_property_add_binary(&props, MQTT_PROP_CORRELATION_DATA, m.correlation.data(),
                                      uint16_t(m.correlation.size()));
    ++handed;
    const int rc = mosquitto_publish_v5(mosq, nullptr, m.topic.c_str(), int(m.payload.size()), m.payload.data(), m.qos,
                                        m.retain, props);
    mosquitto_property_free_all(&props);
    // A QoS 1 message the connection dropped under stays with the library, which sends
    // it again after the reconnect: handed over all the same.
    const bool taken = rc == MOSQ_ERR_SUCCESS || (rc == MOSQ_ERR_NO_CONN && m.qos > 0);
    if (!taken)
        --handed;
    return taken;
}

void MosquittoMqttClient::Impl::onConnect(mosquitto *, void *context, int rc, int flags,
                                          const mosquitto_property *props)
{
    Impl *self = static_cast<Impl *>(context);
    if (rc != 0) {
        // Refused: the loop ends with the connection; onDisconnect tells why.
        std::lock_guard<std::mutex> lock(self->mu);
        self->refusal = rc;
        return;
    }
    mosquitto_log_callback_set(self->mosq, nullptr);
    uint16_t receiveMaximum = 0;
    mosquitto_property_read_int16(props, MQTT_PROP_RECEIVE_MAXIMUM, &receiveMaximum, false);
    // The birth goes ahead of everything: of what was held meanwhile, and of what the
    // library sends again after this callback (handed over as the last connection
    // dropped), so that the will's "offline" does not stand while values arrive.
    self->sender.connected(long(receiveMaximum), Message{});
    if (!self->s.birth.topic.empty()) {
        self->sender.handedOver();
        if (!self->send(self->s.birth))
            self->sender.done(false);
    }
    // Up first: a filter the loop adds meanwhile is then subscribed by subscribe() itself.
    self->up = true;
    self->subscribeAll();
    std::lock_guard<std::mutex> lock(self->mu);
    self->attempting = false;
    self->wasUp = true;
    self->backoff = kFirstRetry;
    self->lastFailure.clear();
    self->event(MqttEvent{MqttEvent::Type::Connected, (flags & 1) != 0, {}});
}

void MosquittoMqttClient::Impl::onDisconnect(mosquitto *mosq, void *context, int rc, const mosquitto_property *)
{
    Impl *self = static_cast<Impl *>(context);
    // The loop stops here instead of reconnecting on its own.
    mosquitto_disconnect(mosq);
    self->up = false;
    bool wasUp;
    {
        std::lock_guard<std::mutex> lock(self->mu);
        wasUp = self->wasUp;
        self->wasUp = false;
    }
    if (self->closing)
        return;
    if (!wasUp) {
        const std::string text = self->failureText();
        std::lock_guard<std::mutex> lock(self->mu);
        if (self->attempting) // told once, whichever of the library's paths ended it
            self->failed(text);
        return;
    }
    // A reason code from the broker's DISCONNECT, or the library's own error.
    const std::string why = rc >= 0x80
                                ? disconnectText(rc)
                                : "the connection to " + self->where + " dropped (" + mosquitto_strerror(rc) + ")";
    std::lock_guard<std::mutex> lock(self->mu);
    self->backoff = kFirstRetry;
    self->nextAttempt = Clock::now() + self->backoff;
    self->event(MqttEvent{MqttEvent::Type::Lost, false, why});
}

void MosquittoMqttClient::Impl::onPublish(mosquitto *, void *context, int, int reason, const mosquitto_property *)
{
    Impl *self = static_cast<Impl *>(context);
    --self->handed;
    self->sender.done(reason < 0x80);
}

void MosquittoMqttClient::Impl::onMessage(mosquitto *, void *context, const mosquitto_message *message,
                                          const mosquitto_property *props)
{
    Impl *self = static_cast<Impl *>(context);
    Message m;
    m.topic = message->topic;
    m.payload.assign(static_cast<const char *>(message->payload), size_t(message->payloadlen));
    m.qos = message->qos;
    m.retain = message->retain;
    m.responseTopic = propertyString(props, MQTT_PROP_RESPONSE_TOPIC);
    m.correlation = propertyBinary(props, MQTT_PROP_CORRELATION_DATA);
    std::lock_guard<std::mutex> lock(self->mu);
    self->incoming.push_back(std::move(m));
}

void MosquittoMqttClient::Impl::onLog(mosquitto *, void *context, int level, const char *text)
{
    Impl *self = static_cast<Impl *>(context);
    if (level != MOSQ_LOG_ERR || !text)
        return;
    const std::string line(text);
    const size_t at = line.find("error:");
    if (line.rfind("OpenSSL Error", 0) != 0 || at == std::string::npos)
        return;
    const std::string reason = opensslReason(line.substr(at));
    std::lock_guard<std::mutex> lock(self->mu);
    // An alert from the broker is its refusal of us, whatever OpenSSL calls it.
    if (reason.find("alert") != std::string::npos) {
        self->handshake.refused = true;
        return;
    }
    // The first complaint is the cause; the ones after it are consequences.
    if (self->tlsDetail.empty())
        self->tlsDetail = reason;
}

MosquittoMqttClient::MosquittoMqttClient(const MqttSettings &settings) : impl_(new Impl(settings)) {}

MosquittoMqttClient::~MosquittoMqttClient()
{
    Impl &d = *impl_;
    if (d.mosq && !d.endNetwork()) {
        // Still in a TCP connect that may last minutes: the thread keeps what it uses,
        // and the process, which is ending, does not wait for it.
        d.network.detach();
        static_cast<void>(impl_.release());
        return;
    }
    if (d.mosq)
        mosquitto_destroy(d.mosq);
    mosquitto_property_free_all(&d.connectProperties);
}

bool MosquittoMqttClient::start(std::string *error)
{
    Impl &d = *impl_;
    if (d.mosq) {
        *error = "already started";
        return false;
    }
    if (d.s.tls) {
        for (const std::string *file : {&d.s.ca, &d.s.cert, &d.s.key}) {
            if (!file->empty() && access(file->c_str(), R_OK) != 0) {
                *error = "cannot read " + *file + ": " + errnoText(errno);
                return false;
            }
        }
    }
    if (d.wakeFd < 0) {
        *error = "cannot make the broker client's wake-up: " + errnoText(errno);
        return false;
    }
    if (!d.create(error))
        return false;
    d.connect();
    return true;
}

void MosquittoMqttClient::setWillProvider(std::function<Message()> provider)
{
    impl_->willProvider = std::move(provider);
}

void MosquittoMqttClient::setFormatter(ValueFormatter formatter)
{
    impl_->sender.setFormatter(std::move(formatter));
}

void MosquittoMqttClient::subscribe(const std::string &filter)
{
    {
        std::lock_guard<std::mutex> lock(impl_->mu);
        impl_->filters.push_back(filter);
    }
    if (impl_->up) {
        mosquitto_subscribe_v5(impl_->mosq, nullptr, filter.c_str(), kSubscribeQos, 0, nullptr);
        impl_->wake(); // written by the connection's thread
    }
}

void MosquittoMqttClient::publish(Message m, Outbox::Kind kind)
{
    impl_->sender.publish(std::move(m), kind);
}

void MosquittoMqttClient::publishValue(ValueUpdate v)
{
    impl_->sender.publishValue(std::move(v));
}

void MosquittoMqttClient::pump()
{
    Impl &d = *impl_;
    if (!d.mosq)
        return;
    if (d.sender.flush())
        d.wake();
    if (d.up)
        return;
    bool due, late;
    {
        std::lock_guard<std::mutex> lock(d.mu);
        due = !d.attempting && Clock::now() >= d.nextAttempt;
        // Told once; a TCP connect still under way ends on its own.
        late = d.attempting && !d.endAsked && Clock::now() - d.attemptStarted > kConnectTimeout;
        d.endAsked = d.endAsked || late;
    }
    // A broker that never answers the CONNECT: the attempt ends as a failed one.
    if (late && !d.networkDone)
        mosquitto_disconnect(d.mosq);
    if (due && d.networkDone)
        d.connect();
}

std::vector<Message> MosquittoMqttClient::takeIncoming()
{
    std::vector<Message> out;
    std::lock_guard<std::mutex> lock(impl_->mu);
    out.swap(impl_->incoming);
    return out;
}

std::vector<MqttEvent> MosquittoMqttClient::takeEvents()
{
    std::vector<MqttEvent> out;
    std::lock_guard<std::mutex> lock(impl_->mu);
    out.swap(impl_->events);
    return out;
}

bool MosquittoMqttClient::connected() const
{
    return impl_->up;
}

MqttStats MosquittoMqttClient::stats() const
{
    MqttSender &sender = impl_->sender;
    MqttStats st;
    st.published = sender.published();
    st.held = sender.held();
    st.dropped = sender.dropped();
    return st;
}

void MosquittoMqttClient::reconnect(const std::vector<Message> &last, std::chrono::milliseconds timeout)
{
    Impl &d = *impl_;
    if (!d.mosq)
        return;
    disconnect(last, timeout);
    std::lock_guard<std::mutex> lock(d.mu);
    d.attempting = false;
    d.backoff = kFirstRetry;
    d.nextAttempt = Clock::now(); // the next pump() connects
}

void MosquittoMqttClient::stop(const std::vector<Message> &last, std::chrono::milliseconds timeout)
{
    Impl &d = *impl_;
    if (!d.mosq)
        return;
    disconnect(last, timeout);
}

void MosquittoMqttClient::disconnect(const std::vector<Message> &last, std::chrono::milliseconds timeout)
{
    Impl &d = *impl_;
    const Clock::time_point deadline = Clock::now() + timeout;
    // With the broker away there is nothing to deliver to; the will tells of our end.
    if (d.up) {
        for (const Message &m : last)
            publish(m, Outbox::Kind::Event);
        d.sender.flush();
        d.wake();
        while (d.up && !d.sender.idle() && Clock::now() < deadline)
            std::this_thread::sleep_for(kStopPoll);
    }
    // A clean DISCONNECT: the broker drops the will instead of sending it. The network
    // thread writes it and ends with the connection, so a reconnect cannot overtake it;
    // one still connecting is not waited for, and the next attempt waits for it.
    d.endNetwork();
}

MqttClient::~MqttClient() = default;

std::unique_ptr<MqttClient> makeMqttClient(const MqttSettings &settings)
{
    return std::make_unique<MosquittoMqttClient>(settings);
}

} // namespace rtugw
