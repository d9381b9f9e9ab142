// rtuplc: what a host's link layer needs beside the driver.
//
// The driver judges a reply by its length and CRC alone (see intf_dealRcvFrame): it
// does not compare the station, the function code, the byte count or the echoed
// address and quantity with the frame it built. On a faulty line that is not enough.
// A late answer to an earlier request, a second copy of a reply, another station's
// reply or a reply of the wrong function can have exactly the expected length and a
// valid CRC, and the driver would then store another item's data as good values.
// The host's link layer is the one place that knows which frame is in flight, so it
// must hand the driver only bytes that answer that frame. This header gives every
// host the same tools for that, header-only, with nothing exported by the library:
//
//     rtuplc::ReplyMatcher matcher;                   // one per line: it keeps history
//     FRAME_PRO f;
//     if (intf_getSendFrame(f)) {
//         if (owed > 0)                               // an earlier exchange timed out:
//             keepQuiet(guard, matcher);              // what comes now is late, dropped
//         flushInput(matcher);                        // stale bytes: matcher.discard()
//         transmit(f.frame, f.frameLen);
//         QByteArray reply;                           // time-out: empty
//         if (f.replyLen > 0) {
//             matcher.expect(f);
//             while (!matcher.answered() && receiveSome(buf, &n, deadline))
//                 matcher.feed(buf, n);               // noise, copies, strangers skipped
//             if (matcher.answered())                 // the reply, or a 5-byte exception
//                 reply = QByteArray((const char *)matcher.reply().data(),
//                                    int(matcher.reply().size()));
//             else
//                 matcher.finish(), ++owed;
//         }
//         int r = intf_dealRcvFrame(reply, what);
//         for (const auto &d : matcher.takeDropped()) count(d.reason);
//     }
//
// Read replies do not echo the address: two blocks of the same length at one station
// have replies of the same shape, and no matcher can tell a late answer to one from
// the answer to the other. Only time can: after a time-out the host must keep the
// line quiet for a guard time before another frame goes out (the turnaround margin
// plus twice the longest response seen, bounded), and drop whatever arrives in it as
// late. A late answer to the same frame sent again is an answer to it. The reference
// host's tools/poll/link.cpp does all of this.
#ifndef RTUPLC_LINK_H
#define RTUPLC_LINK_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "rtuplc.h"

