// The line to the controller: a serial device or a TCP connection carrying RTU frames.
// It transmits one request and collects exactly the reply the driver expects, or an
// exception reply as soon as one is complete, or nothing by the deadline.
#ifndef RTUPLC_POLL_LINK_H
#define RTUPLC_POLL_LINK_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "rtuplc_support/serial_line.h"

namespace rtupoll {

using Clock = std::chrono::steady_clock;

struct Exchange {
    enum class Outcome {
        Reply,     // replyLen bytes arrived (the driver judges them)
        Exception, // a complete exception reply arrived
        NoReply,   // none expected, or none (or too little) came by the deadline
        LinkDown,  // the frame could not be sent
    };
    Outcome outcome = Outcome::NoReply;
    std::vector<uint8_t> reply; // what goes to the driver: empty unless Reply or Exception
    size_t bytesSeen = 0;       // bytes received, also when too few
    std::string detail;         // why the link is down
};

class Link {
public:
    virtual ~Link();
    virtual bool open(std::string *error) = 0;
    virtual std::string describe() const = 0;

    // Sends `frame` and waits for `replyLen` bytes until `timeout` has passed; stops
    // early (NoReply) when `stop` becomes true.
    Exchange exchange(const uint8_t *frame, size_t n, size_t replyLen, std::chrono::microseconds timeout,
                      const std::atomic<bool> &stop);

protected:
    virtual void discardInput() = 0;
    virtual bool ensureConnected(std::string *error) = 0;
    virtual void beforeSend() {}
    virtual void afterExchange() {}
    virtual void closeOnFailure() {}

    int fd_ = -1;
};

// RTU frames over TCP, to a gateway or the simulator; reconnects when the peer drops.
std::unique_ptr<Link> makeTcpLink(const std::string &host, int port);
// A serial device (or pseudo-terminal); keeps the silent interval between frames.
std::unique_ptr<Link> makeSerialLink(const std::string &device, const rtusim::SerialLine &line);

} // namespace rtupoll

#endif
