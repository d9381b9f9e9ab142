// What rtuplc-poll says about the loop's events: values, failed requests, writes and
// their confirmation, recipe progress, and with --verbose every frame exchanged.
#ifndef RTUPLC_POLL_REPORT_H
#define RTUPLC_POLL_REPORT_H

#include <vector>

#include "output.h"
#include "rtuplc_host/csv_log.h"
#include "rtuplc_host/host.h"

namespace rtupoll {

class Report : public rtuhost::HostEvents {
public:
    Report(Output &out, bool verbose) : out_(out), verbose_(verbose) {}

    // The values to show: each item's, in the order given, then each point of the host
    // no item shows (a write's target, polled to confirm it). After the writes are given.
    void track(rtuhost::Host &host, const std::vector<rtuhost::Item> &items);
    // Their labels and stations, for the live table.
    std::vector<QString> labels() const;
    std::vector<int> stations() const;
    // Rows to `log` for every change of value or quality.
    void logTo(rtuhost::CsvLog *log) { csv_ = log; }

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
        std::string value, raw;
        bool good = false;
    };
    struct Value {
        Point point; // where it starts
        rtuhost::ValueType type;
        QString label;
        std::vector<size_t> points; // into the host's points, in address order
        Logged logged;
    };
    void show(size_t value);
    // Values over several points, shown once the reply that changed them is whole.
    void flush();
    void logRow(Value &value, const Logged &now);
    void logQuality(const FRAME_PRO &frame, bool good);

    Output &out_;
    bool verbose_;
    rtuhost::CsvLog *csv_ = nullptr;
    rtuhost::Host *host_ = nullptr;
    std::vector<Value> values_;
    std::vector<std::vector<size_t>> feeds_; // by host point: the values made of it
    std::vector<uint32_t> raw_;              // by host point: as last reported
    std::vector<size_t> pending_;
    bool csvFailing_ = false;
};

} // namespace rtupoll

#endif
