// The line as the configuration asks for it, checked by the driver before anything is
// opened: the serial settings, the items, what may be written. --check prints it.
#ifndef RTUPLC_GATEWAY_PLAN_H
#define RTUPLC_GATEWAY_PLAN_H

#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "config.h"
#include "rtuplc_host/host.h"
#include "rtuplc_support/serial_line.h"

namespace rtugw {

struct LinePlan {
    rtusupport::SerialLine line;
    std::vector<rtuhost::Item> items;
    std::vector<std::pair<rtuhost::Item, const ItemConfig *>> configured;
    std::vector<rtuhost::Point> points; // each value once, in the items' order
    std::set<std::tuple<int, QString, int>> writable;
};

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
