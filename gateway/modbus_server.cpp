#include "modbus_server.h"

#include <fcntl.h>
#include <linux/serial.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "config_server.h"
#include "rtuplc_host/address.h"
#include "rtuplc_host/log.h"

namespace rtugw {

namespace {

constexpr uint64_t kWakeKey = 0;
constexpr uint64_t kFirstConnection = 16; // keys below are the wake-up's and the listeners'
constexpr size_t kReadChunk = 16384;
// One master's bytes taken per turn, so that a flood from one does not hold up the others.
constexpr size_t kReadBudget = 65536;
// Replies a master has not read: beyond this its requests are no longer taken until it
// reads, and if it never does, it goes idle and is closed.
constexpr size_t kMaxUnread = 65536;
constexpr int kListenBacklog = 128;
constexpr int kMaxEvents = 64;
constexpr std::chrono::milliseconds kSerialRetry{1000};
constexpr std::chrono::milliseconds kMaxWait{500};
constexpr std::chrono::milliseconds kMinSweep{10};
constexpr std::chrono::milliseconds kDefaultMaxAge{1000};
constexpr size_t kBitsPerWord = 64;

std::string errnoText()
{
    return std::strerror(errno);
}

} // namespace

// A reply owed to a master, in the order its requests came: RTU has no transaction id,
// and a Modbus TCP master reading replies in order is the common case.
struct ModbusServer::Slot {
    uint64_t id = 0; // the line request it waits for; 0 once answered
    Head head;
    uint8_t function = 0;
    std::vector<uint8_t> bytes; // framed; empty: no answer (silence)
};

struct ModbusServer::Listener {
    const Transport *transport = nullptr;
    std::string where; // HOST:PORT, or the device
    int fd = -1;
    uint64_t key = 0;
    Clock::time_point retryAt{}; // serial: reopened after a failure
};

struct ModbusServer::Connection {
    uint64_t key = 0;
    int fd = -1;
    Listener *listener = nullptr;
    std::unique_ptr<Framing> framing;
    std::unique_ptr<Stream> stream;
    std::vector<uint8_t> out;
    size_t sent = 0;
    std::deque<Slot> slots;
    size_t open = 0; // slots waiting for the line
    Clock::time_point lastActivity{};
    uint32_t events = 0; // watched on epoll now
    bool registered = false;
    bool permanent = false; // the serial port: there is no one to close it on
    bool paused = false;    // not read from while its replies pile up
    bool held = false;      // holds bytes a timer or a later turn must judge
};

ModbusServer::ModbusServer(const ModbusServerConfig &config, const std::vector<int> &stations,
                           const rtusupport::SerialLine &serialLine)
    : config_(config), serialLine_(serialLine),
      maxAgeMs_(config.maxAgeMs > 0 ? config.maxAgeMs : kDefaultMaxAge.count()), nextConnection_(kFirstConnection)
{
    for (int s : stations)
        if (s > 0 && s < int(known_.size()))
            known_.set(size_t(s));
    context_.silence = rtusupport::silentInterval(serialLine);
    scratch_.resize(mb::kMaxPduBytes + 1);
}

ModbusServer::~ModbusServer()
{
    stop();
    if (context_.tls)
        freeTlsContext(context_.tls);
}

rtusupport::SerialLine serverSerialLine(const ModbusServerConfig &config, const rtusupport::SerialLine &line)
{
    rtusupport::SerialLine own = line;
    if (!config.settings.empty())
        rtusupport::parseSerialLine(config.settings, &own, nullptr); // checked when the file was read
    return own;
}

std::vector<std::string> listenerNames(const ModbusServerConfig &config, const rtusupport::SerialLine &serialLine)
{
    std::vector<std::string> out;
    const std::pair<const char *, const ModbusServerConfig::Listen *> tcp[] = {
        {kTcpTransport.name, &config.tcp},
        {kRtuOverTcpTransport.name, &config.rtuOverTcp},
        {kTlsTransport.name, &config.tls}};
    for (const auto &[name, l] : tcp)
        if (l->on)
            out.push_back(std::string(name) + " " + l->text);
    if (!config.serial.empty())
        out.push_back(std::string(kSerialTransport.name) + " " + config.serial + " " +
                      rtusupport::formatSerialLine(serialLine));
    return out;
}

int ModbusServer::boundPort(const char *transport) const
{
    for (const auto &l : listeners_) {
        sockaddr_storage a{};
        socklen_t n = sizeof a;
        if (std::strcmp(l->transport->name, transport) != 0 || l->fd < 0 ||
            getsockname(l->fd, reinterpret_cast<sockaddr *>(&a), &n) != 0)
            continue;
        return ntohs(a.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 *>(&a)->sin6_port
                                             : reinterpret_cast<sockaddr_in *>(&a)->sin_port);
    }
    return 0;
}

namespace {

int listenOn(const std::string &host, int port, std::string *why)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo *found = nullptr;
    const int rc = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (rc != 0) {
        *why = gai_strerror(rc);
        return -1;
    }
    int fd = -1;
    for (addrinfo *a = found; a && fd < 0; a = a->ai_next) {
        fd = ::socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0)
            continue;
        const int one = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        if (::bind(fd, a->ai_addr, a->ai_addrlen) != 0 || ::listen(fd, kListenBacklog) != 0) {
            *why = errnoText();
            ::close(fd);
            fd = -1;
        }
    }
    freeaddrinfo(found);
    return fd;
}

} // namespace

