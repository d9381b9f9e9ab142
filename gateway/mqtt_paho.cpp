#include "mqtt_paho.h"

#include <MQTTAsync.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <netdb.h>
#include <optional>
#include <string_view>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace rtugw {

namespace {

using Clock = std::chrono::steady_clock;

// Paho's own automatic reconnect is not used: after a lost connection it reports
// neither the session-present flag of the new CONNACK nor why a reconnect is refused
// (a changed password goes unnoticed), and it never retries a first connect at all. So
// every attempt is ours, from pump(), with the same doubling backoff.
constexpr auto kFirstRetry = std::chrono::seconds(1);
constexpr auto kLongestRetry = std::chrono::seconds(30);
// A broker that takes the TCP connection but never answers the CONNECT.
constexpr int kConnectTimeoutS = 10;
// Messages Paho keeps while disconnected: those handed to it just as the connection
// dropped. The outbox holds everything published after the drop is noticed.
constexpr int kPahoBuffer = 100000;
// QoS 1 messages awaiting their PUBACK. Paho's default of 65535 lets a burst pile up
// inside Paho; too small a window caps a remote broker 20 ms away at window / 20 ms.
// 256 allows over 10,000 messages a second at that distance. Measured on loopback
// against a broker granting 1000, 256 moved as many messages a second as 1000 did, but
// publish() stayed at 2 to 6 us on average where 1000 made it wait for Paho's lock,
// 10 to 80 us.
constexpr int kMaxInflight = 256;
// Paho scans its whole queue of commands, under the lock publish() needs, each time it
// looks for something to send: measured, 20,000 messages handed over at once took 3 s
// to 300 s, the more so the more of them waited for a PUBACK slot (mosquitto grants
// only 20). So no more is handed to Paho than the broker's receive maximum lets fly;
// the rest wait in the outbox, which costs nothing per message.
constexpr long kNoReceiveMaximum = 65535; // the broker did not say: MQTT's default
// A completion Paho never reports (a session the broker forgot) must not stop the flow
// for ever: after this long with the window full, Paho's own count is taken instead.
constexpr auto kWindowResync = std::chrono::seconds(1);
// Held messages the sender takes out of the outbox at once: the poll loop waits for
// the outbox's lock no longer than this many take a moment.
constexpr long kSendBatch = 64;
// How long the sender sleeps when nothing wakes it: it is woken when the loop hands
// over messages and when the broker connects; an acknowledgement that frees room in a
// full window may come unannounced, and is noticed this soon.
constexpr auto kSenderNap = std::chrono::milliseconds(50);
constexpr auto kWindowNap = std::chrono::milliseconds(1);
// Messages waiting, with the broker there, before a waiting reading gives way to the
// same value's next one: eight full replies' values go out whole, a tenth of a second
// of what a broker on the same machine takes. Behind by more, every value's latest
// reading keeps the backlog at one message a value, never a growing queue of stale ones.
constexpr size_t kWholeBurst = 1000;
// How long a failed attempt's cause is looked for with a plain TCP connect.
constexpr int kProbeTimeoutMs = 1500;
constexpr int kSubscribeQos = 1;
constexpr auto kStopPoll = std::chrono::milliseconds(5);
// Paho needs a moment to send the DISCONNECT itself, even when nothing is in flight.
constexpr int kDisconnectMinMs = 100;

// MQTT 5 CONNACK reason codes a broker refuses a login with.
constexpr int kReasonClientId = 0x85;
constexpr int kReasonBadLogin = 0x86;
constexpr int kReasonNotAuthorized = 0x87;
constexpr int kReasonBanned = 0x8A;

std::string lower(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return s;
}

// Why a TCP connection to host:port cannot be made, in words; empty when it can. Paho
// only says "TCP/TLS connect failure", which does not tell a stopped broker from a
// wrong address.
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
    return error == 0 ? std::string() : lower(std::strerror(error));
}

// OpenSSL's error lines read "...:error:CODE:LIBRARY:FUNCTION:REASON:FILE:LINE:"; the
// reason is the part a person can act on.
std::string opensslReason(const std::string &line)
{
    std::vector<std::string> fields;
    for (size_t at = 0; at <= line.size();) {
        const size_t colon = std::min(line.find(':', at), line.size());
        fields.push_back(line.substr(at, colon - at));
        at = colon + 1;
    }
    const auto error = std::find(fields.begin(), fields.end(), "error");
    constexpr long kReasonField = 4; // after the code, the library and the function
    if (fields.end() - error <= kReasonField)
        return line;
    return error[kReasonField];
}

