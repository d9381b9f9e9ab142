#include "rtuplc_host/link.h"

#include <fcntl.h>
#include <linux/serial.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "rtuplc_host/address.h"
#include "rtuplc_support/fd_io.h"

namespace rtuhost {

namespace {

constexpr std::chrono::milliseconds kConnectTimeout{3000};
constexpr std::chrono::milliseconds kSendTimeout{2000};
constexpr std::chrono::milliseconds kCopyWindow{20};
// Bytes that follow each other closer than this belong to one reply.
constexpr std::chrono::milliseconds kReplyGap{3};
// Added to twice the longest response seen for the quiet after a time-out: scheduling
// jitter of the slave and of this host.
constexpr std::chrono::milliseconds kQuietSlack{10};

std::string errnoText()
{
    return std::strerror(errno);
}

int msLeft(Clock::time_point until)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count();
    return static_cast<int>(std::max<int64_t>(0, left));
}

class TcpLink : public Link {
public:
    TcpLink(std::string host, int port) : host_(std::move(host)), port_(port) {}
    ~TcpLink() override
    {
        if (fd_ >= 0)
            ::close(fd_);
    }

    bool open(std::string *error) override { return ensureConnected(error); }
    std::string describe() const override { return "tcp " + formatHostPort(host_, port_); }

protected:
    bool ensureConnected(std::string *error) override
    {
        if (fd_ >= 0)
            return true;
        addrinfo hints{};
        hints.ai_family = AF_UNSPEC;
        hints.ai_socktype = SOCK_STREAM;
        addrinfo *found = nullptr;
        const std::string port = std::to_string(port_);
        if (getaddrinfo(host_.c_str(), port.c_str(), &hints, &found) != 0 || found == nullptr) {
            *error = "cannot connect to " + formatHostPort(host_, port_) + ": unknown host";
            return false;
        }
        std::string why = "no address";
        for (addrinfo *a = found; a != nullptr && fd_ < 0; a = a->ai_next) {
            const int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a->ai_protocol);
            if (fd < 0)
                continue;
            if (::connect(fd, a->ai_addr, a->ai_addrlen) != 0 && errno == EINPROGRESS) {
                pollfd p{fd, POLLOUT, 0};
                int soError = ETIMEDOUT;
                if (::poll(&p, 1, int(kConnectTimeout.count())) > 0) {
                    socklen_t len = sizeof soError;
                    getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &len);
                }
                errno = soError;
            }
            if (errno == 0 || errno == EISCONN) {
                const int one = 1;
                setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
                // Blocking from now on, every call that must not wait says so itself:
                // waiting for a reply is then one call, not a poll and a read.
                fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
                receiveTimeout_ = -1;
                fd_ = fd;
            } else {
                why = errnoText();
                ::close(fd);
            }
        }
        freeaddrinfo(found);
        if (fd_ < 0)
            *error = "cannot connect to " + formatHostPort(host_, port_) + ": " + why;
        return fd_ >= 0;
    }

    void closeOnFailure() override
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = -1;
    }

    ssize_t awaitBytes(uint8_t *buf, size_t size, int ms) override
    {
        if (ms <= 0)
            return readNow(buf, size);
        // The time-out is set only when it changes: polling at one pace, it never does.
        if (ms != receiveTimeout_) {
            const timeval tv{ms / 1000, (ms % 1000) * 1000};
            if (setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) != 0)
                return -1;
            receiveTimeout_ = ms;
        }
        const ssize_t n = ::recv(fd_, buf, size, 0);
        if (n < 0 && errno == EWOULDBLOCK)
            errno = EAGAIN;
        return n;
    }
    ssize_t readNow(uint8_t *buf, size_t size) override { return ::recv(fd_, buf, size, MSG_DONTWAIT); }

private:
    std::string host_;
    int port_;
    int receiveTimeout_ = -1; // ms, as last set on the socket
};

class SerialLink : public Link {
public:
    SerialLink(std::string device, const rtusupport::SerialLine &line, bool rs485)
        : device_(std::move(device)), line_(line), silence_(rtusupport::silentInterval(line)), rs485_(rs485)
    {
    }
    ~SerialLink() override
    {
        if (fd_ >= 0)
            ::close(fd_);
    }