bool ModbusServer::start(std::string *error)
{
    if (config_.tls.on) {
        context_.tls = makeTlsContext(config_.cert, config_.key, config_.ca, error);
        if (!context_.tls)
            return false;
    }
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    wake_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (epoll_ < 0 || wake_ < 0) {
        *error = "modbus-server: " + errnoText();
        return false;
    }
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = kWakeKey;
    epoll_ctl(epoll_, EPOLL_CTL_ADD, wake_, &ev);
    const std::pair<const Transport *, const ModbusServerConfig::Listen *> tcp[] = {
        {&kTcpTransport, &config_.tcp}, {&kRtuOverTcpTransport, &config_.rtuOverTcp}, {&kTlsTransport, &config_.tls}};
    for (const auto &[transport, l] : tcp) {
        if (!l->on)
            continue;
        auto listener = std::make_unique<Listener>();
        listener->transport = transport;
        listener->where = l->text;
        listener->key = listeners_.size() + 1;
        std::string why;
        listener->fd = listenOn(l->host, l->port, &why);
        if (listener->fd < 0) {
            *error = "modbus-server." + std::string(transport->name) + ": cannot listen on " + l->text + ": " + why;
            return false;
        }
        ev.data.u64 = listener->key;
        epoll_ctl(epoll_, EPOLL_CTL_ADD, listener->fd, &ev);
        listeners_.push_back(std::move(listener));
    }
    if (!config_.serial.empty()) {
        auto listener = std::make_unique<Listener>();
        listener->transport = &kSerialTransport;
        listener->where = config_.serial;
        listener->key = listeners_.size() + 1;
        openSerial(*listener);
        if (listener->fd < 0)
            rtuhost::logWarning("modbus-server.serial: %s; retrying", errnoText().c_str());
        listeners_.push_back(std::move(listener));
    }
    thread_ = std::thread([this] { serve(); });
    return true;
}

void ModbusServer::stop()
{
    if (thread_.joinable()) {
        stopping_ = true;
        const uint64_t one = 1;
        (void)!::write(wake_, &one, sizeof one);
        thread_.join();
    }
    while (!connections_.empty())
        close(*connections_.begin()->second);
    for (auto &l : listeners_)
        if (l->fd >= 0 && l->transport->listens)
            ::close(l->fd);
    listeners_.clear();
    for (int *fd : {&epoll_, &wake_})
        if (*fd >= 0)
            ::close(std::exchange(*fd, -1));
}

