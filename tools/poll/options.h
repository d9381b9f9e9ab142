// rtuplc-poll's command line.
#ifndef RTUPLC_POLL_OPTIONS_H
#define RTUPLC_POLL_OPTIONS_H

#include <QString>
#include <QStringList>

#include <string>

#include "rtuplc_host/line_limits.h"

namespace rtupoll {

struct Options {
    enum class Link { BuiltIn, Tcp, Serial };

    std::string driverPath;
    Link link = Link::BuiltIn;
    std::string host;
    int port = -1; // -1: the driver's default
    std::string device;
    std::string lineText; // empty: the driver's default

    int station = rtuhost::kDefaultStation;
    int retries = rtuhost::kDefaultRetries;
    int gap = rtuhost::kDefaultGap;
    bool localWrite = false;
    int timeoutMs = rtuhost::kDefaultTimeoutMs;
    int pauseMs = rtuhost::kDefaultPauseMs;
    long long probeIntervalMs = 5000; // a silent station is tried once this often,
    long long probeMaxMs = 60000;     // less often while it stays silent, down to this

    bool hex = false;
    bool json = false;
    bool watch = false;
    bool verbose = false;
    std::string csvFile; // empty: no CSV log
    bool once = false;
    long count = 0;
    double durationSeconds = 0;

    QStringList items;
    QStringList writes;
    QString recipe, recipeDownload, recipeUpload;

    bool help = false;
    bool version = false;
};

// False with a message for a bad command line.
bool parseOptions(int argc, char **argv, Options *options, std::string *error);
extern const char kUsage[];

} // namespace rtupoll

#endif