std::string refusal(int reason, const MqttSettings &s)
{
    const std::string user = s.username.empty() ? "no user name" : "user \"" + s.username + "\"";
    switch (reason) {
    case kReasonBadLogin:
        return "the broker refused the login: bad user name or password (" + user + ")";
    case kReasonNotAuthorized:
        // Some brokers answer a wrong password with this rather than 0x86.
        return "the broker refused the login: not authorized (" + user + ": a wrong password, or no access)";
    case kReasonClientId:
        return "the broker refused the login: client id \"" + s.clientId + "\" not valid";
    case kReasonBanned:
        return "the broker refused the login: banned";
    default:
        return "the broker refused the connection: " +
               lower(MQTTReasonCode_toString(static_cast<MQTTReasonCodes>(reason)));
    }
}

std::string propertyText(MQTTProperties *properties, MQTTPropertyCodes code)
{
    MQTTProperty *p = MQTTProperties_getProperty(properties, code);
    return p ? std::string(p->value.data.data, size_t(p->value.data.len)) : std::string();
}

} // namespace

struct PahoMqttClient::Impl {
    explicit Impl(const MqttSettings &settings)
        : s(settings), where(settings.host + ":" + std::to_string(settings.port)),
          outbox(settings.buffer)
    {
    }

    const MqttSettings s;
    const std::string where; // HOST:PORT, for messages
    MQTTAsync client = nullptr;

    // The poll loop's own: what it published since it last handed messages over, in
    // order. Values (the bulk) and messages apart; each message knows how many values
    // came before it.
    std::vector<ValueUpdate> stagedValues;
    std::vector<std::pair<size_t, std::pair<Message, Outbox::Kind>>> stagedMessages;

    // The sender thread hands held messages to Paho, so that the poll loop never waits
    // for Paho, whose every hand-over takes a lock its own threads hold while they scan
    // their queues. The loop meets the sender here.
    std::mutex boxMu;
    std::condition_variable boxCv;
    Outbox outbox;               // under boxMu
    std::deque<Message> unsent;  // taken from the outbox but refused by Paho: go first; under boxMu
    bool quit = false;           // under boxMu
    std::thread sender;

    std::atomic<bool> up{false};
    std::atomic<uint64_t> published{0}; // acknowledged by the broker (QoS 1) or written (QoS 0)
    std::atomic<long> inPaho{0};        // handed to Paho, not yet acknowledged or written
    std::atomic<long> window{kMaxInflight};
    Clock::time_point windowFullSince{};
    std::atomic<bool> disconnected{false}; // Paho finished a DISCONNECT we asked for

    // Paho's thread meets the poll loop here.
    std::mutex mu;
    std::vector<std::string> filters;
    std::vector<Message> incoming;
    std::vector<MqttEvent> events;
    bool attempting = false;
    Clock::time_point nextAttempt{};
    Clock::duration backoff = kFirstRetry;
    std::string lastFailure; // reported already; a repeat of it is not news
    std::string tlsDetail;   // OpenSSL's first complaint during the current attempt
    // How far the current attempt's handshake got, read from Paho's trace: Paho's failure
    // says only "TCP/TLS connect failure", and OpenSSL stays silent when the host name
    // does not match or the broker ends the handshake.
    struct Handshake {
        bool serverHello = false;
        bool verified = false;     // the chain is good, whatever the name
        bool nameMismatch = false; // Paho checks names first, then addresses: tentative
        bool refused = false;      // the broker sent a fatal alert
        bool connectSent = false;  // our side of the handshake passed every check
    } handshake;
    std::string dropCause;   // the broker's reason when it disconnected us

    // What Paho reads when connecting; kept here so the pointers stay valid.
    MQTTAsync_willOptions will = MQTTAsync_willOptions_initializer;
    std::function<Message()> willProvider;
    Message willMessage; // what `will` points into
    MQTTAsync_SSLOptions ssl = MQTTAsync_SSLOptions_initializer;
    MQTTProperties connectProperties = MQTTProperties_initializer;