void ModbusServer::openSerial(Listener &l)
{
    const int fd = ::open(config_.serial.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    std::string why;
    if (fd < 0)
        return;
    serial_rs485 rs485{};
    rs485.flags = SER_RS485_ENABLED | SER_RS485_RTS_ON_SEND;
    if (!rtusupport::configureTerminal(fd, serialLine_, &why) ||
        (config_.rs485 && ::ioctl(fd, TIOCSRS485, &rs485) != 0)) {
        ::close(fd);
        return;
    }
    tcflush(fd, TCIOFLUSH);
    l.fd = fd;
    adopt(l, fd).permanent = true;
}

ModbusServer::Connection &ModbusServer::adopt(Listener &l, int fd)
{
    auto c = std::make_unique<Connection>();
    c->key = nextConnection_++;
    c->fd = fd;
    c->listener = &l;
    c->framing = l.transport->framing(context_);
    c->stream = l.transport->stream(fd, context_);
    c->lastActivity = Clock::now();
    watch(*c);
    Connection &kept = *c;
    connections_.emplace(kept.key, std::move(c));
    return kept;
}

void ModbusServer::setOffline(const std::bitset<256> &offline)
{
    for (size_t w = 0; w < std::size(offline_); ++w) {
        uint64_t bits = 0;
        for (size_t b = 0; b < kBitsPerWord; ++b)
            bits |= uint64_t(offline[w * kBitsPerWord + b]) << b;
        offline_[w].store(bits, std::memory_order_relaxed);
    }
}

bool ModbusServer::offline(uint8_t station) const
{
    return offline_[station / kBitsPerWord].load(std::memory_order_relaxed) >> (station % kBitsPerWord) & 1;
}

void ModbusServer::setMaxAge(std::chrono::milliseconds age)
{
    if (config_.maxAgeMs == 0)
        maxAgeMs_ = std::min(age, kDefaultMaxAge).count();
}

bool ModbusServer::writable(uint8_t station, const mb::Request &r) const
{
    const int first = r.address, last = int(r.address) + r.quantity - 1;
    for (const ModbusServerConfig::Writable &w : config_.writable)
        if ((w.station == 0 || w.station == station) && w.coils == (r.table == mb::Table::Coils) && first >= w.first &&
            last <= w.last)
            return true;
    return false;
}

// ---------------------------------------------------------------------------------
// The loop thread's side.

bool ModbusServer::take(rtuhost::SharedRequest *request)
{
    if (stats_.queued.load(std::memory_order_relaxed) == 0)
        return false;
    const auto now = Clock::now();
    const std::lock_guard<std::mutex> hold(lineLock_);
    while (!waiting_.empty()) {
        Waiting &w = waiting_.front();
        // One that waited too long was answered 0B already: it costs the line nothing.
        const bool late = w.deadline <= now;
        if (!late) {
            request->id = w.id;
            request->frame = std::move(w.frame);
        }
        waiting_.pop_front();
        --stats_.queued;
        if (!late)
            return true;
    }
    return false;
}

void ModbusServer::answered(const rtuhost::SharedRequest &request, const rtuhost::Exchange &exchange,
                            std::chrono::microseconds lineTime)
{
    using Outcome = rtuhost::Exchange::Outcome;
    stats_.lineMicros += uint64_t(lineTime.count());
    const std::vector<uint8_t> &f = request.frame;
    mb::Request r;
    // A write nobody acknowledged may still have been carried out.
    if (exchange.outcome != Outcome::Reply && exchange.outcome != Outcome::Exception && f.size() > 3 &&
        mb::checkPdu(f.data() + 1, f.size() - 1 - rtuplc::kCrcBytes, &r) == 0 && r.write)
        cache_.forget(f[0], r.table, r.address, r.quantity);
    {
        const std::lock_guard<std::mutex> hold(lineLock_);
        answers_.push_back({request.id, exchange.outcome, exchange.reply});
    }
    const uint64_t one = 1;
    (void)!::write(wake_, &one, sizeof one);
}

void ModbusServer::heard(const uint8_t *request, size_t requestBytes, const uint8_t *reply, size_t replyBytes,
                         rtuhost::Clock::time_point at)
{
    if (config_.cache) // with the cache off, what the line carried is never asked for
        cache_.heard(request, requestBytes, reply, replyBytes, at);
}

// ---------------------------------------------------------------------------------
// The server's thread.

void ModbusServer::serve()
{
    epoll_event events[kMaxEvents];
    std::vector<uint64_t> again;
    while (!stopping_) {
        const int n = epoll_wait(epoll_, events, kMaxEvents, waitMs(Clock::now()));
        const auto now = Clock::now();
        for (int i = 0; i < n; ++i) {
            const uint64_t key = events[i].data.u64;
            if (key == kWakeKey) {
                uint64_t count;
                (void)!::read(wake_, &count, sizeof count);
                continue;
            }
            if (key < kFirstConnection) {
                accept(*listeners_[key - 1]);
                continue;
            }
            auto it = connections_.find(key);
            if (it == connections_.end())
                continue;
            Connection &c = *it->second;
            // A master that hung up while its replies piled up will never read them; a
            // serial device that hangs up (a pseudo-terminal's other side closed) is
            // opened again later.
            const bool gone = events[i].events & (EPOLLHUP | EPOLLERR);
            if (gone && (c.paused || c.permanent)) {
                stats_.dropped += c.permanent ? 0 : 1;
                close(c);
                continue;
            }
            if ((events[i].events & EPOLLOUT) && !flush(c))
                continue;
            if (events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR))
                readFrom(c, now);
        }
        takeAnswers();
        expire(now);
        // Bytes a timer must judge (an RTU frame ended by silence), a TLS record read
        // whole, or requests held while replies piled up.
        again.clear();
        for (const auto &[key, c] : connections_) {
            const auto d = c->held ? c->framing->deadline() : std::nullopt;
            if (c->held && (!d || *d <= now))
                again.push_back(key);
        }
        for (uint64_t key : again) {
            auto it = connections_.find(key);
            if (it != connections_.end())
                readFrom(*it->second, now);
        }
        if (now >= nextSweep_)
            sweep(now);
    }
}

