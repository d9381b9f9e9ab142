// The line shared with other masters. A serial line has one master, the host; other
// masters (a panel, a SCADA, an engineer's tool) reach the controllers through it. Their
// requests wait here and the host puts them on the line between its own, as they came,
// in turn with its polling; and the host tells what every accepted reply said, its own
// and theirs, so that reads can be answered from what the line already carried.
//
// take() and answered() and heard() are called on the thread that runs the host's loop;
// an implementation that feeds them from elsewhere guards its own state.
#ifndef RTUPLC_HOST_LINE_SHARE_H
#define RTUPLC_HOST_LINE_SHARE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "link.h"

namespace rtuhost {

// A request from another master: an RTU frame (station, function, the rest, CRC).
struct SharedRequest {
    uint64_t id = 0; // the share's own, to match the answer to whoever asked
    std::vector<uint8_t> frame;
};

class LineShare {
public:
    virtual ~LineShare();
    // The oldest request waiting, taken off the queue; false when none waits. Asked only
    // when the line is free and the host's own polling has had its share of the time.
    virtual bool take(SharedRequest *request) = 0;
    // What the line answered: Exchange::Outcome::Reply (reply holds the controller's
    // reply, CRC checked), Exception (reply holds it), NoReply (silence after the
    // request's one attempt, or a broadcast), LinkDown. `lineTime` is what it cost.
    virtual void answered(const SharedRequest &request, const Exchange &exchange,
                          std::chrono::microseconds lineTime) = 0;
    // A reply the controller sent to a request was accepted, this host's own or another
    // master's: reads carry the values it sent, an acknowledged write says those
    // addresses now hold something else. `at` is when the reply came.
    virtual void heard(const uint8_t *request, size_t requestBytes, const uint8_t *reply, size_t replyBytes,
                       Clock::time_point at) = 0;
};

} // namespace rtuhost

#endif