    bool create(std::string *error);
    void setWill();
    void connect();
    void subscribeAll();
    bool send(const Message &m);
    void flush();
    void sendLoop();
    void stopSender();
    bool roomInPaho();
    long pahoPending();
    void event(MqttEvent e)
    {
        events.push_back(std::move(e)); // under mu
    }
    void markDown(const std::string &why);
    std::string failureText(const MQTTAsync_failureData5 *data);

    static void onConnected(void *context, MQTTAsync_successData5 *data);
    static void onConnectFailed(void *context, MQTTAsync_failureData5 *data);
    static void onLost(void *context, char *cause);
    static void onDisconnected(void *context, MQTTProperties *properties, MQTTReasonCodes reason);
    static int onMessage(void *context, char *topic, int topicLength, MQTTAsync_message *message);
    static void onSent(void *context, MQTTAsync_successData5 *data);
    static void onNotSent(void *context, MQTTAsync_failureData5 *data);
    static int onTlsError(const char *text, size_t length, void *context);
    static void onTrace(MQTTASYNC_TRACE_LEVELS level, char *message);
    void traceHandshake(bool on);
    std::string handshakeText();
    // Paho's trace is one for the process; the gateway has one client, the one tracing.
    static std::atomic<Impl *> tracing;
};

bool PahoMqttClient::Impl::create(std::string *error)
{
    const std::string uri = std::string(s.tls ? "ssl://" : "tcp://") + s.host + ":" + std::to_string(s.port);
    MQTTAsync_createOptions options = MQTTAsync_createOptions_initializer5;
    // A message handed over just as the connection drops stays with Paho and goes out
    // after the reconnect, instead of being lost between Paho and the outbox.
    options.sendWhileDisconnected = 1;
    options.allowDisconnectedSendAtAnyTime = 1;
    options.maxBufferedMessages = kPahoBuffer;
    options.deleteOldestMessages = 0;
    int rc = MQTTAsync_createWithOptions(&client, uri.c_str(), s.clientId.c_str(), MQTTCLIENT_PERSISTENCE_NONE,
                                         nullptr, &options);
    if (rc != MQTTASYNC_SUCCESS) {
        client = nullptr;
        *error = "cannot use the broker address " + uri + ": " + MQTTAsync_strerror(rc);
        return false;
    }
    MQTTAsync_setCallbacks(client, this, onLost, onMessage, nullptr);
    MQTTAsync_setDisconnected(client, this, onDisconnected);

    willMessage = s.will;
    setWill();
    if (s.tls) {
        ssl.trustStore = s.ca.empty() ? nullptr : s.ca.c_str();
        ssl.keyStore = s.cert.empty() ? nullptr : s.cert.c_str();
        ssl.privateKey = s.key.empty() ? nullptr : s.key.c_str();
        ssl.enableServerCertAuth = 1;
        ssl.verify = 1; // the certificate must name the host we asked for
        ssl.ssl_error_cb = onTlsError;
        ssl.ssl_error_context = this;
    }
    // The broker keeps the subscriptions and the QoS 1 messages for us while we are away.
    MQTTProperty expiry;
    expiry.identifier = MQTTPROPERTY_CODE_SESSION_EXPIRY_INTERVAL;
    expiry.value.integer4 = s.sessionExpiry;
    MQTTProperties_add(&connectProperties, &expiry);
    return true;
}

void PahoMqttClient::Impl::setWill()
{
    will.topicName = willMessage.topic.c_str();
    will.payload.data = willMessage.payload.data();
    will.payload.len = int(willMessage.payload.size());
    will.qos = willMessage.qos;
    will.retained = willMessage.retain ? 1 : 0;
}