int ModbusServer::waitMs(Clock::time_point now) const
{
    Clock::time_point next = std::min(nextSweep_, now + kMaxWait);
    if (!deadlines_.empty())
        next = std::min(next, deadlines_.front().first);
    for (const auto &[key, c] : connections_) {
        if (!c->held)
            continue;
        const auto d = c->framing->deadline();
        next = std::min(next, d ? *d : now); // held bytes without a deadline: at once
    }
    if (next <= now)
        return 0;
    return int(std::chrono::duration_cast<std::chrono::milliseconds>(next - now).count()) + 1;
}

void ModbusServer::accept(Listener &l)
{
    for (;;) {
        sockaddr_storage peer{};
        socklen_t len = sizeof peer;
        const int fd = ::accept4(l.fd, reinterpret_cast<sockaddr *>(&peer), &len, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            return;
        }
        // The next master beyond the limit, or one from a network not allowed, is closed
        // at once: it learns at connect, not by a time-out.
        if (stats_.masters.load() >= config_.maxConnections ||
            (!config_.allow.empty() && !inNetworks(config_.allow, reinterpret_cast<sockaddr *>(&peer)))) {
            ::close(fd);
            ++stats_.refused;
            continue;
        }
        const int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        ++stats_.masters;
        adopt(l, fd);
    }
}

void ModbusServer::readFrom(Connection &c, Clock::time_point now)
{
    uint8_t buffer[kReadChunk];
    size_t budget = kReadBudget;
    bool drained = false;
    c.held = false;
    for (;;) {
        Incoming in;
        bool more = true;
        while (more) {
            if (c.out.size() - c.sent > kMaxUnread) {
                c.paused = true;
                watch(c);
                return;
            }
            switch (c.framing->next(now, &in)) {
            case mb::Cut::Frame:
                c.lastActivity = now;
                handle(c, in, now);
                break;
            case mb::Cut::Bad:
                if (!c.permanent) {
                    ++stats_.dropped;
                    close(c);
                    return;
                }
                [[fallthrough]];
            case mb::Cut::NeedMore:
                more = false;
                break;
            }
        }
        if (budget == 0 || drained)
            break;
        const size_t asked = std::min(sizeof buffer, budget);
        const long got = c.stream->read(buffer, asked);
        if (got == Stream::kClosed) {
            close(c);
            return;
        }
        if (got == 0)
            break;
        budget -= size_t(got);
        c.framing->feed(buffer, size_t(got), now);
        // Less than asked: nothing more waits now (epoll tells when it does), and a
        // master sending one request at a time costs one read, not two.
        drained = size_t(got) < asked;
    }
    if (!flush(c))
        return;
    // Looked at again: when silence decides about the bytes held, or next turn for what
    // the reading budget or TLS left.
    c.held = c.framing->deadline().has_value() || c.stream->holdsInput() || budget == 0;
}