    bool open(std::string *error) override
    {
        fd_ = ::open(device_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        if (fd_ < 0) {
            *error = "cannot open " + device_ + ": " + errnoText();
            return false;
        }
        std::string why;
        if (!rtusupport::configureTerminal(fd_, line_, &why)) {
            *error = device_ + ": " + why;
            ::close(fd_);
            fd_ = -1;
            return false;
        }
        if (rs485_ && !enableRs485(&why)) {
            *error = "cannot switch " + device_ + " to RS-485 mode: " + why;
            ::close(fd_);
            fd_ = -1;
            return false;
        }
        tcflush(fd_, TCIOFLUSH);
        return true;
    }

    std::string describe() const override { return "serial " + device_ + " " + rtusupport::formatSerialLine(line_); }

protected:
    bool ensureConnected(std::string *error) override { return fd_ >= 0 || open(error); }
    void closeOnFailure() override
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = -1;
    }
    void beforeSend() override
    {
        // Modbus frames are told apart by silence: keep the line quiet long enough.
        const auto quietUntil = lastActivity_ + silence_;
        if (Clock::now() < quietUntil)
            std::this_thread::sleep_until(quietUntil);
    }
    void afterExchange() override { lastActivity_ = Clock::now(); }
    std::chrono::microseconds silence() const override { return silence_; }

private:
    // The kernel keys the transmitter with RTS for each frame, and releases the line
    // for the reply as soon as the last character is out.
    bool enableRs485(std::string *why)
    {
        serial_rs485 conf{};
        conf.flags = SER_RS485_ENABLED | SER_RS485_RTS_ON_SEND;
        if (::ioctl(fd_, TIOCSRS485, &conf) == 0)
            return true;
        *why = errnoText();
        return false;
    }

    std::string device_;
    rtusupport::SerialLine line_;
    std::chrono::microseconds silence_;
    bool rs485_;
    Clock::time_point lastActivity_{};
};

} // namespace

Link::~Link() = default;

bool Link::reconnect(std::string *error)
{
    if (fd_ >= 0)
        return true;
    // A line that is down is tried again after a growing pause, not at every request:
    // the requests fail at once meanwhile, so their stations show offline.
    const auto now = Clock::now();
    if (now < nextAttempt_) {
        *error = lastError_;
        return false;
    }
    if (ensureConnected(error)) {
        backoff_ = kFirstBackoff;
        return true;
    }
    lastError_ = *error;
    nextAttempt_ = now + backoff_;
    backoff_ = std::min(backoff_ * 2, std::chrono::milliseconds(kMaxBackoff));
    return false;
}

void Link::setTiming(std::chrono::microseconds margin, std::chrono::milliseconds pause)
{
    margin_ = margin;
    pause_ = pause;
}

std::chrono::microseconds Link::guard() const
{
    // A slave that answers late usually holds the requests sent meanwhile and answers
    // them as late: leave room for twice the longest response seen.
    const auto g = margin_ + 2 * std::max(maxResponse_, maxAmbiguous_);
    return std::clamp<std::chrono::microseconds>(g, std::max(silence(), std::chrono::microseconds(1000)), kMaxGuard);
}

ssize_t Link::awaitBytes(uint8_t *buf, size_t size, int ms)
{
    pollfd p{fd_, POLLIN, 0};
    const int ready = ::poll(&p, 1, ms);
    if (ready == 0)
        errno = EAGAIN;
    return ready > 0 ? readNow(buf, size) : -1;
}

ssize_t Link::readNow(uint8_t *buf, size_t size)
{
    return ::read(fd_, buf, size);
}

bool Link::drain(bool late)
{
    uint8_t buf[512];
    for (;;) {
        const ssize_t n = readNow(buf, sizeof buf);
        if (n > 0) {
            matcher_.discard(buf, size_t(n), late);
            continue;
        }
        return !(n == 0 || (errno != EAGAIN && errno != EINTR && errno != EIO));
    }
}

void Link::responded(Clock::time_point sentAt, Clock::time_point at, bool ambiguous)
{
    auto &longest = ambiguous ? maxAmbiguous_ : maxResponse_;
    const auto took = std::chrono::duration_cast<std::chrono::microseconds>(at - sentAt);
    longest = std::min<std::chrono::microseconds>(std::max(longest, took), kMaxGuard);
}