void PahoMqttClient::Impl::connect()
{
    if (willProvider) {
        willMessage = willProvider();
        setWill();
    }
    MQTTAsync_connectOptions options = MQTTAsync_connectOptions_initializer5;
    options.keepAliveInterval = s.keepalive;
    options.cleanstart = 0;
    options.connectProperties = &connectProperties;
    options.maxInflight = kMaxInflight;
    options.connectTimeout = kConnectTimeoutS;
    options.automaticReconnect = 0;
    options.username = s.username.empty() ? nullptr : s.username.c_str();
    options.password = s.password.empty() ? nullptr : s.password.c_str();
    options.will = willMessage.topic.empty() ? nullptr : &will;
    options.ssl = s.tls ? &ssl : nullptr;
    options.onSuccess5 = onConnected;
    options.onFailure5 = onConnectFailed;
    options.context = this;
    {
        std::lock_guard<std::mutex> lock(mu);
        attempting = true;
        tlsDetail.clear();
        handshake = Handshake{};
    }
    traceHandshake(s.tls);
    const int rc = MQTTAsync_connect(client, &options);
    if (rc != MQTTASYNC_SUCCESS) {
        // Paho did not even start the attempt: counted as a failed one, retried later.
        traceHandshake(false);
        std::lock_guard<std::mutex> lock(mu);
        attempting = false;
        nextAttempt = Clock::now() + backoff;
        backoff = std::min<Clock::duration>(backoff * 2, kLongestRetry);
        const std::string text = "cannot start connecting to the broker at " + where + ": " + MQTTAsync_strerror(rc);
        if (text != lastFailure)
            event(MqttEvent{MqttEvent::Type::Failed, false, text});
        lastFailure = text;
    }
}

void PahoMqttClient::Impl::subscribeAll()
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
    const std::vector<int> qos(copies.size(), kSubscribeQos);
    MQTTAsync_responseOptions options = MQTTAsync_responseOptions_initializer;
    MQTTAsync_subscribeMany(client, int(topics.size()), topics.data(), qos.data(), &options);
}

bool PahoMqttClient::Impl::send(const Message &m)
{
    MQTTAsync_message message = MQTTAsync_message_initializer;
    message.payload = const_cast<char *>(m.payload.data());
    message.payloadlen = int(m.payload.size());
    message.qos = m.qos;
    message.retained = m.retain ? 1 : 0;
    // Whoever asked with correlation data matches our answer by it.
    if (!m.correlation.empty()) {
        MQTTProperty correlation;
        correlation.identifier = MQTTPROPERTY_CODE_CORRELATION_DATA;
        correlation.value.data.data = const_cast<char *>(m.correlation.data());
        correlation.value.data.len = int(m.correlation.size());
        MQTTProperties_add(&message.properties, &correlation);
    }
    MQTTAsync_responseOptions options = MQTTAsync_responseOptions_initializer;
    options.onSuccess5 = onSent;
    options.onFailure5 = onNotSent;
    options.context = this;
    inPaho.fetch_add(1);
    const int rc = MQTTAsync_sendMessage(client, m.topic.c_str(), &message, &options);
    MQTTProperties_free(&message.properties);
    if (rc != MQTTASYNC_SUCCESS) {
        inPaho.fetch_sub(1);
        return false;
    }
    return true;
}

bool PahoMqttClient::Impl::roomInPaho()
{
    if (inPaho.load() < window.load()) {
        windowFullSince = {};
        return true;
    }
    const Clock::time_point now = Clock::now();
    if (windowFullSince == Clock::time_point{}) {
        windowFullSince = now;
    } else if (now - windowFullSince >= kWindowResync) {
        inPaho = pahoPending();
        windowFullSince = {};
    }
    return false;
}

long PahoMqttClient::Impl::pahoPending()
{
    MQTTAsync_token *tokens = nullptr;
    long n = 0;
    if (MQTTAsync_getPendingTokens(client, &tokens) == MQTTASYNC_SUCCESS && tokens) {
        while (tokens[n] != -1)
            ++n;
    }
    MQTTAsync_free(tokens);
    return n;
}

void PahoMqttClient::Impl::markDown(const std::string &why)
{
    // Paho may tell of one drop twice (the broker's DISCONNECT, then the lost socket).
    if (!up.exchange(false))
        return;
    std::lock_guard<std::mutex> lock(mu);
    backoff = kFirstRetry;
    nextAttempt = Clock::now() + backoff;
    event(MqttEvent{MqttEvent::Type::Lost, false, why});
}

