// What a host accepts for the line's settings, named once so that rtuplc-poll's
// options and rtuplc-gateway's configuration refuse the same values with the same
// bounds. Every value inside them is one the driver takes in its property text
// (id#localWrite#0#retries#gap): it reads any count of attempts and any gap, so the
// bounds are the host's judgement of what is useful on a line, never narrower than
// what either tool accepted before, so that no command line or configuration that
// worked stops working.
#ifndef RTUPLC_HOST_LINE_LIMITS_H
#define RTUPLC_HOST_LINE_LIMITS_H

#include "rtuplc_support/modbus.h"

namespace rtuhost {

// Stations: 0 is the broadcast, which every station obeys and none answers, so only a
// write may name it; a poll names one of 1..247.
constexpr int kBroadcastStation = rtusupport::kBroadcastStation;
constexpr int kLowestStation = kBroadcastStation + 1;
constexpr int kHighestStation = rtusupport::kHighestStation;
constexpr int kDefaultStation = 1;

// Attempts of a request before it fails. Each takes up to a time-out while every other
// station waits, so a hundred is already a line stalled for a long time; more would only
// hide a dead station.
constexpr int kMinRetries = 1;
constexpr int kMaxRetries = 100;
constexpr int kDefaultRetries = 3;

// The turnaround margin added to the transmission time of request and reply. A serial
// line answers in milliseconds, but a TCP link may reach the line through a radio or
// cellular modem that holds a reply for seconds; ten minutes is far beyond any line and
// harmless, since the margin only bounds a wait that a reply ends early.
constexpr int kMinTimeoutMs = 1;
constexpr int kMaxTimeoutMs = 600000;
constexpr int kDefaultTimeoutMs = 500;

// The rest between the end of one exchange and the next frame, for slow devices; the
// same ceiling as the time-out.
constexpr int kMinPauseMs = 0;
constexpr int kMaxPauseMs = kMaxTimeoutMs;
constexpr int kDefaultPauseMs = 0;

// The largest gap read across between items, in registers, which the driver also takes
// as the largest write: one standard write frame carries at most 123 registers.
constexpr int kMinGap = 1;
constexpr int kMaxGap = rtusupport::kStandardMaxWriteRegisters;
constexpr int kDefaultGap = 64;

// TCP ports of HOST:PORT.
constexpr int kLowestPort = 1;
constexpr int kHighestPort = 65535;

} // namespace rtuhost

#endif
