// What rtuplc-poll says about the loop's events: values, failed requests, writes and
// their confirmation, recipe progress, and with --verbose every frame exchanged.
#ifndef RTUPLC_POLL_REPORT_H
#define RTUPLC_POLL_REPORT_H

#include <map>
#include <tuple>

#include "output.h"
#include "rtuplc_host/csv_log.h"
#include "rtuplc_host/host.h"

namespace rtupoll {

class Report : public rtuhost::HostEvents {
public:
    Report(Output &out, bool verbose) : out_(out), verbose_(verbose) {}

    // Rows to `log` for every change of value or quality of the host's points.
    void logTo(rtuhost::CsvLog *log, rtuhost::Host *host)
    {
        csv_ = log;
        host_ = host;
    }

    void valueRead(const Point &point, uint32_t value) override;
    void blockRead(const FRAME_PRO &frame) override;
    void requestFailed(const FRAME_PRO &frame, const rtuhost::Failure &failure) override;
    void writeSettled(uint64_t id, const rtuhost::WriteRequest &write, rtuhost::WriteOutcome outcome,
                      const QString &detail) override;
    void note(const QString &text) override;
    void exchanged(const FRAME_PRO &frame, const rtuhost::Exchange &exchange) override;
    void progress(const rtuhost::Stats &stats) override;

    static QString status(const rtuhost::Stats &stats);

private:
    struct Logged {
        bool known = false;
        uint32_t value = 0;
        bool good = false;
    };
    void logRow(const Point &point, const Logged &now);
    void logQuality(const FRAME_PRO &frame, bool good);

    Output &out_;
    bool verbose_;
    rtuhost::CsvLog *csv_ = nullptr;
    rtuhost::Host *host_ = nullptr;
    std::map<std::tuple<int, QString, int>, Logged> logged_;
    bool csvFailing_ = false;
};

} // namespace rtupoll

#endif