std::string PahoMqttClient::Impl::failureText(const MQTTAsync_failureData5 *data)
{
    // A refused CONNACK arrives as its reason code in `code`; some versions put it in
    // reasonCode instead.
    const int reason = data && data->reasonCode >= 0x80 ? int(data->reasonCode) : data ? data->code : 0;
    if (reason >= 0x80)
        return refusal(reason, s);
    std::string detail;
    {
        std::lock_guard<std::mutex> lock(mu);
        detail = tlsDetail;
    }
    if (s.tls && detail == "certificate verify failed")
        return "TLS handshake with " + where + " failed: " + detail + " (the broker's certificate is not signed by " +
               (s.ca.empty() ? std::string("an authority the system trusts") : s.ca) + ")";
    if (s.tls && !detail.empty())
        return "TLS handshake with " + where + " failed: " + detail;
    const std::string unreachable = probeTcp(s.host, s.port);
    if (!unreachable.empty())
        return "cannot reach the broker at " + where + ": " + unreachable;
    if (s.tls)
        return "TLS handshake with " + where + " failed: " + handshakeText();
    // Seen when the port wants TLS (the broker hangs up on a plain CONNECT), and from a
    // broker that is still starting.
    return "the broker at " + where + " closed the connection before answering; if it is a TLS port, use mqtts://";
}

std::string PahoMqttClient::Impl::handshakeText()
{
    std::lock_guard<std::mutex> lock(mu);
    // TLS 1.3 lets the client finish its side before the broker checks our certificate, so
    // the broker's alert may be lost with the socket: a CONNECT sent over a handshake the
    // broker then ends is its refusal of us.
    if (handshake.refused || handshake.connectSent)
        return s.cert.empty() ? "the broker ended it; does it want a client certificate (cert and key)?"
                              : "the broker ended it; does it trust our client certificate?";
    if (handshake.verified && handshake.nameMismatch)
        return "the broker's certificate is not for " + s.host;
    if (!handshake.serverHello)
        return "no TLS answer from the port (a plain MQTT port? then mqtt://)";
    return "it did not complete";
}

std::atomic<PahoMqttClient::Impl *> PahoMqttClient::Impl::tracing{nullptr};

void PahoMqttClient::Impl::traceHandshake(bool on)
{
    // Only while connecting: traced at this level, every message sent would be formatted.
    if (on) {
        tracing = this;
        MQTTAsync_setTraceCallback(onTrace);
        MQTTAsync_setTraceLevel(MQTTASYNC_TRACE_PROTOCOL);
    } else if (tracing == this) {
        MQTTAsync_setTraceLevel(MQTTASYNC_TRACE_FATAL);
        tracing = nullptr;
    }
}

void PahoMqttClient::Impl::onTrace(MQTTASYNC_TRACE_LEVELS, char *message)
{
    Impl *self = tracing.load();
    if (!self || !message)
        return;
    const std::string_view m(message);
    std::lock_guard<std::mutex> lock(self->mu);
    Handshake &h = self->handshake;
    if (m.find("read server hello") != std::string_view::npos)
        h.serverHello = true;
    else if (m.find("SSL certificate verification: X509_V_OK") != std::string_view::npos)
        h.verified = true;
    else if (m.find("X509_check_host") != std::string_view::npos && m.find("failed") != std::string_view::npos)
        h.nameMismatch = true;
    else if (m.find("SSL alert read:fatal") != std::string_view::npos)
        h.refused = true;
    else if (m.find("-> CONNECT") != std::string_view::npos)
        h.connectSent = true;
}

void PahoMqttClient::Impl::onConnected(void *context, MQTTAsync_successData5 *data)
{
    Impl *self = static_cast<Impl *>(context);
    self->traceHandshake(false);
    MQTTProperty *receiveMaximum =
        data ? MQTTProperties_getProperty(&data->properties, MQTTPROPERTY_CODE_RECEIVE_MAXIMUM) : nullptr;
    self->window = std::min<long>(receiveMaximum ? receiveMaximum->value.integer2 : kNoReceiveMaximum, kMaxInflight);
    // The birth goes ahead of what was held meanwhile, before the sender can start on it:
    // the will's "offline" must not stand while current values arrive.
    if (!self->s.birth.topic.empty()) {
        std::lock_guard<std::mutex> lock(self->boxMu);
        self->unsent.push_front(self->s.birth);
    }
    // Up first: a filter the loop adds meanwhile is then subscribed by subscribe() itself.
    self->up = true;
    self->subscribeAll();
    std::lock_guard<std::mutex> lock(self->mu);
    self->attempting = false;
    self->backoff = kFirstRetry;
    self->lastFailure.clear();
    self->dropCause.clear();
    self->event(MqttEvent{MqttEvent::Type::Connected, data && data->alt.connect.sessionPresent != 0, {}});
    self->boxCv.notify_one(); // what is held goes now
}

