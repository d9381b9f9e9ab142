// What rtuplc-poll and rtuplc-gateway share at their edges: the address they connect to
// and the name of a failed block, which both must read and write the same way.
#include <gtest/gtest.h>

#include "rtuplc_host/address.h"
#include "rtuplc_host/host.h"

namespace {

using namespace rtuhost;

TEST(HostCommon, AddressesReadAlikeInBothHosts)
{
    constexpr int kFromDriver = -1;
    const struct {
        const char *text;
        int defaultPort;
        bool ok;
        const char *host;
        int port;
    } rows[] = {
        // clang-format off
        {"127.0.0.1:502", kPortRequired, true, "127.0.0.1", 502},
        {"gateway", 8000, true, "gateway", 8000},
        {"gateway", kFromDriver, true, "gateway", kFromDriver},
        {"[::1]:1502", kPortRequired, true, "::1", 1502},
        {"[::1]", 8000, true, "::1", 8000},
        {"gateway", kPortRequired, false, "", 0},      // a broker or web address needs its port
        {"::1", 8000, false, "", 0},                   // its last group is not a port: brackets
        {"fe80::1:502", kPortRequired, false, "", 0},
        {"[::1]1502", kPortRequired, false, "", 0},
        {"[]:502", kPortRequired, false, "", 0},
        {":502", kPortRequired, false, "", 0},
        {"gateway:", 8000, false, "", 0},
        {"gateway:0", kPortRequired, false, "", 0},
        {"gateway:65536", kPortRequired, false, "", 0},
        {"gateway:+80", kPortRequired, false, "", 0},
        {"gate way:80", kPortRequired, false, "", 0},
        {"http://gateway:80", kPortRequired, false, "", 0},
        // clang-format on
    };
    for (const auto &row : rows) {
        std::string host = "unchanged";
        int port = 7;
        EXPECT_EQ(parseHostPort(row.text, &host, &port, row.defaultPort), row.ok) << row.text;
        if (!row.ok) {
            EXPECT_EQ(host, "unchanged") << row.text << ": a refused address leaves nothing half-read";
            continue;
        }
        EXPECT_EQ(host, row.host) << row.text;
        EXPECT_EQ(port, row.port) << row.text;
        if (row.defaultPort == kPortRequired) {
            EXPECT_EQ(formatHostPort(host, port), row.text) << "shown as it is written";
        }
    }
}

// A failed block is named as the user writes items, in each area's own notation, so that
// it can be pasted back as an item.
TEST(HostCommon, FailedBlocksAreNamedAsItemsAreWritten)
{
    const struct {
        const char *area;
        Kind kind;
        int base, station, start, units;
        const char *text;
    } rows[] = {
        // clang-format off
        {"D_W", Kind::Word, 10, 9, 0, 4, "D_W:0..3@9"},
        {"D_W", Kind::Word, 10, 2, 5, 1, "D_W:5@2"},
        {"X", Kind::Bit, 8, 1, 8, 16, "X:10..27@1"},                 // octal addresses
        {"D_D", Kind::DWordOverWords, 10, 1, 200, 4, "D_D:200..202@1"}, // a value every two
        {"D_D", Kind::DWordOverWords, 10, 1, 200, 2, "D_D:200@1"},
        {"32C", Kind::DWord, 10, 1, 200, 8, "32C:200..203@1"},       // two registers each
        // clang-format on
    };
    for (const auto &row : rows) {
        const Area area{row.area, row.kind, row.base, 0, 0, {}, {}};
        EXPECT_EQ(blockText(area, row.station, row.start, row.units).toStdString(), row.text);
    }
}

TEST(HostCommon, PollRateCountsSinceTheLastLook)
{
    const Clock::time_point start{};
    PollRate rate(start);
    Stats stats;
    stats.polls = 10;
    EXPECT_DOUBLE_EQ(rate.perSecond(stats, start + std::chrono::seconds(2)), 5.0);
    EXPECT_DOUBLE_EQ(rate.perSecond(stats, start + std::chrono::seconds(4)), 0.0) << "no poll since";
    EXPECT_DOUBLE_EQ(rate.perSecond(stats, start + std::chrono::seconds(4)), 0.0) << "no time since";
}

} // namespace
