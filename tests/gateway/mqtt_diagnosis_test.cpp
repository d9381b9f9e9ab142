// Why a connection to the broker failed: each reason a person can act on, from what a
// failed attempt leaves behind (the broker's reason code, OpenSSL's complaint, how far
// the handshake got, a plain TCP probe). A wrong reason sends them after the wrong
// fault: a password changed where the certificate was the trouble.
#include "mqtt_diagnosis.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using rtugw::ConnectFailure;

struct Row {
    const char *what;
    bool tls;
    int reason;                  // the broker's refusal; 0: none came
    std::string openssl;         // OpenSSL's first error line; empty: none
    rtugw::Handshake handshake;  // how far it got
    std::string ca, cert, probe; // as configured; why TCP fails ("": it works)
    std::string text;            // what the log says
};

const std::string kVerifyFailed = "error:0A000086:SSL routines:tls_post_process_server_certificate:"
                                  "certificate verify failed:../ssl/statem/statem_clnt.c:1889:";
// serverHello, verified, nameMismatch, refused, connectSent
const rtugw::Handshake kHello{true, false, false, false, false};
const rtugw::Handshake kChainOk{true, true, false, false, false};
const std::string kTls = "TLS handshake with broker:8883 failed: ";

TEST(MqttDiagnosis, EachFailureGetsItsReason)
{
    const std::vector<Row> rows = {
        // clang-format off
        {"bad password", false, 0x86, "", {}, "", "", "",
         "the broker refused the login: bad user name or password (user \"gw\")"},
        {"not authorized", false, 0x87, "", {}, "", "", "",
         "the broker refused the login: not authorized (user \"gw\": a wrong password, or no access)"},
        {"client id refused", false, 0x85, "", {}, "", "", "", "the broker refused the login: client id \"rtuplc-l1\" not valid"},
        {"banned", false, 0x8A, "", {}, "", "", "", "the broker refused the login: banned"},
        {"another refusal, by the library's name", false, 0x88, "", {}, "", "", "",
         "the broker refused the connection: server unavailable"},
        {"a refusal wins over a TLS complaint", true, 0x86, kVerifyFailed, {}, "", "", "",
         "the broker refused the login: bad user name or password (user \"gw\")"},
        {"broker's chain not trusted", true, 0, kVerifyFailed, kHello, "/etc/rtuplc/ca.pem", "", "",
         kTls + "certificate verify failed (the broker's certificate is not signed by /etc/rtuplc/ca.pem)"},
        {"broker's chain not trusted by the system", true, 0, kVerifyFailed, kHello, "", "", "",
         kTls + "certificate verify failed (the broker's certificate is not signed by an authority the system trusts)"},
        {"another OpenSSL reason, as it says", true, 0, "error:0A00010B:SSL routines:ssl3_get_record:wrong version number:x.c:1:",
         {}, "", "", "", kTls + "wrong version number"},
        {"OpenSSL line of another shape, whole", true, 0, "odd text", {}, "", "", "", kTls + "odd text"},
        {"nobody listening", false, 0, "", {}, "", "", "connection refused",
         "cannot reach the broker at broker:1883: connection refused"},
        {"nobody listening, TLS", true, 0, "", {}, "", "", "connection refused",
         "cannot reach the broker at broker:8883: connection refused"},
        {"certificate for another host", true, 0, "", {true, true, true, false, false}, "", "", "",
         kTls + "the broker's certificate is not for broker"},
        {"the chain alone is fine, nothing else known", true, 0, "", kChainOk, "", "", "",
         kTls + "it did not complete"},
        {"broker wants a client certificate", true, 0, "", {true, true, false, true, false},
         "", "", "", kTls + "the broker ended it; does it want a client certificate (cert and key)?"},
        {"broker refuses ours after our CONNECT", true, 0, "", {true, true, false, false, true},
         "", "/etc/rtuplc/client.pem", "", kTls + "the broker ended it; does it trust our client certificate?"},
        {"a plain port where TLS was asked", true, 0, "", {}, "", "", "",
         kTls + "no TLS answer from the port (a plain MQTT port? then mqtt://)"},
        {"a TLS port where plain was asked", false, 0, "", {}, "", "", "",
         "the broker at broker:1883 closed the connection before answering; if it is a TLS port, use mqtts://"},
        // clang-format on
    };
    for (const Row &row : rows) {
        ConnectFailure f;
        f.host = "broker";
        f.port = row.tls ? 8883 : 1883;
        f.tls = row.tls;
        f.ca = row.ca;
        f.cert = row.cert;
        f.username = "gw";
        f.clientId = "rtuplc-l1";
        f.reason = row.reason;
        f.tlsDetail = row.openssl.empty() ? "" : rtugw::opensslReason(row.openssl);
        f.handshake = row.handshake;
        bool probed = false;
        const std::string text = rtugw::connectFailureText(f, [&] {
            probed = true;
            return row.probe;
        });
        EXPECT_EQ(text, row.text) << row.what;
        // The probe is a connection attempt of its own: not made when the cause is known.
        EXPECT_EQ(probed, row.reason == 0 && row.openssl.empty()) << row.what;
    }
}

} // namespace
