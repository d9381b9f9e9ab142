// Telling systemd how the service is: ready once polling runs, alive from the poll
// loop (so that a hung loop is restarted by the watchdog), and a one-line status.
// Without NOTIFY_SOCKET every call does nothing.
#ifndef RTUPLC_GATEWAY_NOTIFY_H
#define RTUPLC_GATEWAY_NOTIFY_H

#include <chrono>
#include <functional>
#include <string>

namespace rtugw {

class ServiceNotifier {
public:
    ServiceNotifier();
    void ready(const std::string &status);
    void stopping();
    // From the poll loop: WATCHDOG=1 at a third of the watchdog's time, and the status
    // when it changed, at most every few seconds.
    void alive(const std::function<std::string()> &status);
    bool watchdogEnabled() const { return watchdog_.count() > 0; }

private:
    std::chrono::microseconds watchdog_{0};
    std::chrono::steady_clock::time_point lastPing_{};
    std::chrono::steady_clock::time_point lastStatus_{};
    std::string status_;
};

} // namespace rtugw

#endif
