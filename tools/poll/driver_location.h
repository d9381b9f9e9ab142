// Which driver rtuplc-poll loads when the user names none.
#ifndef RTUPLC_POLL_DRIVER_LOCATION_H
#define RTUPLC_POLL_DRIVER_LOCATION_H

#include <string>

#include "rtuplc_support/driver_api.h"

namespace rtupoll {

using rtusupport::DriverApi;
using rtusupport::loadDriver;

// The driver built beside the running program (librtuplc.so in a build tree) if there
// is one, else the installed driver's SONAME, for the dynamic loader to find.
std::string defaultDriver();

} // namespace rtupoll

#endif
