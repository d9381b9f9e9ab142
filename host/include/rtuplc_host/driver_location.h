// Which driver a host loads when the user names none, and what that driver proposes
// for a line the user leaves unsaid.
#ifndef RTUPLC_HOST_DRIVER_LOCATION_H
#define RTUPLC_HOST_DRIVER_LOCATION_H

#include <string>

#include "rtuplc_support/driver_api.h"
#include "rtuplc_support/serial_line.h"
#include "rtuplc_support/simulator.h"

namespace rtuhost {

using rtusupport::DriverApi;
using rtusupport::loadDriver;

// The driver built beside the running program (librtuplc.so in a build tree) if there
// is one, else the installed driver's SONAME, for the dynamic loader to find.
std::string defaultDriver();

// The driver's defaults for a new line, read from its parameter text
// "0,9600,8,EVEN,1,0,1,ADDRESS,PORT,NAME,AREAS..." (intf_getDriverParameter). A field
// the driver leaves out keeps the value below. The line is handed to
// rtusupport::parseSerialLine like a user's; a driver whose own line does not read is
// a broken driver (kExitDriver), not a user's mistake.
struct DriverDefaults {
    std::string line = rtusupport::formatSerialLine(rtusupport::SerialLine());
    std::string address = "127.0.0.1";
    int port = rtusupport::kDefaultTcpPort;
    std::string name;
};
DriverDefaults driverDefaults(const DriverApi &api);

} // namespace rtuhost

#endif
