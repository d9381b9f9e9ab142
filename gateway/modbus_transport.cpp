#include "modbus_transport.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace rtugw {

namespace {

// Over TCP a frame's bytes come as the master wrote them; one that stalls this long is
// abandoned. A master waits far longer for its reply before it tries again.
constexpr std::chrono::milliseconds kStreamSilence{50};
// On a pseudo-terminal or a USB adapter timing says little: never less than this.
constexpr std::chrono::milliseconds kSerialMinSilence{20};
// Frames in a row that fail their CRC: a master that sends only these speaks another
// protocol, or noise.
constexpr uint64_t kMaxBadFrames = 8;

class MbapFraming : public Framing {
public:
    void feed(const uint8_t *bytes, size_t n, Clock::time_point) override
    {
        if (taken_ > 0) {
            buffer_.erase(buffer_.begin(), buffer_.begin() + long(taken_));
            taken_ = 0;
        }
        buffer_.insert(buffer_.end(), bytes, bytes + n);
    }
    mb::Cut next(Clock::time_point, Incoming *in) override
    {
        mb::Mbap m;
        const mb::Cut cut = mb::cutMbap(buffer_.data() + taken_, buffer_.size() - taken_, &m);
        if (cut != mb::Cut::Frame)
            return cut;
        taken_ += m.frameBytes;
        in->head = {m.unit, m.transaction};
        in->pdu = m.pdu;
        in->pduBytes = m.pduBytes;
        return cut;
    }
    void wrap(const Head &head, const uint8_t *pdu, size_t n, std::vector<uint8_t> &out) const override
    {
        mb::appendMbap(out, head.transaction, head.station, pdu, n);
    }
    bool answersForAbsentStations() const override { return true; }

private:
    std::vector<uint8_t> buffer_;
    size_t taken_ = 0; // bytes at the front already handed out
};

class RtuFraming : public Framing {
public:
    RtuFraming(std::chrono::microseconds silence, bool closesOnNoise) : framer_(silence), closes_(closesOnNoise) {}
    void feed(const uint8_t *bytes, size_t n, Clock::time_point now) override { framer_.feed(bytes, n, now); }
    mb::Cut next(Clock::time_point now, Incoming *in) override
    {
        auto frame = framer_.next(now);
        if (!frame) {
            const bool noise = framer_.discardedFrames() - goodSince_ >= kMaxBadFrames;
            return closes_ && noise ? mb::Cut::Bad : mb::Cut::NeedMore;
        }
        goodSince_ = framer_.discardedFrames();
        frame_ = std::move(*frame);
        in->head = {frame_[0], 0};
        in->pdu = frame_.data() + 1;
        in->pduBytes = frame_.size() - 1 - rtuplc::kCrcBytes;
        return mb::Cut::Frame;
    }
    std::optional<Clock::time_point> deadline() const override { return framer_.deadline(); }
    void wrap(const Head &head, const uint8_t *pdu, size_t n, std::vector<uint8_t> &out) const override
    {
        mb::appendRtu(out, head.station, pdu, n);
    }
    bool answersForAbsentStations() const override { return false; }

private:
    rtusupport::RtuFramer framer_;
    bool closes_;
    uint64_t goodSince_ = 0; // discards counted when the last good frame came
    std::vector<uint8_t> frame_;
};

class PlainStream : public Stream {
public:
    // `device`: a terminal in raw mode reads 0 bytes when none wait, not at the end.
    PlainStream(int fd, bool device) : fd_(fd), device_(device) {}
    long read(uint8_t *bytes, size_t n) override
    {
        const ssize_t r = ::read(fd_, bytes, n);
        if (r > 0)
            return long(r);
        if (r == 0)
            return device_ ? 0 : kClosed;
        return errno == EAGAIN || errno == EINTR ? 0 : kClosed;
    }
    long write(const uint8_t *bytes, size_t n) override
    {
        ssize_t w = ::send(fd_, bytes, n, MSG_NOSIGNAL);
        if (w < 0 && errno == ENOTSOCK) // a serial device or pseudo-terminal
            w = ::write(fd_, bytes, n);
        if (w >= 0)
            return long(w);
        return errno == EAGAIN || errno == EINTR ? 0 : kClosed;
    }

private:
    int fd_;
    bool device_;
};

class TlsStream : public Stream {
public:
    TlsStream(int fd, SSL_CTX *ctx) : ssl_(SSL_new(ctx))
    {
        if (ssl_)
            SSL_set_fd(ssl_, fd);
    }
    ~TlsStream() override
    {
        if (!ssl_)
            return;
        if (ready_)
            SSL_shutdown(ssl_); // one try, never waited for: the socket is non-blocking
        SSL_free(ssl_);
    }
    long read(uint8_t *bytes, size_t n) override
    {
        if (!handshake())
            return ssl_ ? 0 : kClosed;
        return settle(SSL_read(ssl_, bytes, int(std::min<size_t>(n, INT32_MAX))));
    }
    long write(const uint8_t *bytes, size_t n) override
    {
        if (!handshake())
            return ssl_ ? 0 : kClosed;
        return settle(SSL_write(ssl_, bytes, int(std::min<size_t>(n, INT32_MAX))));
    }
    bool wantsWrite() const override { return wantsWrite_; }
    bool holdsInput() const override { return ssl_ && ready_ && SSL_pending(ssl_) > 0; }

private:
    // The handshake goes on a step at each event; false until it is done. A client
    // without a certificate from the authority fails it, and the stream with it.
    bool handshake()
    {
        if (ready_ || !ssl_)
            return ready_;
        const int r = SSL_accept(ssl_);
        if (r == 1) {
            ready_ = true;
            wantsWrite_ = false;
            return true;
        }
        if (settle(r) == kClosed) {
            SSL_free(ssl_);
            ssl_ = nullptr;
        }
        return false;
    }
    long settle(int r)
    {
        wantsWrite_ = false;
        if (r > 0)
            return r;
        switch (SSL_get_error(ssl_, r)) {
        case SSL_ERROR_WANT_READ:
            return 0;
        case SSL_ERROR_WANT_WRITE:
            wantsWrite_ = true;
            return 0;
        default:
            ERR_clear_error(); // the error queue is per thread: leave it clean for the next
            return kClosed;
        }
    }