void PahoMqttClient::Impl::onConnectFailed(void *context, MQTTAsync_failureData5 *data)
{
    Impl *self = static_cast<Impl *>(context);
    const std::string text = self->failureText(data);
    self->traceHandshake(false);
    std::lock_guard<std::mutex> lock(self->mu);
    self->attempting = false;
    self->nextAttempt = Clock::now() + self->backoff;
    self->backoff = std::min<Clock::duration>(self->backoff * 2, kLongestRetry);
    if (text != self->lastFailure)
        self->event(MqttEvent{MqttEvent::Type::Failed, false, text});
    self->lastFailure = text;
}

void PahoMqttClient::Impl::onLost(void *context, char *cause)
{
    Impl *self = static_cast<Impl *>(context);
    std::string why;
    {
        std::lock_guard<std::mutex> lock(self->mu);
        why = self->dropCause;
    }
    if (why.empty())
        why = cause && *cause ? cause : "the connection to " + self->where + " dropped";
    self->markDown(why);
}

void PahoMqttClient::Impl::onDisconnected(void *context, MQTTProperties *, MQTTReasonCodes reason)
{
    Impl *self = static_cast<Impl *>(context);
    const std::string why = "the broker disconnected us: " + lower(MQTTReasonCode_toString(reason));
    {
        std::lock_guard<std::mutex> lock(self->mu);
        self->dropCause = why;
    }
    self->markDown(why);
}

int PahoMqttClient::Impl::onMessage(void *context, char *topic, int topicLength, MQTTAsync_message *message)
{
    Impl *self = static_cast<Impl *>(context);
    Message m;
    m.topic = topicLength > 0 ? std::string(topic, size_t(topicLength)) : std::string(topic);
    m.payload.assign(static_cast<const char *>(message->payload), size_t(message->payloadlen));
    m.qos = message->qos;
    m.retain = message->retained != 0;
    m.responseTopic = propertyText(&message->properties, MQTTPROPERTY_CODE_RESPONSE_TOPIC);
    m.correlation = propertyText(&message->properties, MQTTPROPERTY_CODE_CORRELATION_DATA);
    MQTTAsync_freeMessage(&message);
    MQTTAsync_free(topic);
    std::lock_guard<std::mutex> lock(self->mu);
    self->incoming.push_back(std::move(m));
    return 1;
}

void PahoMqttClient::Impl::onSent(void *context, MQTTAsync_successData5 *)
{
    Impl *self = static_cast<Impl *>(context);
    // No lock here: Paho may hold its own while it calls us, and the sender calls Paho.
    if (self->inPaho.fetch_sub(1) >= self->window.load())
        self->boxCv.notify_one();
    self->published.fetch_add(1, std::memory_order_relaxed);
}

void PahoMqttClient::Impl::onNotSent(void *context, MQTTAsync_failureData5 *)
{
    Impl *self = static_cast<Impl *>(context);
    if (self->inPaho.fetch_sub(1) >= self->window.load())
        self->boxCv.notify_one();
}

int PahoMqttClient::Impl::onTlsError(const char *text, size_t length, void *context)
{
    Impl *self = static_cast<Impl *>(context);
    std::lock_guard<std::mutex> lock(self->mu);
    // The first complaint is the cause; the ones after it are consequences.
    if (self->tlsDetail.empty())
        self->tlsDetail = opensslReason(std::string(text, length));
    return 1;
}

PahoMqttClient::PahoMqttClient(const MqttSettings &settings) : impl_(new Impl(settings)) {}

PahoMqttClient::~PahoMqttClient()
{
    impl_->stopSender();
    impl_->traceHandshake(false);
    if (impl_->client)
        MQTTAsync_destroy(&impl_->client);
    MQTTProperties_free(&impl_->connectProperties);
}

