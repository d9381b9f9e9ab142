// Shared pieces of the fuzz targets: a reader over the fuzz input, host resources the
// size the host contract asks for, a stateless Modbus slave, a full reset of the driver
// between inputs, and one pass of the host's communication loop with a chosen reply.
#ifndef RTUPLC_FUZZ_HARNESS_H
#define RTUPLC_FUZZ_HARNESS_H

#include <QByteArray>
#include <QMutex>
#include <QString>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "rtuplc_support/frames.h"
#include "rtuplc_support/request.h"
#include "serviceForProtocol.h"

namespace fuzz {

// Reads the input from the front; past its end every read gives zeros, so that any
// prefix of an input is itself a valid input.
class Input {
public:
    Input(const uint8_t *data, size_t size) : p_(data), n_(size) {}
    bool empty() const { return n_ == 0; }
    size_t left() const { return n_; }
    uint8_t u8()
    {
        if (n_ == 0)
            return 0;
        --n_;
        return *p_++;
    }
    uint16_t u16()
    {
        const uint16_t lo = u8();
        return static_cast<uint16_t>(lo | (u8() << 8));
    }
    int32_t i32()
    {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i)
            v |= uint32_t(u8()) << (8 * i);
        return static_cast<int32_t>(v);
    }
    // Up to n bytes (fewer when the input ends).
    QByteArray bytes(size_t n)
    {
        const size_t k = n < n_ ? n : n_;
        QByteArray b(reinterpret_cast<const char *>(p_), static_cast<int>(k));
        p_ += k;
        n_ -= k;
        return b;
    }
    // A 32-bit value that is often one of the edges where arithmetic goes wrong.
    int32_t edgy()
    {
        static const int32_t kEdges[] = {
            0,       1,           -1,    2,     7,     8,     9,       15,          16,
            31,      32,          63,    64,    65,    122,   123,     124,         125,
            127,     128,         129,   199,   200,   255,   256,     377,         511,
            512,     513,         1023,  1024,  1025,  1968,  1999,    7998,        7999,
            8000,    32767,       32768, 65535, 65536, 65537, INT_MAX, INT_MAX - 1, INT_MAX - 127,
            INT_MIN, INT_MIN + 1, -2,    -8,    -128,  -65536};
        const uint8_t sel = u8();
        if (sel < 128)
            return sel; // small
        if (sel < 128 + sizeof kEdges / sizeof kEdges[0])
            return kEdges[sel - 128];
        return i32(); // anything
    }

private:
    const uint8_t *p_;
    size_t n_;
};

// Writes inputs in the format Input reads; used by the seed generator.
class Output {
public:
    QByteArray data;
    void u8(int v) { data.append(static_cast<char>(v & 0xFF)); }
    void u16(int v)
    {
        u8(v);
        u8(v >> 8);
    }
    void i32(int32_t v)
    {
        for (int i = 0; i < 4; ++i)
            u8(static_cast<int>(static_cast<uint32_t>(v) >> (8 * i)));
    }
    void bytes(const QByteArray &b) { data.append(b); }
    // A value as edgy() reads it back.
    void edgy(int32_t v)
    {
        if (v >= 0 && v < 128) {
            u8(v);
        } else {
            u8(0xFF);
            i32(v);
        }
    }
};

// What the host lends the driver: a memory block holding the recipe command bytes and
// a recipe buffer. The buffer is the host's to size; the harnesses keep recipe
// offsets and lengths below kRecipeSafeWords so that it is always big enough.
// Words of the buffer that belong to no recipe variable hold kRecipeSentinel, and
// the driver must leave them, and every byte of the memory block but the two command
// bytes, alone: checkHost() says so.
constexpr int kRecipeSafeWords = 1 << 16;
constexpr unsigned short kRecipeSentinel = 0xA5C3;
struct Host {
    unsigned char memory[RTUPLC_RCP_UPLOAD_BYTE + 64];
    unsigned short recipe[2 * kRecipeSafeWords + 4096];
    QMutex lock;
};
Host &host();

// Property texts a harness may restart with.
constexpr const char *kDefaultProperties = "1#0#0#3#64";

// Hands the recipe variables to the driver (intf_setRcpAddress) after giving the words
// of those it takes (its own driverId, offset from 0) recipe values. Returns the
// driver's result.
int setRecipe(QVector<_RCP_VAR_PRO> &vars);

// Aborts when the driver wrote outside the recipe variables' words or into the memory
// block other than the two command bytes.
void checkHost();

// Checks the host's buffers and restarts the driver, so that an input leaves nothing
// allocated behind it: libFuzzer then has no reason to run it again for leaks.
void finish();

// Restarts the driver as if freshly loaded: intf_initProperty plus the state it keeps
// (recipe, last condition read, the request being built), so that every input starts
// from the same place.
void restart(const char *properties = kDefaultProperties, bool withHost = true);

// The controller's request handling (support/) at every address, whose values move
// with gen: before a read, coil a is set to (a * 7 + gen) % 3 == 0 and register a to a
// hash of (a, gen), so that bumping gen changes what the next read sees.
struct Slave {
    uint32_t gen = 0;
    QByteArray answer(const FRAME_PRO &f);

private:
    rtusupport::StationMemory memory_;
};

using rtusupport::withCrc;

// Checks what the driver hands the host: a frame inside its record, with a good CRC.
void checkFrame(const FRAME_PRO &f);

// Calls the host makes in the middle of a cycle (between fetching a frame and handing
// back its reply), chosen by the input.
struct Scenario {
    int area = 13; // register index the interjections use
    int station = 1;
    int start = 0;
    int len = 4;
    QByteArray properties = kDefaultProperties; // what a restart in mid-cycle uses
};

// Answers the frame in flight in a way chosen by the input. Returns false when the
// input is used up.
enum ReplyMode {
    REPLY_RAW = 0,       // bytes from the input
    REPLY_CRC_BODY = 1,  // input bytes of the expected length, with a good CRC
    REPLY_SLAVE = 2,     // what a slave answers
    REPLY_PATCHED = 3,   // the slave's answer with one byte changed and the CRC fixed
    REPLY_TIMEOUT = 4,   // nothing
    REPLY_RESIZED = 5,   // the slave's answer made longer or shorter
    REPLY_HOST = 6,      // the host calls the driver before the reply comes
    REPLY_EXCEPTION = 7, // a Modbus exception reply
};

// While set, the passes the slave answers on its own (the input being used up) are
// appended here as REPLY_RAW ops carrying the slave's bytes, until the driver first
// has nothing to send: an input followed by them replays the same passes. The seed
// generator uses it to turn real exchanges into corpus files.
extern QByteArray *recording;

// One pass of the host loop: fetch a frame, maybe interject, answer it. `steps` bounds
// the passes. With an empty input the slave answers every frame.
class Loop {
public:
    explicit Loop(Scenario s) : sc_(s) {}
    void run(Input &in, int steps);
    Slave slave;

private:
    void interject(Input &in);
    Scenario sc_;
};

} // namespace fuzz

#endif
