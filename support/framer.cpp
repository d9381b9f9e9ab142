#include "rtuplc_support/framer.h"

#include "rtuplc_support/modbus.h"

namespace rtusupport {

namespace {
constexpr int kFixedRequestBytes = 8;     // station, function, 2 x 16 bits, CRC
constexpr size_t kByteCountIndex = 6;     // of the multiple writes
constexpr int kMultipleWriteOverhead = 9; // header, byte count and CRC around the data
} // namespace

int requestLength(const uint8_t *bytes, size_t n)
{
    if (n < 2)
        return 0;
    switch (bytes[1]) {
    case rtuplc::kReadCoils:
    case rtuplc::kReadDiscreteInputs:
    case rtuplc::kReadHoldingRegisters:
    case rtuplc::kReadInputRegisters:
    case rtuplc::kWriteSingleCoil:
    case rtuplc::kWriteSingleRegister:
        return kFixedRequestBytes;
    case rtuplc::kWriteMultipleCoils:
    case rtuplc::kWriteMultipleRegisters:
        return n > kByteCountIndex ? kMultipleWriteOverhead + bytes[kByteCountIndex] : 0;
    default:
        return -1;
    }
}

void RtuFramer::feed(const uint8_t *bytes, size_t n, Clock::time_point now)
{
    if (n == 0)
        return;
    // A fragment that went quiet for longer than a frame gap belongs to no frame.
    if (!buffer_.empty() && now - lastByte_ >= silence_)
        discard();
    buffer_.insert(buffer_.end(), bytes, bytes + n);
    lastByte_ = now;
    if (buffer_.size() > rtuplc::kMaxFrameBytes * 4) // garbage without end: do not hoard it
        discard();
}

std::optional<std::vector<uint8_t>> RtuFramer::next(Clock::time_point now)
{
    if (buffer_.empty())
        return std::nullopt;
    const int length = requestLength(buffer_.data(), buffer_.size());
    if (length > 0 && buffer_.size() >= size_t(length)) {
        if (!rtuplc::crcMatches(buffer_.data(), size_t(length))) {
            discard(); // the rest of a broken frame would only look like another one
            return std::nullopt;
        }
        std::vector<uint8_t> frame(buffer_.begin(), buffer_.begin() + length);
        buffer_.erase(buffer_.begin(), buffer_.begin() + length);
        return frame;
    }
    if (now - lastByte_ < silence_)
        return std::nullopt;
    // Silence ends the frame: only a frame of an unknown function can be complete here.
    if (length < 0 && buffer_.size() >= kMinFrameBytes && rtuplc::crcMatches(buffer_.data(), buffer_.size())) {
        std::vector<uint8_t> frame;
        frame.swap(buffer_);
        return frame;
    }
    discard();
    return std::nullopt;
}

std::optional<RtuFramer::Clock::time_point> RtuFramer::deadline() const
{
    if (buffer_.empty())
        return std::nullopt;
    return lastByte_ + silence_;
}

void RtuFramer::discard()
{
    buffer_.clear();
    ++discarded_;
}

} // namespace rtusupport
