#include "web_state.h"

#include <algorithm>
#include <limits>

#include "payload.h"

namespace rtugw {

namespace {

// Samples kept per value over the history window: a trend needs no more points than a
// screen is wide. Many values share a budget instead, so that the trends of a big line
// stay within about 10 MB however long it runs (16 bytes a sample): 10,000 values keep
// 60 samples each, one every 10 s of a 10-minute window.
constexpr size_t kSamplesPerValue = 1200;
constexpr size_t kMinSamplesPerValue = 60;
constexpr size_t kTrendBudget = 600000;

int64_t nowMs()
{
    return msSinceEpoch(std::chrono::system_clock::now());
}

std::string metaOf(const ValueState &s)
{
    const Point &p = s.point;
    const std::string address = s.path.substr(s.path.rfind('/') + 1);
    std::string m = "\"station\":" + std::to_string(p.station) + ",\"area\":" + jsonString(p.area->name.toStdString()) +
                    ",\"address\":" + jsonString(address) + ",\"path\":" + jsonString(s.path) +
                    ",\"writable\":" + (s.writable ? "true" : "false") +
                    ",\"bits\":" + (p.area->isBit() ? "true" : "false") +
                    ",\"width\":" + std::to_string(p.area->countPerValue() * 16);
    if (!s.type.plain)
        m += ",\"type\":" + jsonString(s.type.name());
    if (s.item != nullptr && !s.item->name.empty())
        m += ",\"name\":" + jsonString(s.item->name);
    if (s.item != nullptr && !s.item->unit.empty())
        m += ",\"unit\":" + jsonString(s.item->unit);
    return m;
}

// name="value" for a gauge's labels, escaped as the text format wants.
std::string label(const char *key, const std::string &value)
{
    std::string v;
    for (const char c : value)
        v += c == '\\' ? "\\\\" : c == '"' ? "\\\"" : c == '\n' ? "\\n" : std::string(1, c);
    return std::string(key) + "=\"" + v + '"';
}

} // namespace

void CycleHistogram::add(double seconds)
{
    ++count;
    sum += seconds;
    for (size_t i = 0; i < kCycleBuckets.size(); ++i) {
        if (seconds <= kCycleBuckets[i]) {
            ++counts[i];
            break;
        }
    }
}

void Trend::add(const Sample &s, int64_t resolution, size_t capacity)
{
    const size_t n = ring_.size();
    if (n > 1 && s.ms - at(n - 2).ms < resolution && at(n - 1).good() == s.good() && at(n - 2).good() == s.good()) {
        slot(n - 1) = s;
    } else if (n < capacity) {
        ring_.push_back(s); // the ring is still in order: head_ is 0
    } else if (capacity > 0) {
        ring_[head_] = s;
        head_ = (head_ + 1) % n;
    }
}

WebState::WebState(const Model &model, std::chrono::minutes history)
    : model_(model), historyMs_(std::chrono::duration_cast<std::chrono::milliseconds>(history).count())
{
    const std::vector<ValueState> &values = model.values();
    size_t trended = 0;
    for (const ValueState &v : values)
        trended += v.type.kind != rtuhost::ValueKind::String;
    trendSamples_ = historyMs_ == 0 ? 0
                                    : std::clamp(kTrendBudget / std::max<size_t>(trended, 1), kMinSamplesPerValue,
                                                 kSamplesPerValue);
    resolutionMs_ = trendSamples_ == 0 ? 0 : historyMs_ / int64_t(trendSamples_);
    items_.resize(values.size());
    for (size_t i = 0; i < values.size(); ++i) {
        const ValueState &v = values[i];
        items_[i].meta = metaOf(v);
        items_[i].type = v.type;
        items_[i].value = valueUpdate(i, v);
        if (v.item != nullptr && v.item->metrics) {
            std::string labels = label("station", std::to_string(v.point.station)) + ',' + label("path", v.path);
            if (!v.item->name.empty())
                labels += ',' + label("name", v.item->name);
            if (!v.item->unit.empty())
                labels += ',' + label("unit", v.item->unit);
            items_[i].gauge = long(gauges_.size());
            gauges_.push_back(Gauge{labels, 0, false});
        }
    }
    isMarked_.assign(values.size(), false);
    for (const auto &[station, state] : model.stations())
        stations_[station] = state.online;
}

void WebState::valueChanged(size_t index)
{
    if (isMarked_[index])
        return;
    isMarked_[index] = true;
    marked_.push_back(index);
}

void WebState::flush()
{
    if (marked_.empty())
        return;
    {
        std::lock_guard<std::mutex> g(lock_);
        for (const size_t index : marked_) {
            isMarked_[index] = false;
            const ValueState &s = model_.values()[index];
            Item &item = items_[index];
            item.value = valueUpdate(index, s);
            item.seq = ++seq_;
            double number = 0;
            const bool isNumber = valueNumber(item.value, s.type, &number);
            if (item.gauge >= 0)
                gauges_[size_t(item.gauge)] = Gauge{gauges_[size_t(item.gauge)].labels, number, isNumber && s.good};
            // A trend draws numbers; a string, or a value never read, has none.
            if (!s.known || s.type.kind == rtuhost::ValueKind::String)
                continue;
            const double bad = std::numeric_limits<double>::quiet_NaN();
            item.history.add(Sample{item.value.ms, s.good && isNumber ? number : bad}, resolutionMs_, trendSamples_);
        }
    }
    marked_.clear();
    changed_.notify_all();
}

void WebState::stationsChanged()
{
    flush(); // the values a station's change concerns come first
    std::lock_guard<std::mutex> g(lock_);
    for (const auto &[station, state] : model_.stations())
        stations_[station] = state.online;
    stationsSeq_ = ++seq_;
    changed_.notify_all();
}

void WebState::setFigures(WebFigures figures)
{
    std::lock_guard<std::mutex> g(lock_);
    figures_ = std::move(figures);
    figuresSeq_ = ++seq_;
    changed_.notify_all();
}

void WebState::setReads(const std::vector<SystemTime> &reads)
{
    std::vector<int64_t> ms(reads.size());
    for (size_t b = 0; b < reads.size(); ++b)
        ms[b] = msSinceEpoch(reads[b]);
    std::lock_guard<std::mutex> g(lock_);
    if (ms == reads_)
        return;                       // nothing polled since: the page has it
    if (ms.size() != reads_.size()) { // a block polled for the first time
        blockOf_.resize(items_.size());
        for (size_t i = 0; i < items_.size(); ++i)
            blockOf_[i] = model_.blockOf(model_.values()[i]);
        blocksSeq_ = ++seq_;
    }
    reads_ = std::move(ms);
    readsSeq_ = ++seq_;
    changed_.notify_all();
}

std::vector<std::shared_ptr<PendingWrite>> WebState::takeWrites()
{
    std::lock_guard<std::mutex> g(lock_);
    std::vector<std::shared_ptr<PendingWrite>> taken;
    taken.swap(writes_);
    return taken;
}

void WebState::queueWrite(const std::shared_ptr<PendingWrite> &write)
{
    std::lock_guard<std::mutex> g(lock_);
    writes_.push_back(write);
}

std::string WebState::itemsJson() const
{
    std::lock_guard<std::mutex> g(lock_);
    std::string json = "[";
    for (size_t i = 0; i < items_.size(); ++i) {
        if (i > 0)
            json += ',';
        // The topic's payload, with what names the value in front.
        json += '{' + items_[i].meta + ',' + valueJson(items_[i].value, items_[i].type).substr(1);
    }
    return json + ']';
}

bool WebState::historyJson(const std::string &path, std::string *json) const
{
    const long index = model_.find(path);
    if (index < 0)
        return false;
    const int64_t now = nowMs();
    std::lock_guard<std::mutex> g(lock_);
    std::string j = "{\"path\":" + jsonString(path) + ",\"window\":" + std::to_string(historyMs_ / 1000) +
                    ",\"now\":" + std::to_string(now) + ",\"points\":[";
    // The newest sample older than the window is its start: the value it opens with.
    const Trend &h = items_[size_t(index)].history;
    size_t from = 0;
    while (from + 1 < h.size() && h.at(from + 1).ms < now - historyMs_)
        ++from;
    for (size_t i = from; i < h.size(); ++i) {
        const Sample &s = h.at(i);
        j += i == from ? "[" : ",[";
        j += std::to_string(s.ms) + ',' + (s.good() ? rtuhost::formatNumber(s.value, items_[size_t(index)].type) : "null") +
             ']';
    }
    *json = j + "]}";
    return true;
}

std::string WebState::statsJson() const
{
    std::lock_guard<std::mutex> g(lock_);
    return figures_.statsJson;
}

std::vector<Gauge> WebState::gauges() const
{
    std::lock_guard<std::mutex> g(lock_);
    return gauges_;
}

WebFigures WebState::figures() const
{
    std::lock_guard<std::mutex> g(lock_);
    return figures_;
}

std::map<int, bool> WebState::stations() const
{
    std::lock_guard<std::mutex> g(lock_);
    return stations_;
}

std::string WebState::stationsJsonLocked() const
{
    std::string j = "[";
    for (const auto &[station, online] : stations_) {
        if (j.size() > 1)
            j += ',';
        j += "{\"station\":" + std::to_string(station) + ",\"online\":" + (online ? "true" : "false");
        const auto name = model_.config().stationNames.find(station);
        if (name != model_.config().stationNames.end())
            j += ",\"name\":" + jsonString(name->second);
        j += '}';
    }
    return j + ']';
}

std::string WebState::figuresJsonLocked() const
{
    const WebFigures &f = figures_;
    const double meanCycleMs = f.host.finished ? double(f.host.cycleTotal.count()) / 1000.0 / double(f.host.finished)
                                               : 0.0;
    char extra[160];
    std::snprintf(extra, sizeof extra, ",\"mean_cycle_ms\":%.2f,\"broker_up\":%s,\"broker\":", meanCycleMs,
                  f.brokerUp ? "true" : "false");
    const std::string stats = f.statsJson.empty() ? std::string("{}") : f.statsJson;
    std::string probes = ",\"probes\":" + std::to_string(f.host.probes) + ",\"next_probe\":{";
    for (const auto &[station, at] : f.nextProbe)
        probes += (probes.back() == '{' ? "\"" : ",\"") + std::to_string(station) + "\":" + std::to_string(at);
    // The stats topic's object, with what only the page shows added at its end.
    return stats.substr(0, stats.size() - 1) + (stats.size() > 2 ? "" : "\"_\":0") + extra + jsonString(f.brokerState) +
           probes + "}}";
}

std::string WebState::updatesSince(uint64_t *seen, std::chrono::milliseconds wait)
{
    std::unique_lock<std::mutex> g(lock_);
    const uint64_t since = *seen;
    changed_.wait_for(g, wait, [&] { return stopping_ || seq_ > since; });
    if (stopping_ || seq_ == since)
        return {};
    std::string j = "{\"now\":" + std::to_string(nowMs());
    if (since == 0) {
        j += ",\"history_minutes\":" + std::to_string(historyMs_ / 60000) + ",\"items\":[";
        for (size_t i = 0; i < items_.size(); ++i)
            j += (i ? ",{\"i\":" : "{\"i\":") + std::to_string(i) + ',' + items_[i].meta + ',' +
                 valueJson(items_[i].value, items_[i].type).substr(1);
        j += ']';
    } else {
        std::string changed;
        for (size_t i = 0; i < items_.size(); ++i) {
            if (items_[i].seq <= since)
                continue;
            changed += changed.empty() ? "{\"i\":" : ",{\"i\":";
            changed += std::to_string(i) + ',' + valueJson(items_[i].value, items_[i].type).substr(1);
        }
        if (!changed.empty())
            j += ",\"items\":[" + changed + ']';
    }
    if (since == 0 || stationsSeq_ > since)
        j += ",\"stations\":" + stationsJsonLocked();
    if (since == 0 || figuresSeq_ > since)
        j += ",\"figures\":" + figuresJsonLocked();
    const auto list = [](const auto &numbers) {
        std::string l = "[";
        for (const auto n : numbers)
            l += (l.size() > 1 ? "," : "") + std::to_string(n);
        return l + ']';
    };
    if ((since == 0 && !blockOf_.empty()) || blocksSeq_ > since)
        j += ",\"blocks\":" + list(blockOf_);
    if ((since == 0 && !reads_.empty()) || readsSeq_ > since)
        j += ",\"reads\":" + list(reads_);
    *seen = seq_;
    return j + '}';
}

void WebState::stop()
{
    std::lock_guard<std::mutex> g(lock_);
    stopping_ = true;
    changed_.notify_all();
}

} // namespace rtugw
