#include "mqtt_diagnosis.h"

#include <mosquitto.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <vector>

namespace rtugw {

namespace {

// MQTT 5 CONNACK reason codes a broker refuses a login with.
constexpr int kReasonClientId = 0x85;
constexpr int kReasonBadLogin = 0x86;
constexpr int kReasonNotAuthorized = 0x87;
constexpr int kReasonBanned = 0x8A;
constexpr int kFirstRefusal = 0x80;

std::string lower(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return s;
}

std::string reasonName(int reason)
{
    return lower(mosquitto_reason_string(reason));
}

// Why the handshake failed when OpenSSL did not say.
std::string handshakeText(const ConnectFailure &f)
{
    const Handshake &h = f.handshake;
    // TLS 1.3 lets the client finish its side before the broker checks our certificate, so
    // the broker's alert may be lost with the socket: a CONNECT sent over a handshake the
    // broker then ends is its refusal of us.
    if (h.refused || h.connectSent)
        return f.cert.empty() ? "the broker ended it; does it want a client certificate (cert and key)?"
                              : "the broker ended it; does it trust our client certificate?";
    if (h.verified && h.nameMismatch)
        return "the broker's certificate is not for " + f.host;
    if (!h.serverHello)
        return "no TLS answer from the port (a plain MQTT port? then mqtt://)";
    return "it did not complete";
}

} // namespace

std::string connectFailureText(const ConnectFailure &f, const std::function<std::string()> &unreachable)
{
    if (f.reason >= kFirstRefusal)
        return refusalText(f.reason, f.username, f.clientId);
    const std::string where = f.host + ":" + std::to_string(f.port);
    if (f.tls && f.tlsDetail == "certificate verify failed")
        return "TLS handshake with " + where + " failed: " + f.tlsDetail +
               " (the broker's certificate is not signed by " +
               (f.ca.empty() ? std::string("an authority the system trusts") : f.ca) + ")";
    if (f.tls && !f.tlsDetail.empty())
        return "TLS handshake with " + where + " failed: " + f.tlsDetail;
    const std::string why = unreachable();
    if (!why.empty())
        return "cannot reach the broker at " + where + ": " + why;
    if (f.tls)
        return "TLS handshake with " + where + " failed: " + handshakeText(f);
    // Seen when the port wants TLS (the broker hangs up on a plain CONNECT), and from a
    // broker that is still starting.
    return "the broker at " + where + " closed the connection before answering; if it is a TLS port, use mqtts://";
}

std::string refusalText(int reason, const std::string &username, const std::string &clientId)
{
    const std::string user = username.empty() ? "no user name" : "user \"" + username + "\"";
    switch (reason) {
    case kReasonBadLogin:
        return "the broker refused the login: bad user name or password (" + user + ")";
    case kReasonNotAuthorized:
        // Some brokers answer a wrong password with this rather than 0x86.
        return "the broker refused the login: not authorized (" + user + ": a wrong password, or no access)";
    case kReasonClientId:
        return "the broker refused the login: client id \"" + clientId + "\" not valid";
    case kReasonBanned:
        return "the broker refused the login: banned";
    default:
        return "the broker refused the connection: " + reasonName(reason);
    }
}

std::string disconnectText(int reason)
{
    return "the broker disconnected us: " + reasonName(reason);
}

std::string opensslReason(const std::string &line)
{
    std::vector<std::string> fields;
    for (size_t at = 0; at <= line.size();) {
        const size_t colon = std::min(line.find(':', at), line.size());
        fields.push_back(line.substr(at, colon - at));
        at = colon + 1;
    }
    const auto error = std::find(fields.begin(), fields.end(), "error");
    constexpr long kReasonField = 4; // after the code, the library and the function
    if (fields.end() - error <= kReasonField)
        return line;
    return error[kReasonField];
}

std::string errnoText(int error)
{
    return lower(std::strerror(error));
}

} // namespace rtugw
