// Cuts the byte stream a slave receives into RTU request frames.
//
// On a real line the end of a frame is a silence; over TCP or a pseudo-terminal
// timing says little, so the length is taken from the request itself where the
// function code tells it, and silence ends only frames of functions this slave
// does not know (they still deserve an "illegal function" reply).
#ifndef RTUPLC_SIM_FRAMER_H
#define RTUPLC_SIM_FRAMER_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

namespace rtusim {

class RtuFramer {
public:
    using Clock = std::chrono::steady_clock;

    explicit RtuFramer(std::chrono::microseconds silence) : silence_(silence) {}

    void feed(const uint8_t *bytes, size_t n, Clock::time_point now);

    // The next complete frame with a valid CRC, if there is one by `now`. Bytes that
    // cannot form one (a bad CRC, a fragment followed by silence) are discarded and
    // counted.
    std::optional<std::vector<uint8_t>> next(Clock::time_point now);

    // When silence will decide about the bytes held, if any are held.
    std::optional<Clock::time_point> deadline() const;

    uint64_t discardedFrames() const { return discarded_; }
    size_t pending() const { return buffer_.size(); }

private:
    void discard();

    std::chrono::microseconds silence_;
    std::vector<uint8_t> buffer_;
    Clock::time_point lastByte_{};
    uint64_t discarded_ = 0;
};

// The length of a request from its first bytes: 0 while too few bytes are there to
// tell, -1 for a function whose requests have no length this slave knows.
int requestLength(const uint8_t *bytes, size_t n);

} // namespace rtusim

#endif
