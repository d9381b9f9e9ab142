// What rtuplc-poll says about the loop's events: values, failed requests, writes and
// their confirmation, recipe progress, and with --verbose every frame exchanged.
#ifndef RTUPLC_POLL_REPORT_H
#define RTUPLC_POLL_REPORT_H

#include "output.h"
#include "rtuplc_host/host.h"

namespace rtupoll {

class Report : public rtuhost::HostEvents {
public:
    Report(Output &out, bool verbose) : out_(out), verbose_(verbose) {}

    void valueRead(const Point &point, uint32_t value) override;
    void requestFailed(const FRAME_PRO &frame, const rtuhost::Failure &failure) override;
    void writeSettled(uint64_t id, const rtuhost::WriteRequest &write, rtuhost::WriteOutcome outcome,
                      const QString &detail) override;
    void note(const QString &text) override;
    void exchanged(const FRAME_PRO &frame, const rtuhost::Exchange &exchange) override;
    void progress(const rtuhost::Stats &stats) override;

    static QString status(const rtuhost::Stats &stats);

private:
    Output &out_;
    bool verbose_;
};

} // namespace rtupoll

#endif