namespace rtuplc {

// ---------------------------------------------------------------------------------
// Modbus RTU framing.

constexpr uint8_t kReadCoils = 0x01;
constexpr uint8_t kReadDiscreteInputs = 0x02;
constexpr uint8_t kReadHoldingRegisters = 0x03;
constexpr uint8_t kReadInputRegisters = 0x04;
constexpr uint8_t kWriteSingleCoil = 0x05;
constexpr uint8_t kWriteSingleRegister = 0x06;
constexpr uint8_t kWriteMultipleCoils = 0x0F;
constexpr uint8_t kWriteMultipleRegisters = 0x10;
constexpr uint8_t kExceptionFlag = 0x80; // set in the function byte of an exception reply

constexpr size_t kCrcBytes = 2;
constexpr size_t kExceptionReplyBytes = 5;   // station, function | 0x80, code, CRC
constexpr size_t kWriteEchoBytes = 8;        // station, function, address, quantity, CRC
constexpr size_t kReadReplyFramingBytes = 5; // station, function, byte count, CRC
constexpr size_t kMaxFrameBytes = 256;       // the RTU frame limit

namespace detail {
struct CrcTable {
    uint16_t entry[256];
};
constexpr CrcTable makeCrcTable()
{
    CrcTable t{};
    for (unsigned i = 0; i < 256; ++i) {
        uint16_t c = uint16_t(i);
        for (int bit = 0; bit < 8; ++bit)
            c = (c & 1) ? uint16_t((c >> 1) ^ 0xA001) : uint16_t(c >> 1);
        t.entry[i] = c;
    }
    return t;
}
inline constexpr CrcTable kCrcTable = makeCrcTable();
} // namespace detail

// Reads answer with a byte count and data; writes with the echo of their first six bytes.
constexpr bool isReadFunction(uint8_t f)
{
    return f == kReadCoils || f == kReadDiscreteInputs || f == kReadHoldingRegisters || f == kReadInputRegisters;
}
constexpr bool isWriteFunction(uint8_t f)
{
    return f == kWriteSingleCoil || f == kWriteSingleRegister || f == kWriteMultipleCoils ||
           f == kWriteMultipleRegisters;
}

// The Modbus CRC-16 (initial 0xFFFF, reflected polynomial 0xA001); sent low byte first.
constexpr uint16_t crc16(const uint8_t *data, size_t n)
{
    uint16_t crc = 0xFFFF;
    for (size_t i = 0; i < n; ++i)
        crc = uint16_t((crc >> 8) ^ detail::kCrcTable.entry[(crc ^ data[i]) & 0xFF]);
    return crc;
}

// True when the last two of n bytes are the CRC of the bytes before them.
constexpr bool crcMatches(const uint8_t *bytes, size_t n)
{
    if (n < kCrcBytes)
        return false;
    const uint16_t crc = crc16(bytes, n - kCrcBytes);
    return bytes[n - 2] == (crc & 0xFF) && bytes[n - 1] == (crc >> 8);
}

// ---------------------------------------------------------------------------------
// Reply sizes: the one place that knows the layout of a reply.

// Signed, so that a driver record of any length gets the same arithmetic as the
// frame it describes (the quantity field keeps only 16 bits of it).
constexpr int64_t readBitsReplyBytes(int64_t bits)
{
    return int64_t(kReadReplyFramingBytes) + (bits + 7) / 8;
}
constexpr int64_t readRegistersReplyBytes(int64_t registers)
{
    return int64_t(kReadReplyFramingBytes) + 2 * registers;
}

// The length of the reply that starts at `bytes`, told from its first bytes: 0 when
// n is too short to tell, -1 for a function code whose reply length is unknown.
constexpr long replyLength(const uint8_t *bytes, size_t n)
{
    if (n < 2)
        return 0;
    const uint8_t f = bytes[1];
    if (f & kExceptionFlag)
        return long(kExceptionReplyBytes);
    if (isWriteFunction(f))
        return long(kWriteEchoBytes);
    if (!isReadFunction(f))
        return -1;
    return n < 3 ? 0 : long(kReadReplyFramingBytes + bytes[2]);
}

// The length of the normal reply to a request (station, function, address, quantity,
// ...): 0 when the function is not one of the reads and writes above.
constexpr size_t answerLength(const uint8_t *request, size_t n)
{
    if (n < 6)
        return 0;
    const uint8_t f = request[1];
    const size_t quantity = size_t(request[4]) << 8 | request[5];
    if (f == kReadCoils || f == kReadDiscreteInputs)
        return size_t(readBitsReplyBytes(int64_t(quantity)));
    if (f == kReadHoldingRegisters || f == kReadInputRegisters)
        return size_t(readRegistersReplyBytes(int64_t(quantity)));
    return isWriteFunction(f) ? kWriteEchoBytes : 0;
}

// ---------------------------------------------------------------------------------
// Matching a reply to the frame in flight.

enum class MatchVerdict {
    NeedMore,  // bytes from `offset` on may be the start of the answer: wait for more
    Reply,     // bytes [offset, offset + length) answer the frame
    Exception, // bytes [offset, offset + 5) are an exception reply to the frame
    NotAnswer, // no byte here can start an answer (also: the frame expects none)
};

struct MatchResult {
    MatchVerdict verdict = MatchVerdict::NotAnswer;
    size_t offset = 0; // bytes before it cannot start an answer to the frame
    size_t length = 0; // of the answer (Reply, Exception)
};

// Judges `bytes` (what was received since `frame` went out) against `frame`. An
// answer has the request's station and, for a read, its function code, the byte
// count its quantity implies, the data and a valid CRC; for a write, the echo of the
// request's first six bytes and a valid CRC. An exception is station, function |
// 0x80, a code and a valid CRC. Candidates are tried from the front: a byte that
// cannot start an answer, or a complete candidate of the wrong shape or with a bad
// CRC, is passed over and the scan goes on at the next byte. A frame with replyLen 0
// (broadcast, handshake record) expects nothing: every byte is NotAnswer.
inline MatchResult matchReply(const FRAME_PRO &frame, const uint8_t *bytes, size_t n)
{
    MatchResult r;
    const uint8_t *req = frame.frame;
    const size_t answer = frame.replyLen > 0 ? answerLength(req, size_t(frame.frameLen)) : 0;
    if (answer == 0) {
        r.offset = n;
        return r;
    }
    const bool read = isReadFunction(req[1]);
    for (size_t i = 0; i < n; ++i) {
        const uint8_t *c = bytes + i;
        const size_t have = n - i;
        if (c[0] != req[0])
            continue;
        if (have < 2)
            return {MatchVerdict::NeedMore, i, 0};
        if (c[1] == (req[1] | kExceptionFlag)) {
            if (have < kExceptionReplyBytes)
                return {MatchVerdict::NeedMore, i, 0};
            if (crcMatches(c, kExceptionReplyBytes))
                return {MatchVerdict::Exception, i, kExceptionReplyBytes};
            continue;
        }
        if (c[1] != req[1])
            continue;
        // The bytes that must repeat the request: a read's byte count, a write's echo.
        bool shapeOk = true;
        if (read) {
            // A controller read of 128 registers carries 256 bytes: the count byte wraps to 0.
            shapeOk = have < 3 || c[2] == uint8_t(answer - kReadReplyFramingBytes);
        } else {
            const size_t echoed = have < 6 ? have : 6;
            shapeOk = std::memcmp(c + 2, req + 2, echoed - 2) == 0;
        }
        if (!shapeOk)
            continue;
        if (have < answer)
            return {MatchVerdict::NeedMore, i, 0};
        if (crcMatches(c, answer))
            return {MatchVerdict::Reply, i, answer};
    }
    r.offset = n;
    return r;
}

// A matcher that keeps what a host needs between reads: the bytes received so far,
// the last reply taken, and the dropped bytes with the reason they were dropped. A
// byte-identical copy of the last reply taken, arriving while a copy is still possible
// (the host tells, from the time since that reply: a slave that answers twice does so
// at once), is a doubled reply and is skipped, at most once per request, however often
// it is sent again: a genuine answer may be byte-identical too, and identical bytes
// show no wrong value.
class ReplyMatcher {
public:
    enum class Reason {
        Late,      // arrived after its exchange's time-out (the host says so)
        Doubled,   // a second copy of the reply taken last
        Foreign,   // a well-formed frame with a valid CRC from another station
        Malformed, // noise, bad CRC, wrong function, byte count or echo
    };
    struct Dropped {
        Reason reason;
        std::vector<uint8_t> bytes;
    };

