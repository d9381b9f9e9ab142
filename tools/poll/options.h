// rtuplc-poll's command line.
#ifndef RTUPLC_POLL_OPTIONS_H
#define RTUPLC_POLL_OPTIONS_H

#include <QString>
#include <QStringList>

#include <string>

namespace rtupoll {

// Exit codes, as --help documents them.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;   // a request failed, a write was not confirmed, a recipe failed
constexpr int kExitUsage = 2;    // bad options, items or files
constexpr int kExitDriver = 3;   // the driver cannot be loaded or lacks functions
constexpr int kExitLink = 4;     // the serial line or TCP connection cannot be opened

struct Options {
    enum class Link { BuiltIn, Tcp, Serial };

    std::string driverPath;
    Link link = Link::BuiltIn;
    std::string host;
    int port = -1; // -1: the driver's default
    std::string device;
    std::string lineText; // empty: the driver's default

    int station = 1;
    int retries = 3;
    int gap = 64;
    bool localWrite = false;
    int timeoutMs = 500;
    int pauseMs = 0;

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
};

// False with a message for a bad command line.
bool parseOptions(int argc, char **argv, Options *options, std::string *error);
extern const char kUsage[];

} // namespace rtupoll

#endif
