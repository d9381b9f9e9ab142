// Why a connection to the broker failed, in words a person can act on. The client
// library itself says little more than "connection refused" or "TLS error"; what tells a stopped broker from a wrong
// address, a wrong password from a certificate the broker does not trust, is put
// together here from what the attempt left behind: the broker's reason code, OpenSSL's
// first complaint, how far the TLS handshake got, whether a plain TCP connect works.
// Pure functions, so every reason is checked without a broker.
#ifndef RTUPLC_GATEWAY_MQTT_DIAGNOSIS_H
#define RTUPLC_GATEWAY_MQTT_DIAGNOSIS_H

#include <functional>
#include <string>

namespace rtugw {

// How far a TLS handshake got, as the connection saw it: OpenSSL's complaint alone does
// not tell a certificate of another host from one of an unknown authority, nor a broker
// that ends the handshake.
struct Handshake {
    bool serverHello = false;
    bool verified = false;     // the chain is good, whatever the name
    bool nameMismatch = false; // the chain is good but names another host
    bool refused = false;      // the broker sent a fatal alert
    bool connectSent = false;  // our side of the handshake passed every check
};

// What a failed attempt left behind.
struct ConnectFailure {
    std::string host;
    int port = 0;
    bool tls = false;
    std::string ca, cert; // files as configured; empty when not given
    std::string username, clientId;
    int reason = 0;        // the broker's reason code (0x80 and up) when it refused the CONNECT
    std::string tlsDetail; // OpenSSL's first complaint, its reason alone
    Handshake handshake;
};

// Why a connect failed. `unreachable` says why a plain TCP connection to the broker
// cannot be made (empty when it can); it is asked only when nothing else explains the
// failure, since it takes a connection attempt of its own.
std::string connectFailureText(const ConnectFailure &f, const std::function<std::string()> &unreachable);

// The broker's refusal of a CONNECT by its reason code (0x80 and up).
std::string refusalText(int reason, const std::string &username, const std::string &clientId);
// The broker ending an established connection with a DISCONNECT.
std::string disconnectText(int reason);

// OpenSSL's error lines read "...:error:CODE:LIBRARY:FUNCTION:REASON:FILE:LINE:"; the
// reason is the part a person can act on. The whole line when it is not one of those.
std::string opensslReason(const std::string &line);

// The C library's text for an errno, in lower case to fit into a sentence.
std::string errnoText(int error);

} // namespace rtugw

#endif