void ModbusServer::handle(Connection &c, const Incoming &in, Clock::time_point now)
{
    const uint8_t station = in.head.station;
    const uint8_t function = in.pduBytes > 0 ? in.pdu[0] : 0;
    ++stats_.requests[ModbusFigures::functionIndex(function)];
    if (!known_[station]) {
        if (c.framing->answersForAbsentStations())
            exception(c, in.head, function, mb::ex::kPathUnavailable);
        else
            ++stats_.unanswered; // on a line, a station that is not there says nothing
        return;
    }
    mb::Request r;
    if (const uint8_t code = mb::checkPdu(in.pdu, in.pduBytes, &r)) {
        exception(c, in.head, function, code);
        return;
    }
    if (r.write && !writable(station, r)) {
        exception(c, in.head, function, mb::ex::kIllegalAddress);
        return;
    }
    if (offline(station)) {
        exception(c, in.head, function, mb::ex::kTargetFailed);
        return;
    }
    if (!r.write && config_.cache) {
        const auto since = now - std::chrono::milliseconds(maxAgeMs_.load(std::memory_order_relaxed));
        uint8_t *pdu = scratch_.data();
        const size_t bytes = cache_.read(station, r.table, r.address, r.quantity, since, pdu + 2);
        if (bytes > 0) {
            pdu[0] = function;
            pdu[1] = uint8_t(bytes);
            ++stats_.fromCache;
            reply(c, in.head, pdu, bytes + 2);
            return;
        }
    }
    if (c.open >= size_t(config_.queue)) {
        exception(c, in.head, function, mb::ex::kBusy);
        return;
    }
    forward(c, in, !r.write, now);
}

void ModbusServer::reply(Connection &c, const Head &head, const uint8_t *pdu, size_t n)
{
    if (c.slots.empty()) {
        c.framing->wrap(head, pdu, n, c.out);
        return;
    }
    Slot s;
    s.head = head;
    c.framing->wrap(head, pdu, n, s.bytes);
    c.slots.push_back(std::move(s));
}

void ModbusServer::exception(Connection &c, const Head &head, uint8_t function, uint8_t code)
{
    const uint8_t pdu[] = {uint8_t(function | rtuplc::kExceptionFlag), code};
    ++stats_.exceptions[std::min<size_t>(code, ModbusServerStats::kExceptionCodes - 1)];
    reply(c, head, pdu, sizeof pdu);
}

void ModbusServer::forward(Connection &c, const Incoming &in, bool read, Clock::time_point now)
{
    const uint64_t id = nextRequest_++;
    const auto deadline = now + std::chrono::milliseconds(config_.requestTimeoutMs);
    Waiting w{id, c.key, deadline, {}};
    mb::appendRtu(w.frame, in.head.station, in.pdu, in.pduBytes);
    Slot s;
    s.id = id;
    s.head = in.head;
    s.function = in.pdu[0];
    c.slots.push_back(std::move(s));
    ++c.open;
    pending_.emplace(id, c.key);
    deadlines_.emplace_back(deadline, id);
    ++stats_.forwarded;
    if (read)
        ++stats_.forwardedReads;
    {
        const std::lock_guard<std::mutex> hold(lineLock_);
        waiting_.push_back(std::move(w));
        ++stats_.queued;
    }
}

// The line's answer, or exception `code` when pdu is null, goes to the slot waiting for
// request `id`, if its master is still there to take it.
void ModbusServer::settle(uint64_t id, const uint8_t *pdu, size_t n, uint8_t code)
{
    const auto p = pending_.find(id);
    if (p == pending_.end())
        return; // answered already (timed out), or its master left
    const auto it = connections_.find(p->second);
    pending_.erase(p);
    if (it == connections_.end())
        return;
    Connection &c = *it->second;
    for (Slot &s : c.slots) {
        if (s.id != id)
            continue;
        s.id = 0;
        --c.open;
        if (pdu) {
            c.framing->wrap(s.head, pdu, n, s.bytes);
        } else {
            const uint8_t ex[] = {uint8_t(s.function | rtuplc::kExceptionFlag), code};
            ++stats_.exceptions[code];
            c.framing->wrap(s.head, ex, sizeof ex, s.bytes);
        }
        break;
    }
    while (!c.slots.empty() && c.slots.front().id == 0) {
        const std::vector<uint8_t> &b = c.slots.front().bytes;
        c.out.insert(c.out.end(), b.begin(), b.end());
        c.slots.pop_front();
    }
    flush(c);
}

