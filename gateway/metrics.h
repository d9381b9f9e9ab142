// /metrics: the line's and the broker's figures in Prometheus' text format (0.0.4), for
// the monitoring operations already has.
#ifndef RTUPLC_GATEWAY_METRICS_H
#define RTUPLC_GATEWAY_METRICS_H

#include <map>
#include <string>
#include <vector>

#include "web_state.h"

namespace rtugw {

extern const char kMetricsContentType[];

// `stations`: station -> online; `gauges`: the values asked for with metrics: true.
std::string metricsText(const WebFigures &figures, const std::map<int, bool> &stations,
                        const std::vector<Gauge> &gauges = {});

} // namespace rtugw

#endif
