// The line to the controller: a serial device or a TCP connection carrying RTU frames.
// It transmits one request and hands back only bytes that answer it: the reply the
// frame expects, or an exception to it as soon as one is complete, or nothing by the
// deadline. Everything else on the line (late, doubled, foreign or malformed replies)
// is dropped and counted. After a time-out it keeps the line quiet for a guard time
// before the next frame, so that a late reply is never taken for another request's.
#ifndef RTUPLC_HOST_LINK_H
#define RTUPLC_HOST_LINK_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include <sys/types.h>
#include <vector>

#include "rtuplc_link.h"
#include "rtuplc_support/serial_line.h"

namespace rtuhost {

using Clock = std::chrono::steady_clock;
using Dropped = rtuplc::ReplyMatcher::Dropped;
using DropReason = rtuplc::ReplyMatcher::Reason;

struct Exchange {
    enum class Outcome {
        Reply,     // a reply answering the frame arrived (the driver judges it)
        Exception, // a complete exception reply to the frame arrived
        NoReply,   // none expected, or none came by the deadline
        LinkDown,  // the frame could not be sent
    };
    Outcome outcome = Outcome::NoReply;
    std::vector<uint8_t> reply;   // what goes to the driver: empty unless Reply or Exception
    size_t bytesSeen = 0;         // bytes received while waiting, answer or not
    bool sent = false;            // false: a late answer to the same frame sent before was taken
    std::string detail;           // why the link is down
    std::vector<Dropped> dropped; // bytes dropped before and during the exchange
};

// What the line did besides answering.
struct LineStats {
    uint64_t dropped[4] = {}; // by DropReason: late, doubled, foreign, malformed
    uint64_t lateReplies = 0; // replies seen after their time-out (dropped or used for a retry)
    std::chrono::microseconds maxLateness{0};
    std::chrono::microseconds guardTotal{0}; // time spent keeping the line quiet
};

class Link {
public:
    virtual ~Link();
    virtual bool open(std::string *error) = 0;
    virtual std::string describe() const = 0;

    // The turnaround margin the guard after a time-out starts from, and a pause kept
    // between the end of one exchange and the next frame.
    void setTiming(std::chrono::microseconds margin, std::chrono::milliseconds pause);
    // How long after the newest send still owed the line must have been quiet before
    // another request goes out: the margin plus twice the longest response seen, at
    // least the silent interval, at most kMaxGuard.
    std::chrono::microseconds guard() const;
    static constexpr std::chrono::seconds kMaxGuard{10};
    // A lost line is reopened after kFirstBackoff, then after pauses doubling up to kMaxBackoff.
    static constexpr std::chrono::milliseconds kFirstBackoff{250};
    static constexpr std::chrono::seconds kMaxBackoff{10};

    // Sends `frame` and waits for its answer until `timeout` has passed; stops early
    // (NoReply) when `stop` becomes true.
    Exchange exchange(const FRAME_PRO &frame, std::chrono::microseconds timeout, const std::atomic<bool> &stop);
    const LineStats &stats() const { return stats_; }

protected:
    virtual bool ensureConnected(std::string *error) = 0;
    virtual void beforeSend() {}
    virtual void afterExchange() {}
    virtual void closeOnFailure() {}
    virtual std::chrono::microseconds silence() const { return std::chrono::microseconds(0); }
    // Reads what has come, waiting up to `ms` for the first byte: > 0 the bytes read, 0
    // the peer closed, -1 with errno (EAGAIN: nothing came in time). A wait and a read.
    virtual ssize_t awaitBytes(uint8_t *buf, size_t size, int ms);
    // Reads what is waiting without blocking.
    virtual ssize_t readNow(uint8_t *buf, size_t size);

    int fd_ = -1;

private:
    bool reconnect(std::string *error);

    struct Owed {
        std::vector<uint8_t> frame;
        Clock::time_point sentAt, deadline;
    };
    // Reads what is waiting without blocking; false when the peer closed.
    bool drain(bool late);
    // Keeps the line quiet for the guard; true when, meanwhile, a late answer to an
    // identical frame sent before arrived and was taken for this one.
    bool keepQuiet(const FRAME_PRO &frame, Exchange &x, const std::atomic<bool> &stop);
    void took(const std::vector<uint8_t> &frame, Clock::time_point now, bool sentNow);
    void lateBy(Clock::time_point now, Clock::time_point deadline);
    void responded(Clock::time_point sentAt, Clock::time_point at, bool ambiguous);
    void collect(Exchange &x);

    rtuplc::ReplyMatcher matcher_;
    std::deque<Owed> owed_; // sends whose answer has not been seen: the guard is due
    std::chrono::microseconds margin_{500000};
    std::chrono::milliseconds pause_{0};
    std::chrono::microseconds maxResponse_{0};  // longest time from a send to its answer
    std::chrono::microseconds maxAmbiguous_{0}; // the same, had an answer taken by a re-send
                                                // been the late one to the send before
    Clock::time_point lastEnd_{};
    Clock::time_point lastTaken_{};       // when the last answer was taken
    std::vector<uint8_t> lastTakenFrame_; // the request it answered
    LineStats stats_;
    Clock::time_point nextAttempt_{};
    std::chrono::milliseconds backoff_{kFirstBackoff};
    std::string lastError_;
};

// RTU frames over TCP, to a gateway or the simulator; reconnects when the peer drops.
std::unique_ptr<Link> makeTcpLink(const std::string &host, int port);
// A serial device (or pseudo-terminal); keeps the silent interval between frames.
// With rs485 the kernel's RS-485 mode keys the transmitter. Reopened when lost.
std::unique_ptr<Link> makeSerialLink(const std::string &device, const rtusupport::SerialLine &line, bool rs485 = false);

} // namespace rtuhost

#endif