void Link::lateBy(Clock::time_point now, Clock::time_point deadline)
{
    ++stats_.lateReplies;
    stats_.maxLateness =
        std::max(stats_.maxLateness, std::chrono::duration_cast<std::chrono::microseconds>(now - deadline));
}

void Link::took(const std::vector<uint8_t> &frame, Clock::time_point now, bool sentNow)
{
    lastTaken_ = now;
    lastTakenFrame_ = frame;
    // A slave answers in order: the answer goes to the oldest identical send still
    // owed. If that is not the one just sent, the answer to this one may still come.
    const auto same = [&](const Owed &o) { return o.frame == frame; };
    const auto oldest = std::find_if(owed_.begin(), owed_.end(), same);
    if (oldest == owed_.end())
        return;
    const auto newest = std::find_if(owed_.rbegin(), owed_.rend(), same);
    if (!sentNow) {
        // Nothing was sent since: a late answer for certain. Sends whose request was
        // lost are never answered, so measure from the latest one.
        lateBy(now, newest->deadline);
        responded(newest->sentAt, now, false);
    } else {
        // Just sent: the answer to this send or a late one to an identical send
        // before it; the guard takes the longer response time, and it is not
        // reported as late.
        responded(oldest->sentAt, now, oldest != std::prev(newest.base()));
    }
    owed_.erase(oldest);
}

void Link::collect(Exchange &x)
{
    for (Dropped &d : matcher_.takeDropped()) {
        ++stats_.dropped[int(d.reason)];
        x.dropped.push_back(std::move(d));
    }
}

bool Link::keepQuiet(const FRAME_PRO &frame, Exchange &x, const std::atomic<bool> &stop)
{
    const std::vector<uint8_t> bytes(frame.frame, frame.frame + frame.frameLen);
    const bool retry = std::all_of(owed_.begin(), owed_.end(), [&](const Owed &o) { return o.frame == bytes; });
    const Clock::time_point newestSend = owed_.back().sentAt;
    const Clock::time_point newestDeadline = owed_.back().deadline;
    matcher_.expect(frame);
    const auto started = Clock::now();
    // Sized by what the line has shown: a slave answers within its longest response
    // seen, late ones included, so once answers have been timed the quiet lasts twice
    // that; the whole margin only while no answer has been seen at all. A station that
    // is simply gone then costs its time-out, not a worst case on top of it.
    const auto longest = std::max(maxResponse_, maxAmbiguous_);
    const auto shown = longest.count() > 0 ? std::min<std::chrono::microseconds>(margin_, 2 * longest + kQuietSlack)
                                           : std::chrono::microseconds(margin_);
    const auto minQuiet = std::max<std::chrono::microseconds>(shown, silence());
    // Before the same request again, wait as long as this slave has been seen to
    // answer: a late answer to it is an answer to it, and taking it spares a send
    // whose answer would be owed. Before another request every send still owed must
    // have had time to be answered, or its answer might be taken for this request's.
    const auto horizon = [&] {
        return retry ? std::min(newestDeadline + minQuiet + maxResponse_, started + kMaxGuard)
                     : std::min(newestSend + guard(), started + kMaxGuard);
    };
    auto quietUntil = std::max(started + minQuiet, horizon());
    auto lastRead = started - 2 * kReplyGap;
    while (!stop) {
        if (Clock::now() >= quietUntil)
            break;
        uint8_t buf[512];
        const ssize_t n = awaitBytes(buf, sizeof buf, std::min(msLeft(quietUntil) + 1, 100));
        if (n <= 0) {
            if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
                closeOnFailure();
                break;
            }
            continue;
        }
        const auto at = Clock::now();
        if (retry) {
            matcher_.feed(buf, size_t(n)); // an answer to this very request, sent before
            if (matcher_.answered()) {
                took(bytes, at, false);
                x.reply = matcher_.reply();
                x.outcome = matcher_.verdict() == rtuplc::MatchVerdict::Reply ? Exchange::Outcome::Reply
                                                                              : Exchange::Outcome::Exception;
                stats_.guardTotal += std::chrono::duration_cast<std::chrono::microseconds>(at - started);
                return true;
            }
        } else {
            matcher_.discard(buf, size_t(n), true);
            if (at - lastRead > kReplyGap) { // the first bytes of another late reply
                lateBy(at, owed_.empty() ? newestDeadline : owed_.front().deadline);
                responded(newestSend, at, false);
                if (!owed_.empty())
                    owed_.pop_front();
            }
        }
        lastRead = at;
        quietUntil = std::max(at + minQuiet, horizon());
    }
    matcher_.finish(true);
    stats_.guardTotal += std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - started);
    if (!retry)
        owed_.clear(); // given time enough: those answers are lost
    return false;
}