void ModbusServer::takeAnswers()
{
    using Outcome = rtuhost::Exchange::Outcome;
    std::vector<Answer> got;
    {
        const std::lock_guard<std::mutex> hold(lineLock_);
        if (answers_.empty())
            return;
        got.swap(answers_);
    }
    for (const Answer &a : got) {
        const bool spoke = a.outcome == Outcome::Reply || a.outcome == Outcome::Exception;
        if (spoke && a.reply.size() >= rtuplc::kExceptionReplyBytes) {
            ++stats_.lineAnswers;
            // The controller's answer as it came, in the master's framing.
            settle(a.id, a.reply.data() + 1, a.reply.size() - 1 - rtuplc::kCrcBytes, 0);
        } else {
            settle(a.id, nullptr, 0, mb::ex::kTargetFailed);
        }
    }
}

void ModbusServer::expire(Clock::time_point now)
{
    // Every request has the same time-out, so deadlines come in the order requests did.
    while (!deadlines_.empty() && deadlines_.front().first <= now) {
        const uint64_t id = deadlines_.front().second;
        deadlines_.pop_front();
        settle(id, nullptr, 0, mb::ex::kTargetFailed);
    }
}

void ModbusServer::sweep(Clock::time_point now)
{
    const auto idle = std::chrono::milliseconds(config_.idleTimeoutMs);
    nextSweep_ = now + std::clamp<std::chrono::milliseconds>(idle / 8, kMinSweep, kMaxWait);
    std::vector<Connection *> quiet;
    for (const auto &[key, c] : connections_) {
        // Idle: nothing whole sent, or its replies not read, for the idle time. One
        // waiting for the line is not idle; the request's time-out ends that wait.
        const bool waiting = c->open > 0 && c->sent == c->out.size();
        if (!c->permanent && !waiting && now - c->lastActivity > idle)
            quiet.push_back(c.get());
    }
    for (Connection *c : quiet) {
        ++stats_.dropped;
        close(*c);
    }
    for (auto &l : listeners_)
        if (!l->transport->listens && l->fd < 0 && now >= l->retryAt) {
            openSerial(*l);
            l->retryAt = now + kSerialRetry;
        }
}

bool ModbusServer::flush(Connection &c)
{
    while (c.sent < c.out.size()) {
        const long w = c.stream->write(c.out.data() + c.sent, c.out.size() - c.sent);
        if (w == Stream::kClosed) {
            close(c);
            return false;
        }
        if (w == 0)
            break;
        c.sent += size_t(w);
        c.lastActivity = Clock::now();
    }
    if (c.sent == c.out.size()) {
        c.out.clear();
        c.sent = 0;
    }
    if (c.paused && c.out.size() - c.sent <= kMaxUnread / 2) {
        c.paused = false;
        c.held = true; // requests it sent meanwhile wait in its framing
    }
    watch(c);
    return true;
}

void ModbusServer::watch(Connection &c)
{
    const uint32_t want = (c.paused ? 0u : uint32_t(EPOLLIN)) |
                          (c.sent < c.out.size() || c.stream->wantsWrite() ? uint32_t(EPOLLOUT) : 0u);
    if (c.registered && c.events == want)
        return;
    epoll_event ev{};
    ev.events = want;
    ev.data.u64 = c.key;
    epoll_ctl(epoll_, c.registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, c.fd, &ev);
    c.registered = true;
    c.events = want;
}

void ModbusServer::close(Connection &c)
{
    const uint64_t key = c.key;
    // Its requests waiting for the line go with it; one on the line is answered to nobody.
    for (const Slot &s : c.slots)
        if (s.id != 0)
            pending_.erase(s.id);
    if (c.open > 0) {
        const std::lock_guard<std::mutex> hold(lineLock_);
        const auto gone =
            std::remove_if(waiting_.begin(), waiting_.end(), [key](const Waiting &w) { return w.connection == key; });
        stats_.queued -= int64_t(waiting_.end() - gone);
        waiting_.erase(gone, waiting_.end());
    }
    if (epoll_ >= 0)
        epoll_ctl(epoll_, EPOLL_CTL_DEL, c.fd, nullptr);
    c.stream.reset(); // a TLS stream says goodbye on the socket before it closes
    ::close(c.fd);
    if (c.permanent) {
        c.listener->fd = -1;
        c.listener->retryAt = Clock::now() + kSerialRetry;
    } else {
        --stats_.masters;
    }
    connections_.erase(key);
}

} // namespace rtugw
