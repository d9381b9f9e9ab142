#include "modbus_stats.h"

#include <algorithm>
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

} // namespace rtugw
