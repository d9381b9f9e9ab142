// What every program on the host layer says at its edges: its exit status and its
// version. rtuplc-poll and rtuplc-gateway return these codes, and scripts and the
// service manager rely on the numbers, so they never change.
#ifndef RTUPLC_HOST_PROGRAM_H
#define RTUPLC_HOST_PROGRAM_H

#include <string>

namespace rtuhost {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1; // a request failed, a write was not confirmed, a recipe failed
constexpr int kExitUsage = 2;  // bad command line, configuration, item, value or file
constexpr int kExitDriver = 3; // the driver cannot be loaded or lacks an intf_* function
constexpr int kExitLink = 4;   // the serial line or the TCP connection cannot be opened

// The project's version, "2.0.0".
const char *projectVersion();
// What --version prints: "rtuplc-poll 2.0.0".
std::string versionLine(const char *program);

} // namespace rtuhost

#endif