Exchange Link::exchange(const FRAME_PRO &frame, std::chrono::microseconds timeout, const std::atomic<bool> &stop)
{
    Exchange x;
    const size_t n = size_t(std::max(0, frame.frameLen));
    if (pause_.count() > 0 && lastEnd_ != Clock::time_point{})
        std::this_thread::sleep_until(lastEnd_ + pause_);
    beforeSend();
    if (fd_ >= 0 && !owed_.empty() && keepQuiet(frame, x, stop)) {
        afterExchange();
        collect(x);
        lastEnd_ = Clock::now();
        return x;
    }
    if (stop)
        return x; // interrupted while keeping quiet: nothing is sent
    // After the silence: whatever came during it is stale too.
    if (fd_ >= 0 && !drain(false))
        closeOnFailure(); // the peer closed: reconnect before sending
    collect(x);
    if (!reconnect(&x.detail)) {
        x.outcome = Exchange::Outcome::LinkDown;
        return x;
    }
    if (!rtusupport::writeAll(fd_, frame.frame, n, kSendTimeout)) {
        x.outcome = Exchange::Outcome::LinkDown;
        x.detail = "cannot send: " + errnoText();
        closeOnFailure();
        return x;
    }
    x.sent = true;
    const auto sentAt = Clock::now();
    const auto until = sentAt + timeout;
    matcher_.expect(frame);
    const bool expectsReply = frame.replyLen > 0;
    const std::vector<uint8_t> bytes(frame.frame, frame.frame + n);
    if (expectsReply)
        owed_.push_back(Owed{bytes, sentAt, until});
    while (expectsReply && !matcher_.answered() && !stop) {
        uint8_t buf[512];
        const ssize_t r = awaitBytes(buf, sizeof buf, std::min(msLeft(until), 100));
        if (r > 0) {
            x.bytesSeen += size_t(r);
            // A slave that answers twice sends the copy right after the reply: later
            // than the transmission of a reply plus this slack it is an answer. To
            // the same request sent again, a copy carries the very values asked for,
            // so it is no copy to skip: a single block polled flat out gets identical
            // replies back to back.
            const bool copyPossible = bytes != lastTakenFrame_ &&
                                      Clock::now() - lastTaken_ < (timeout - margin_) + kCopyWindow;
            matcher_.feed(buf, size_t(r), copyPossible);
        } else if (r == 0 || (errno != EAGAIN && errno != EINTR)) {
            x.detail = r == 0 ? "the connection was closed" : errnoText();
            closeOnFailure();
            break;
        } else if (Clock::now() >= until) {
            break;
        }
    }
    afterExchange();
    if (matcher_.answered()) {
        took(bytes, Clock::now(), true);
        x.reply = matcher_.reply();
        x.outcome = matcher_.verdict() == rtuplc::MatchVerdict::Reply ? Exchange::Outcome::Reply
                                                                      : Exchange::Outcome::Exception;
    } else {
        matcher_.finish(false);
        x.outcome = Exchange::Outcome::NoReply; // the driver takes nothing as a time-out
    }
    collect(x);
    if (!expectsReply)
        beforeSend(); // a frame nobody answers still owes the line its silence
    lastEnd_ = Clock::now();
    return x;
}

std::unique_ptr<Link> makeTcpLink(const std::string &host, int port)
{
    return std::make_unique<TcpLink>(host, port);
}

std::unique_ptr<Link> makeSerialLink(const std::string &device, const rtusupport::SerialLine &line, bool rs485)
{
    return std::make_unique<SerialLink>(device, line, rs485);
}

} // namespace rtuhost