    // A frame went out (a new one or the same one again): judge what comes against it.
    void expect(const FRAME_PRO &frame)
    {
        const bool again = frame.frameLen == frame_.frameLen && frame.frameLen >= 0 &&
                           frame.frameLen <= int(sizeof frame.frame) &&
                           std::memcmp(frame.frame, frame_.frame, size_t(frame.frameLen)) == 0;
        if (!again)
            doubledSkipped_ = false; // a new request: its first identical reply may be a copy
        frame_ = frame;
        buffer_.clear();
        scanned_ = 0;
        verdict_ = MatchVerdict::NeedMore;
        reply_.clear();
    }

    // Adds received bytes; returns the verdict so far. Once an answer is found,
    // whatever else is held or fed is dropped. `copyPossible`: the previous reply was
    // taken recently enough that a second copy of it may still be arriving.
    MatchVerdict feed(const uint8_t *bytes, size_t n, bool copyPossible = true)
    {
        if (answered()) {
            classify(bytes, n, false);
            return verdict_;
        }
        buffer_.insert(buffer_.end(), bytes, bytes + n);
        for (;;) {
            const MatchResult m = matchReply(frame_, buffer_.data() + scanned_, buffer_.size() - scanned_);
            const size_t at = scanned_ + m.offset;
            if (m.verdict == MatchVerdict::Reply && copyPossible && !doubledSkipped_ && !previous_.empty() &&
                m.length == previous_.size() && std::memcmp(buffer_.data() + at, previous_.data(), m.length) == 0) {
                doubledSkipped_ = true; // taken as a copy once; the next identical one is the answer
                scanned_ = at + m.length;
                continue;
            }
            verdict_ = m.verdict;
            if (m.verdict == MatchVerdict::NeedMore || m.verdict == MatchVerdict::NotAnswer) {
                scanned_ = at;
                return verdict_;
            }
            reply_.assign(buffer_.begin() + long(at), buffer_.begin() + long(at + m.length));
            classify(buffer_.data(), at, false); // before: copies of the reply taken last
            previous_ = reply_;
            classify(buffer_.data() + at + m.length, buffer_.size() - at - m.length, false);
            buffer_.clear();
            scanned_ = 0;
            return verdict_;
        }
    }