    SSL *ssl_;
    bool ready_ = false;
    bool wantsWrite_ = false;
};

std::unique_ptr<Framing> mbapFraming(const TransportContext &)
{
    return std::make_unique<MbapFraming>();
}
std::unique_ptr<Framing> streamRtuFraming(const TransportContext &)
{
    return std::make_unique<RtuFraming>(kStreamSilence, true);
}
std::unique_ptr<Framing> serialRtuFraming(const TransportContext &c)
{
    return std::make_unique<RtuFraming>(std::max<std::chrono::microseconds>(c.silence, kSerialMinSilence), false);
}
std::unique_ptr<Stream> socketStream(int fd, const TransportContext &)
{
    return std::make_unique<PlainStream>(fd, false);
}
std::unique_ptr<Stream> deviceStream(int fd, const TransportContext &)
{
    return std::make_unique<PlainStream>(fd, true);
}
std::unique_ptr<Stream> tlsStream(int fd, const TransportContext &c)
{
    return std::make_unique<TlsStream>(fd, c.tls);
}

std::string tlsError(const std::string &what)
{
    const unsigned long e = ERR_get_error();
    char text[256] = "no detail";
    if (e != 0)
        ERR_error_string_n(e, text, sizeof text);
    ERR_clear_error();
    return what + ": " + text;
}

} // namespace

Framing::~Framing() = default;
Stream::~Stream() = default;

const Transport kTcpTransport = {"tcp", true, mbapFraming, socketStream};
const Transport kRtuOverTcpTransport = {"rtu-over-tcp", true, streamRtuFraming, socketStream};
const Transport kTlsTransport = {"tls", true, mbapFraming, tlsStream};
const Transport kSerialTransport = {"serial", false, serialRtuFraming, deviceStream};

SSL_CTX *makeTlsContext(const std::string &cert, const std::string &key, const std::string &ca, std::string *error)
{
    SSL_CTX *ctx = SSL_CTX_new(TLS_server_method());
    if (!ctx) {
        *error = tlsError("cannot set up TLS");
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
    // Replies are written from a buffer that moves as it grows, a part at a time.
    SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    const char *step = nullptr;
    if (SSL_CTX_use_certificate_chain_file(ctx, cert.c_str()) != 1)
        step = "modbus-server.tls.cert";
    else if (SSL_CTX_use_PrivateKey_file(ctx, key.c_str(), SSL_FILETYPE_PEM) != 1 ||
             SSL_CTX_check_private_key(ctx) != 1)
        step = "modbus-server.tls.key";
    else if (SSL_CTX_load_verify_locations(ctx, ca.c_str(), nullptr) != 1)
        step = "modbus-server.tls.ca";
    if (step) {
        *error = tlsError(step);
        SSL_CTX_free(ctx);
        return nullptr;
    }
    // Tells clients which authority their certificate must come from.
    if (STACK_OF(X509_NAME) *names = SSL_load_client_CA_file(ca.c_str()))
        SSL_CTX_set_client_CA_list(ctx, names);
    ERR_clear_error();
    return ctx;
}

void freeTlsContext(SSL_CTX *ctx)
{
    SSL_CTX_free(ctx);
}

} // namespace rtugw
