#include "link.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "rtuplc_support/fd_io.h"
#include "rtuplc_support/modbus.h"

namespace rtupoll {

namespace {

constexpr std::chrono::milliseconds kConnectTimeout{3000};
constexpr std::chrono::milliseconds kSendTimeout{2000};

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
    std::string describe() const override { return "tcp " + host_ + ":" + std::to_string(port_); }

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
            *error = "cannot connect to " + host_ + ":" + port + ": unknown host";
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
                fd_ = fd;
            } else {
                why = errnoText();
                ::close(fd);
            }
        }
        freeaddrinfo(found);
        if (fd_ < 0)
            *error = "cannot connect to " + host_ + ":" + port + ": " + why;
        return fd_ >= 0;
    }

    void discardInput() override
    {
        // A late reply to an earlier request must not pass for this one's.
        uint8_t buf[512];
        for (;;) {
            const ssize_t n = ::recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
            if (n > 0)
                continue;
            if (n == 0) // the peer closed: reconnect before sending
                closeOnFailure();
            return;
        }
    }

    void closeOnFailure() override
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = -1;
    }

private:
    std::string host_;
    int port_;
};

class SerialLink : public Link {
public:
    SerialLink(std::string device, const rtusim::SerialLine &line)
        : device_(std::move(device)), line_(line), silence_(rtusim::silentInterval(line))
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
        if (!rtusim::configureTerminal(fd_, line_, &why)) {
            *error = device_ + ": " + why;
            ::close(fd_);
            fd_ = -1;
            return false;
        }
        tcflush(fd_, TCIOFLUSH);
        return true;
    }

    std::string describe() const override { return "serial " + device_ + " " + rtusim::formatSerialLine(line_); }

protected:
    bool ensureConnected(std::string *error) override
    {
        if (fd_ < 0)
            *error = device_ + " is not open";
        return fd_ >= 0;
    }
    void discardInput() override { tcflush(fd_, TCIFLUSH); }
    void beforeSend() override
    {
        // Modbus frames are told apart by silence: keep the line quiet long enough.
        const auto quietUntil = lastActivity_ + silence_;
        if (Clock::now() < quietUntil)
            std::this_thread::sleep_until(quietUntil);
    }
    void afterExchange() override { lastActivity_ = Clock::now(); }

private:
    std::string device_;
    rtusim::SerialLine line_;
    std::chrono::microseconds silence_;
    Clock::time_point lastActivity_{};
};

} // namespace

Link::~Link() = default;

Exchange Link::exchange(const uint8_t *frame, size_t n, size_t replyLen, std::chrono::microseconds timeout,
                        const std::atomic<bool> &stop)
{
    Exchange x;
    beforeSend();
    if (fd_ >= 0)
        discardInput(); // after the silence: whatever came during it is stale too
    if (!ensureConnected(&x.detail)) {
        x.outcome = Exchange::Outcome::LinkDown;
        return x;
    }
    if (!rtusim::writeAll(fd_, frame, n, kSendTimeout)) {
        x.outcome = Exchange::Outcome::LinkDown;
        x.detail = "cannot send: " + errnoText();
        closeOnFailure();
        return x;
    }
    std::vector<uint8_t> got;
    const auto until = Clock::now() + timeout;
    while (got.size() < replyLen && !stop) {
        pollfd p{fd_, POLLIN, 0};
        const int ready = ::poll(&p, 1, std::min(msLeft(until), 100));
        if (ready > 0) {
            uint8_t buf[512];
            const ssize_t r = ::read(fd_, buf, std::min(sizeof buf, replyLen - got.size()));
            if (r > 0) {
                got.insert(got.end(), buf, buf + r);
                if (rtusim::isExceptionReply(got.data(), got.size())) {
                    got.resize(rtusim::kExceptionReplyBytes); // no need to wait for the rest
                    x.outcome = Exchange::Outcome::Exception;
                    break;
                }
            } else if (r == 0 || (errno != EAGAIN && errno != EINTR)) {
                x.detail = r == 0 ? "the connection was closed" : errnoText();
                closeOnFailure();
                break;
            }
        } else if (Clock::now() >= until) {
            break;
        }
    }
    afterExchange();
    x.bytesSeen = got.size();
    if (x.outcome == Exchange::Outcome::Exception) {
        x.reply = got;
    } else if (replyLen > 0 && got.size() == replyLen) {
        x.outcome = Exchange::Outcome::Reply;
        x.reply = got;
    } else {
        x.outcome = Exchange::Outcome::NoReply; // the driver takes nothing as a time-out
    }
    if (replyLen == 0)
        beforeSend(); // a frame nobody answers still owes the line its silence
    return x;
}

std::unique_ptr<Link> makeTcpLink(const std::string &host, int port)
{
    return std::make_unique<TcpLink>(host, port);
}

std::unique_ptr<Link> makeSerialLink(const std::string &device, const rtusim::SerialLine &line)
{
    return std::make_unique<SerialLink>(device, line);
}

} // namespace rtupoll
