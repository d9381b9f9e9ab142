#include "mqtt_paho.h"

#include "mqtt_diagnosis.h"
#include "mqtt_sender.h"

#include <MQTTAsync.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <netdb.h>
#include <poll.h>
#include <string_view>
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
// How long a failed attempt's cause is looked for with a plain TCP connect.
constexpr int kProbeTimeoutMs = 1500;
constexpr int kSubscribeQos = 1;
constexpr auto kStopPoll = std::chrono::milliseconds(5);
// Paho needs a moment to send the DISCONNECT itself, even when nothing is in flight.
constexpr int kDisconnectMinMs = 100;

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
    return error == 0 ? std::string() : errnoText(error);
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
          sender(settings.buffer, up, [this](const Message &m) { return send(m); }, [this] { return pahoPending(); })
    {
    }

    const MqttSettings s;
    const std::string where; // HOST:PORT, for messages
    MQTTAsync client = nullptr;
    std::atomic<bool> up{false};
    MqttSender sender;
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
    Handshake handshake;     // how far the current attempt's TLS handshake got
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
    long pahoPending();
    void event(MqttEvent e)
    {
        events.push_back(std::move(e)); // under mu
    }
    void failed(const std::string &text); // under mu
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
    options.maxInflight = int(MqttSender::kMaxInflight);
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
        failed("cannot start connecting to the broker at " + where + ": " + MQTTAsync_strerror(rc));
    }
}

void PahoMqttClient::Impl::failed(const std::string &text)
{
    attempting = false;
    nextAttempt = Clock::now() + backoff;
    backoff = std::min<Clock::duration>(backoff * 2, kLongestRetry);
    if (text != lastFailure)
        event(MqttEvent{MqttEvent::Type::Failed, false, text});
    lastFailure = text;
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

// Called by the sender thread, which counts the message in flight before.
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
    const int rc = MQTTAsync_sendMessage(client, m.topic.c_str(), &message, &options);
    MQTTProperties_free(&message.properties);
    return rc == MQTTASYNC_SUCCESS;
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
    ConnectFailure f;
    f.host = s.host;
    f.port = s.port;
    f.tls = s.tls;
    f.ca = s.ca;
    f.cert = s.cert;
    f.username = s.username;
    f.clientId = s.clientId;
    // A refused CONNACK arrives as its reason code in `code`; some versions put it in
    // reasonCode instead.
    f.reason = data && data->reasonCode >= 0x80 ? int(data->reasonCode) : data ? data->code : 0;
    {
        std::lock_guard<std::mutex> lock(mu);
        f.tlsDetail = tlsDetail;
        f.handshake = handshake;
    }
    return connectFailureText(f, [this] { return probeTcp(s.host, s.port); });
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
    std::lock_guard<std::mutex> lock(self->mu);
    noteTrace(message, &self->handshake);
}

void PahoMqttClient::Impl::onConnected(void *context, MQTTAsync_successData5 *data)
{
    Impl *self = static_cast<Impl *>(context);
    self->traceHandshake(false);
    MQTTProperty *receiveMaximum =
        data ? MQTTProperties_getProperty(&data->properties, MQTTPROPERTY_CODE_RECEIVE_MAXIMUM) : nullptr;
    self->sender.connected(receiveMaximum ? long(receiveMaximum->value.integer2) : 0, self->s.birth);
    // Up first: a filter the loop adds meanwhile is then subscribed by subscribe() itself.
    self->up = true;
    self->subscribeAll();
    std::lock_guard<std::mutex> lock(self->mu);
    self->attempting = false;
    self->backoff = kFirstRetry;
    self->lastFailure.clear();
    self->dropCause.clear();
    self->event(MqttEvent{MqttEvent::Type::Connected, data && data->alt.connect.sessionPresent != 0, {}});
    self->sender.wake(); // what is held goes now
}

void PahoMqttClient::Impl::onConnectFailed(void *context, MQTTAsync_failureData5 *data)
{
    Impl *self = static_cast<Impl *>(context);
    const std::string text = self->failureText(data);
    self->traceHandshake(false);
    std::lock_guard<std::mutex> lock(self->mu);
    self->failed(text);
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
    const std::string why = disconnectText(reason);
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
    static_cast<Impl *>(context)->sender.done(true);
}

void PahoMqttClient::Impl::onNotSent(void *context, MQTTAsync_failureData5 *)
{
    static_cast<Impl *>(context)->sender.done(false);
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
    impl_->sender.stop();
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
                *error = "cannot read " + *file + ": " + errnoText(errno);
                return false;
            }
        }
    }
    if (!d.create(error))
        return false;
    d.sender.start();
    d.connect();
    return true;
}

void PahoMqttClient::setWillProvider(std::function<Message()> provider)
{
    impl_->willProvider = std::move(provider);
}

void PahoMqttClient::setFormatter(ValueFormatter formatter)
{
    impl_->sender.setFormatter(std::move(formatter));
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
    impl_->sender.publish(std::move(m), kind);
}

void PahoMqttClient::publishValue(ValueUpdate v)
{
    impl_->sender.publishValue(std::move(v));
}

void PahoMqttClient::pump()
{
    Impl &d = *impl_;
    if (!d.client)
        return;
    d.sender.flush();
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
    MqttSender &sender = impl_->sender;
    MqttStats st;
    st.published = sender.published();
    st.held = sender.held();
    st.dropped = sender.dropped();
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
    d.sender.stop();
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
        d.sender.flush();
        while (d.up && !d.sender.idle() && Clock::now() < deadline)
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

} // namespace rtugw