bool PahoMqttClient::start(std::string *error)
{
    Impl &d = *impl_;
    if (d.client) {
        *error = "already started";
        return false;
    }
    if (d.s.tls) {
        for (const std::string *file : {&d.s.ca, &d.s.cert, &d.s.key}) {
            if (!file->empty() && access(file->c_str(), R_OK) != 0) {
                *error = "cannot read " + *file + ": " + lower(std::strerror(errno));
                return false;
            }
        }
    }
    if (!d.create(error))
        return false;
    d.sender = std::thread([&d] { d.sendLoop(); });
    d.connect();
    return true;
}

void PahoMqttClient::setWillProvider(std::function<Message()> provider)
{
    impl_->willProvider = std::move(provider);
}

void PahoMqttClient::setFormatter(ValueFormatter formatter)
{
    std::lock_guard<std::mutex> lock(impl_->boxMu);
    impl_->outbox.setFormatter(std::move(formatter));
}

void PahoMqttClient::subscribe(const std::string &filter)
{
    {
        std::lock_guard<std::mutex> lock(impl_->mu);
        impl_->filters.push_back(filter);
    }
    if (impl_->up) {
        std::vector<char> copy(filter.begin(), filter.end());
        copy.push_back('\0');
        MQTTAsync_responseOptions options = MQTTAsync_responseOptions_initializer;
        MQTTAsync_subscribe(impl_->client, copy.data(), kSubscribeQos, &options);
    }
}

void PahoMqttClient::publish(Message m, Outbox::Kind kind)
{
    Impl &d = *impl_;
    d.stagedMessages.emplace_back(d.stagedValues.size(), std::make_pair(std::move(m), kind));
}

void PahoMqttClient::publishValue(ValueUpdate v)
{
    impl_->stagedValues.push_back(std::move(v));
}

void PahoMqttClient::Impl::flush()
{
    if (stagedValues.empty() && stagedMessages.empty())
        return;
    {
        std::lock_guard<std::mutex> lock(boxMu);
        // A broker that is there but has fallen behind the line by more than a burst
        // is given each value's latest reading: a reading still waiting when the next
        // one comes is stale then, and the newer takes its place. Readings held while
        // the broker is away all go.
        const bool conflate = up.load() && outbox.size() >= kWholeBurst;
        size_t v = 0;
        for (auto &[before, message] : stagedMessages) {
            for (; v < before; ++v)
                outbox.push(std::move(stagedValues[v]), conflate);
            outbox.push(std::move(message.first), message.second);
        }
        for (; v < stagedValues.size(); ++v)
            outbox.push(std::move(stagedValues[v]), conflate);
    }
    stagedValues.clear();
    stagedMessages.clear();
    boxCv.notify_one();
}

void PahoMqttClient::Impl::sendLoop()
{
    std::vector<Outbox::Held> taken;
    std::vector<Message> batch;
    std::unique_lock<std::mutex> lock(boxMu);
    while (!quit) {
        if (!up || (unsent.empty() && outbox.size() == 0)) {
            boxCv.wait_for(lock, kSenderNap);
            continue;
        }
        // Paho is called without our lock: its callbacks run under its own.
        lock.unlock();
        const long room = roomInPaho() ? std::min(window.load() - inPaho.load(), kSendBatch) : 0;
        lock.lock();
        if (room <= 0) {
            boxCv.wait_for(lock, kWindowNap);
            continue;
        }
        for (; long(batch.size()) < room && !unsent.empty(); unsent.pop_front())
            batch.push_back(std::move(unsent.front()));
        while (long(batch.size() + taken.size()) < room) {
            std::optional<Outbox::Held> h = outbox.take();
            if (!h)
                break;
            taken.push_back(std::move(*h));
        }
        lock.unlock();
        for (Outbox::Held &h : taken)
            batch.push_back(outbox.open(std::move(h)));
        taken.clear();
        size_t sent = 0;
        while (sent < batch.size() && send(batch[sent]))
            ++sent;
        lock.lock();
        const bool refused = sent < batch.size();
        // Refused by Paho (full, or closing): they go first next time, in their order.
        for (size_t i = batch.size(); i-- > sent;)
            unsent.push_front(std::move(batch[i]));
        batch.clear();
        if (refused)
            boxCv.wait_for(lock, kWindowNap);
    }
}

