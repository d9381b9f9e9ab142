// The JSON the gateway speaks, said once: a value as its topic carries it (and the page,
// the API and the CSV show it), a write request and its answer, the line's figures.
#ifndef RTUPLC_GATEWAY_PAYLOAD_H
#define RTUPLC_GATEWAY_PAYLOAD_H

#include <cstdint>
#include <string>

#include "model.h"
#include "mqtt_client.h"

namespace rtugw {

std::string jsonString(const std::string &s);
// 2026-11-24T14:02:11.204Z
std::string isoTime(int64_t msSinceEpoch);
int64_t msSinceEpoch(SystemTime t);

// A value's figures, compact, to be made into its payload when it is sent. A string's
// registers travel in front of its error, two bytes each.
ValueUpdate valueUpdate(size_t index, const ValueState &s);
// {"value":1234,"quality":"good","ts":"..."} and, when bad, "error". A plain value is
// the area's unsigned number, as it always was; a typed one its engineering value (a
// number, true or false, a string; null where the words hold no number), followed by
// "raw", the registers as read, where that says something else: a number for one or
// two registers (the first in the high half), a list of them for a string.
std::string valueJson(const ValueUpdate &v, const ValueType &type);
// A reading as its topic shows it: a number, true or false, text quoted, null for none.
std::string readingJson(const rtuhost::Reading &r, const ValueType &type);
// The same for the CSV log: the value as text (empty when never read or no number) and
// the raw registers (empty where they say the same; a string's words separated by spaces).
void valueTexts(const ValueUpdate &v, const ValueType &type, std::string *value, std::string *raw);
// The value as a number, for a trend or a gauge (a bool 0 or 1); false when it has none.
bool valueNumber(const ValueUpdate &v, const ValueType &type, double *number);

// A write request's payload: a bare value, or {"value":1234,"id":...}.
struct WriteRequestPayload {
    std::string idJson = "null";
    std::string value;   // as given: a number, true (1) or false (0), or text
    bool isText = false; // given as a JSON string
    std::string error;   // why the payload is unusable
};
WriteRequestPayload parseWriteRequest(const std::string &payload);
// {"id":...,"ok":true,"value":1234} (the value as its topic will show it) or
// {"id":...,"ok":false,"error":"..."}
std::string answerJson(const std::string &idJson, const WriteAnswer &a);

// The line's, the broker's and the writes' figures, as the stats topic carries them.
std::string statsJson(const rtuhost::Stats &h, const MqttStats &m, const WriteCounters &w, double pollsPerSecond,
                      long long uptimeSeconds);

} // namespace rtugw

#endif
