#include "csv_sink.h"

#include "payload.h"
#include "rtuplc_host/log.h"

namespace rtugw {

namespace {

rtuhost::CsvLogSettings settingsOf(const Config &c)
{
    const bool daily = c.log.rotate == LogConfig::Rotate::Daily;
    const std::string stem = c.log.csvDir + "/rtuplc-" + c.name;
    return rtuhost::CsvLogSettings{daily ? stem : stem + ".csv", daily, c.log.maxBytes};
}

} // namespace

CsvSink::CsvSink(const Model &model) : model_(model), log_(settingsOf(model.config())), logged_(model.values().size())
{
}

bool CsvSink::open(std::string *error)
{
    if (log_.open(error))
        return true;
    *error = where(model_.config(), 0) + "log.csv: " + *error;
    return false;
}

void CsvSink::valueChanged(size_t index)
{
    const ValueState &s = model_.values()[index];
    Logged &last = logged_[index];
    // A new error text on a value already bad, or a heartbeat, is no change a spreadsheet needs.
    if (last.known == s.known && last.raw == s.raw && last.words == s.words && last.good == s.good)
        return;
    last = Logged{s.known, s.raw, s.words, s.good};
    const Point &p = s.point;
    const std::string item = s.item != nullptr && !s.item->name.empty() ? s.item->name : p.area->name.toStdString();
    rtuhost::CsvRow row{s.ts, p.station, item, s.path.substr(s.path.rfind('/') + 1), {}, {}, s.good};
    valueTexts(valueUpdate(index, s), s.type, &row.value, &row.raw);
    std::string error;
    const bool ok = log_.append(row, &error);
    // Said when the log stops working and when it works again; the gateway goes on.
    if (ok == failing_) {
        failing_ = !ok;
        if (ok)
            rtuhost::logNotice("the CSV log is written again to %s", log_.currentFile().c_str());
        else
            rtuhost::logWarning("log.csv: %s", error.c_str());
    }
}

} // namespace rtugw
