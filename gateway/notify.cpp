#include "notify.h"

#include <systemd/sd-daemon.h>

namespace rtugw {

namespace {
constexpr std::chrono::seconds kStatusEvery{5};
}

ServiceNotifier::ServiceNotifier()
{
    uint64_t usec = 0;
    if (sd_watchdog_enabled(0, &usec) > 0)
        watchdog_ = std::chrono::microseconds(usec);
}

void ServiceNotifier::ready(const std::string &status)
{
    status_ = status;
    lastStatus_ = lastPing_ = std::chrono::steady_clock::now();
    sd_notifyf(0, "READY=1\nSTATUS=%s", status.c_str());
    if (watchdogEnabled())
        sd_notify(0, "WATCHDOG=1");
}

void ServiceNotifier::stopping()
{
    sd_notify(0, "STOPPING=1\nSTATUS=stopping");
}

void ServiceNotifier::alive(const std::function<std::string()> &status)
{
    const auto now = std::chrono::steady_clock::now();
    if (watchdogEnabled() && now - lastPing_ >= watchdog_ / 3) {
        sd_notify(0, "WATCHDOG=1");
        lastPing_ = now;
    }
    if (now - lastStatus_ < kStatusEvery)
        return;
    lastStatus_ = now;
    const std::string text = status();
    if (text != status_) {
        sd_notifyf(0, "STATUS=%s", text.c_str());
        status_ = text;
    }
}

} // namespace rtugw
