// How a host is asked to stop: SIGINT or SIGTERM set a flag the loop watches. Installed
// without SA_RESTART, so a wait for a reply in progress ends at once.
#ifndef RTUPLC_HOST_STOP_SIGNALS_H
#define RTUPLC_HOST_STOP_SIGNALS_H

#include <atomic>

namespace rtuhost {

// Installs the handlers (once) and returns the flag they set.
const std::atomic<bool> &stopOnSignals();

} // namespace rtuhost

#endif