    MatchVerdict verdict() const { return verdict_; }
    bool answered() const { return verdict_ == MatchVerdict::Reply || verdict_ == MatchVerdict::Exception; }
    // The answer (Reply: the whole reply, Exception: its 5 bytes); empty before.
    const std::vector<uint8_t> &reply() const { return reply_; }

    // The time-out passed: whatever is held is dropped (as late when `late`).
    void finish(bool late = false)
    {
        classify(buffer_.data(), buffer_.size(), late);
        buffer_.clear();
        scanned_ = 0;
    }
    // Bytes received outside an exchange (stale input flushed before a send, or what
    // came while the host kept the line quiet after a time-out): dropped.
    void discard(const uint8_t *bytes, size_t n, bool late) { classify(bytes, n, late); }

    // The dropped bytes since the last call, one entry per frame or run of noise.
    std::vector<Dropped> takeDropped()
    {
        std::vector<Dropped> d;
        d.swap(dropped_);
        return d;
    }

private:
    // Splits dropped bytes into well-formed frames (told by their length and CRC) and
    // runs of anything else.
    void classify(const uint8_t *b, size_t n, bool late)
    {
        size_t noiseFrom = 0;
        const auto flushNoise = [&](size_t to) {
            if (to > noiseFrom)
                dropped_.push_back({late ? Reason::Late : Reason::Malformed, {b + noiseFrom, b + to}});
        };
        for (size_t i = 0; i < n;) {
            const long len = replyLength(b + i, n - i);
            if (len > 0 && size_t(len) <= n - i && crcMatches(b + i, size_t(len))) {
                flushNoise(i);
                Reason why = Reason::Malformed;
                if (late)
                    why = Reason::Late;
                else if (size_t(len) == previous_.size() && std::memcmp(b + i, previous_.data(), previous_.size()) == 0)
                    why = Reason::Doubled;
                else if (b[i] != frame_.frame[0])
                    why = Reason::Foreign;
                dropped_.push_back({why, {b + i, b + i + len}});
                i += size_t(len);
                noiseFrom = i;
            } else {
                ++i;
            }
        }
        flushNoise(n);
    }

    FRAME_PRO frame_;
    std::vector<uint8_t> buffer_;
    size_t scanned_ = 0;
    bool doubledSkipped_ = false;
    MatchVerdict verdict_ = MatchVerdict::NotAnswer;
    std::vector<uint8_t> reply_;
    std::vector<uint8_t> previous_;
    std::vector<Dropped> dropped_;
};

} // namespace rtuplc

#endif
