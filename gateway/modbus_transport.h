// How requests reach the gateway's Modbus server and how its replies leave: a framing
// (Modbus TCP's MBAP header, or RTU frames with their CRC) over a byte stream (a plain
// socket or device, or TLS). Each listener kind is one row of kTransports, so the
// server's core never asks which it serves.
#ifndef RTUPLC_GATEWAY_MODBUS_TRANSPORT_H
#define RTUPLC_GATEWAY_MODBUS_TRANSPORT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "modbus_pdu.h"
#include "rtuplc_support/framer.h"

typedef struct ssl_ctx_st SSL_CTX;
typedef struct ssl_st SSL;

namespace rtugw {

using Clock = std::chrono::steady_clock;

// What a reply needs of its request to find its way back.
struct Head {
    uint8_t station = 0;
    uint16_t transaction = 0; // Modbus TCP's; 0 for RTU
};

struct Incoming {
    Head head;
    const uint8_t *pdu = nullptr; // valid until the framing is fed or asked again
    size_t pduBytes = 0;
};

class Framing {
public:
    virtual ~Framing();
    virtual void feed(const uint8_t *bytes, size_t n, Clock::time_point now) = 0;
    // The next whole request; Bad when the stream can no longer be trusted to carry
    // requests (the connection is closed).
    virtual mb::Cut next(Clock::time_point now, Incoming *in) = 0;
    // When silence decides about bytes held, if it can.
    virtual std::optional<Clock::time_point> deadline() const { return std::nullopt; }
    // Appends the reply `pdu` to the request with `head`.
    virtual void wrap(const Head &head, const uint8_t *pdu, size_t n, std::vector<uint8_t> &out) const = 0;
    // A Modbus TCP master addresses the gateway, which answers for a station it does
    // not serve (exception 0A); an RTU master addresses a station on a line, and a
    // station that is not there says nothing.
    virtual bool answersForAbsentStations() const = 0;
};

// A byte stream: read and write never wait.
class Stream {
public:
    static constexpr long kClosed = -1;
    virtual ~Stream();
    // Bytes read or written, 0 when it would wait, kClosed when the peer is gone or broke the protocol.
    virtual long read(uint8_t *bytes, size_t n) = 0;
    virtual long write(const uint8_t *bytes, size_t n) = 0;
    // TLS: the record layer waits to write (a handshake), or holds bytes already read.
    virtual bool wantsWrite() const { return false; }
    virtual bool holdsInput() const { return false; }
};

// What a transport may need to build its framing and stream.
struct TransportContext {
    SSL_CTX *tls = nullptr;
    std::chrono::microseconds silence{0}; // RTU: the gap that ends a frame
};

struct Transport {
    const char *name; // as the configuration names the listener
    bool listens;     // accepts connections (TCP); else serves one device
    std::unique_ptr<Framing> (*framing)(const TransportContext &);
    std::unique_ptr<Stream> (*stream)(int fd, const TransportContext &);
};

extern const Transport kTcpTransport, kRtuOverTcpTransport, kTlsTransport, kSerialTransport;

// The server's TLS: its certificate and key, clients' certificates required and
// checked against `ca`, TLS 1.2 at least. Null with `error` saying why.
SSL_CTX *makeTlsContext(const std::string &cert, const std::string &key, const std::string &ca, std::string *error);
void freeTlsContext(SSL_CTX *ctx);

} // namespace rtugw

#endif