void PahoMqttClient::Impl::stopSender()
{
    {
        std::lock_guard<std::mutex> lock(boxMu);
        quit = true;
    }
    boxCv.notify_one();
    if (sender.joinable())
        sender.join();
}

void PahoMqttClient::pump()
{
    Impl &d = *impl_;
    if (!d.client)
        return;
    d.flush();
    if (!d.up) {
        bool due;
        {
            std::lock_guard<std::mutex> lock(d.mu);
            due = !d.attempting && !d.up && Clock::now() >= d.nextAttempt;
        }
        if (due)
            d.connect();
    }
}

std::vector<Message> PahoMqttClient::takeIncoming()
{
    std::vector<Message> out;
    std::lock_guard<std::mutex> lock(impl_->mu);
    out.swap(impl_->incoming);
    return out;
}

std::vector<MqttEvent> PahoMqttClient::takeEvents()
{
    std::vector<MqttEvent> out;
    std::lock_guard<std::mutex> lock(impl_->mu);
    out.swap(impl_->events);
    return out;
}

bool PahoMqttClient::connected() const { return impl_->up; }

MqttStats PahoMqttClient::stats() const
{
    Impl &d = *impl_;
    MqttStats st;
    st.published = d.published.load(std::memory_order_relaxed);
    std::lock_guard<std::mutex> lock(d.boxMu);
    st.held = d.outbox.size() + d.unsent.size() + d.stagedValues.size() + d.stagedMessages.size();
    st.dropped = d.outbox.dropped();
    return st;
}

void PahoMqttClient::reconnect(const std::vector<Message> &last, std::chrono::milliseconds timeout)
{
    Impl &d = *impl_;
    if (!d.client)
        return;
    disconnect(last, timeout);
    std::lock_guard<std::mutex> lock(d.mu);
    d.backoff = kFirstRetry;
    d.nextAttempt = Clock::now(); // the next pump() connects
}

void PahoMqttClient::stop(const std::vector<Message> &last, std::chrono::milliseconds timeout)
{
    Impl &d = *impl_;
    if (!d.client)
        return;
    disconnect(last, timeout);
    d.stopSender();
    MQTTAsync_destroy(&d.client);
    d.client = nullptr;
}

void PahoMqttClient::disconnect(const std::vector<Message> &last, std::chrono::milliseconds timeout)
{
    Impl &d = *impl_;
    const Clock::time_point deadline = Clock::now() + timeout;
    // With the broker away there is nothing to deliver to; the will tells of our end.
    if (d.up) {
        for (const Message &m : last)
            publish(m, Outbox::Kind::Event);
        d.flush();
        const auto delivered = [&d] {
            std::lock_guard<std::mutex> lock(d.boxMu);
            return d.unsent.empty() && d.outbox.size() == 0 && d.inPaho == 0;
        };
        while (d.up && !delivered() && Clock::now() < deadline)
            std::this_thread::sleep_for(kStopPoll / 5);
        // A clean DISCONNECT: the broker drops the will instead of sending it.
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        MQTTAsync_disconnectOptions options = MQTTAsync_disconnectOptions_initializer5;
        options.timeout = int(std::max<long long>(left, kDisconnectMinMs));
        // Done when Paho says the DISCONNECT went out, so that a reconnect() after it
        // cannot overtake it.
        d.disconnected = false;
        options.onSuccess5 = [](void *context, MQTTAsync_successData5 *) {
            static_cast<Impl *>(context)->disconnected = true;
        };
        options.onFailure5 = [](void *context, MQTTAsync_failureData5 *) {
            static_cast<Impl *>(context)->disconnected = true;
        };
        options.context = &d;
        if (MQTTAsync_disconnect(d.client, &options) == MQTTASYNC_SUCCESS) {
            while (!d.disconnected && Clock::now() < deadline + std::chrono::milliseconds(kDisconnectMinMs))
                std::this_thread::sleep_for(kStopPoll / 5);
        }
    }
    d.up = false;
}

MqttClient::~MqttClient() = default;

std::unique_ptr<MqttClient> makeMqttClient(const MqttSettings &settings)
{
    return std::make_unique<PahoMqttClient>(settings);
}

} // namespace rtugw
