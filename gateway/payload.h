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

// A value's figures, compact, to be made into its payload when it is sent.
ValueUpdate valueUpdate(size_t index, const PointState &s);
// {"value":1234,"quality":"good","ts":"..."} and, when bad, "error".
std::string valueJson(const ValueUpdate &v);

// A write request's payload: a bare number, or {"value":1234,"id":...}.
struct WriteRequestPayload {
    std::string idJson = "null";
    std::string value; // empty: not a number
    std::string error; // why the payload is unusable
};
WriteRequestPayload parseWriteRequest(const std::string &payload);
// {"id":...,"ok":true,"value":1234} or {"id":...,"ok":false,"error":"..."}
std::string answerJson(const std::string &idJson, const WriteAnswer &a);

// The line's, the broker's and the writes' figures, as the stats topic carries them.
std::string statsJson(const rtuhost::Stats &h, const MqttStats &m, const WriteCounters &w, double pollsPerSecond,
                      long long uptimeSeconds);

} // namespace rtugw

#endif
