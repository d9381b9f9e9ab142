#include "modbus_stats.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace rtugw {

double ModbusFigures::hitRatio() const
{
    const double hits = double(fromCache), asked = hits + double(forwardedReads);
    return asked > 0 ? hits / asked : 0.0;
}

size_t ModbusFigures::functionIndex(uint8_t function)
{
    static constexpr uint8_t kCodes[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x0F, 0x10};
    const auto *end = std::end(kCodes);
    const auto *at = std::find(std::begin(kCodes), end, function);
    return at == end ? kFunctions - 1 : size_t(at - std::begin(kCodes));
}

const char *ModbusFigures::functionLabel(size_t index)
{
    static const char *const kLabels[kFunctions] = {"01", "02", "03", "04", "05", "06", "0F", "10", "other"};
    return index < kFunctions ? kLabels[index] : "other";
}

ModbusFigures ModbusServerStats::figures() const
{
    ModbusFigures f;
    for (size_t i = 0; i < kFunctions; ++i)
        f.requests[i] = requests[i].load();
    for (size_t i = 0; i < kExceptionCodes; ++i)
        f.exceptions[i] = exceptions[i].load();
    f.fromCache = fromCache.load();
    f.forwarded = forwarded.load();
    f.forwardedReads = forwardedReads.load();
    f.lineAnswers = lineAnswers.load();
    f.unanswered = unanswered.load();
    f.lineMicros = lineMicros.load();
    f.refused = refused.load();
    f.dropped = dropped.load();
    f.queued = queued.load();
    f.masters = masters.load();
    return f;
}

std::string figuresJson(const ModbusFigures &f)
{
    // Only what happened is listed, so that a line of masters reading 03 does not carry
    // eight zeros and twelve exception codes in every stats message.
    const auto counts = [](const uint64_t *n, size_t size, auto label) {
        std::string out = "{";
        for (size_t i = 0; i < size; ++i) {
            if (n[i] == 0)
                continue;
            out += (out.size() > 1 ? ",\"" : "\"") + label(i) + "\":" + std::to_string(n[i]);
        }
        return out + '}';
    };
    const std::string requests =
        counts(f.requests, ModbusFigures::kFunctions, [](size_t i) { return std::string(ModbusFigures::functionLabel(i)); });
    const std::string exceptions = counts(f.exceptions, ModbusFigures::kExceptionCodes, [](size_t i) {
        char code[4];
        std::snprintf(code, sizeof code, "%02zX", i);
        return std::string(code);
    });
    char text[512];
    std::snprintf(text, sizeof text,
                  "{\"masters\":%lld,\"requests\":%s,\"from_cache\":%llu,\"forwarded\":%llu,\"hit_ratio\":%.3f,"
                  "\"exceptions\":%s,\"unanswered\":%llu,\"queued\":%lld,\"line_ms\":%llu,\"refused\":%llu,"
                  "\"dropped\":%llu}",
                  (long long)f.masters, requests.c_str(), (unsigned long long)f.fromCache,
                  (unsigned long long)f.forwarded, f.hitRatio(), exceptions.c_str(), (unsigned long long)f.unanswered,
                  (long long)f.queued, (unsigned long long)(f.lineMicros / 1000), (unsigned long long)f.refused,
                  (unsigned long long)f.dropped);
    return text;
}

std::string withServerFigures(std::string stats, const ModbusServerStats *server)
{
    if (!server || stats.size() < 2 || stats.back() != '}')
        return stats;
    stats.pop_back();
    return stats + ",\"modbus_server\":" + figuresJson(server->figures()) + '}';
}

} // namespace rtugw
