#include "rtuplc_host/stop_signals.h"

#include <signal.h>

namespace rtuhost {

namespace {

std::atomic<bool> g_stop{false};

void onSignal(int)
{
    g_stop = true;
}

} // namespace

const std::atomic<bool> &stopOnSignals()
{
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    return g_stop;
}

} // namespace rtuhost
