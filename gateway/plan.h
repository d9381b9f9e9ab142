// The line as the configuration asks for it, checked by the driver before anything is
// opened: the serial settings, the items, what may be written. --check prints it.
#ifndef RTUPLC_GATEWAY_PLAN_H
#define RTUPLC_GATEWAY_PLAN_H

#include <string>
#include <utility>
#include <vector>

#include "config.h"
#include "rtuplc_host/host.h"
#include "rtuplc_support/serial_line.h"

namespace rtugw {

// A value as it is published: a topic, a metric, an entity of its own.
struct PlannedValue {
    std::string path;                   // STATION/AREA/ADDR[.BIT]: "1/D_W/100", "1/D_W/100.3"
    std::vector<rtuhost::Point> points; // what it is made of, in address order
    rtuhost::ValueType type;
    const ItemConfig *item = nullptr; // the first item that names it
    bool writable = false;
};

struct LinePlan {
    rtusupport::SerialLine line;
    std::vector<rtuhost::Item> items;
    std::vector<std::pair<rtuhost::Item, const ItemConfig *>> configured;
    std::vector<PlannedValue> values; // each once, in the items' order
};

// "1/D_W/100", "1/D_W/100.3": a value's path, its topic under the gateway's.
std::string valuePath(const rtuhost::Point &first, const rtuhost::ValueType &type);

// False with a message naming the file, the line and the key.
bool makePlan(const Config &config, const rtuhost::DriverApi &api, const rtuhost::Catalogue &catalogue, LinePlan *plan,
              std::string *error);

// The stations other masters may reach through the Modbus server: those the gateway
// polls or is told of (line.station, stations:).
std::vector<int> knownStations(const Config &config, const LinePlan &plan);

// The blocks the driver plans, in polling order, and where each value goes on the broker.
void printPlan(const Config &config, const rtuhost::DriverApi &api, const rtuhost::Catalogue &catalogue,
               const LinePlan &plan);

} // namespace rtugw

#endif
