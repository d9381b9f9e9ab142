// log: { csv: DIR } — a row per change of a value or of its quality, in a file per day
// (DIR/rtuplc-NAME-YYYY-MM-DD.csv), the oldest days removed past log.max-size.
#ifndef RTUPLC_GATEWAY_CSV_SINK_H
#define RTUPLC_GATEWAY_CSV_SINK_H

#include <vector>

#include "model.h"
#include "rtuplc_host/csv_log.h"

namespace rtugw {

class CsvSink : public Sink {
public:
    explicit CsvSink(const Model &model);
    bool open(std::string *error);
    void valueChanged(size_t index) override;

private:
    struct Logged {
        bool known = false;
        uint32_t raw = 0;
        std::string words; // a string's
        bool good = false;
    };
    const Model &model_;
    rtuhost::CsvLog log_;
    std::vector<Logged> logged_;
    bool failing_ = false;
};

} // namespace rtugw

#endif
