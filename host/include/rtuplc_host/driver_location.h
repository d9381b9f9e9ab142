// Which driver a host loads when the user names none.
#ifndef RTUPLC_HOST_DRIVER_LOCATION_H
#define RTUPLC_HOST_DRIVER_LOCATION_H

#include <string>

#include "rtuplc_support/driver_api.h"

namespace rtuhost {

using rtusupport::DriverApi;
using rtusupport::loadDriver;

// The driver built beside the running program (librtuplc.so in a build tree) if there
// is one, else the installed driver's SONAME, for the dynamic loader to find.
std::string defaultDriver();

} // namespace rtuhost

#endif
