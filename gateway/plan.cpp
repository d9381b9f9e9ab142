#include "plan.h"

#include <array>
#include <cstdio>
#include <map>
#include <set>
#include <string>

#include "dialect.h"
#include "modbus_pdu.h"
#include "modbus_server.h"
#include "model.h"

namespace rtugw {

using namespace rtuhost;

namespace {

// What an item's type leaves open, now that the area is known. Empty when it is sound;
// else the key and why.
std::pair<const char *, std::string> typeProblem(const ItemConfig &ic, const ValueType &t)
{
    const bool bitOfWord = t.bit >= 0;
    if (ic.readModifyWrite && !bitOfWord)
        return {"write", "only a bit of a register is written by reading its word; this item is written whole"};
    if (ic.writable && bitOfWord && !ic.readModifyWrite)
        return {"writable",
                "a bit of a register is written by reading the word and writing it back, which undoes "
                "whatever the controller changed in its other bits meanwhile: say write: read-modify-write"};
    if (ic.keyLines.count("deadband") && !t.number())
        return {"deadband", std::string("only a number moves by a deadband, and a ") + t.name() + " is not one"};
    if (ic.metrics && t.kind == rtuhost::ValueKind::String)
        return {"metrics", "a gauge is a number: a string has none"};
    if (!ic.stateClass.empty() && !t.number())
        return {"state-class", std::string("only a number has one, and a ") + t.name() + " is not one"};
    return {nullptr, {}};
}

} // namespace

std::string valuePath(const Point &p, const ValueType &type)
{
    return pathOf(p) + (type.bit >= 0 ? '.' + std::to_string(type.bit) : std::string());
}

bool makePlan(const Config &config, const DriverApi &api, const Catalogue &catalogue, LinePlan *plan,
              std::string *error)
{
    const std::string lineText = config.line.settings.empty() ? driverDefaults(api).line : config.line.settings;
    if (!rtusupport::parseSerialLine(lineText, &plan->line, error)) {
        *error = where(config, 0) + "line.settings: " + *error;
        return false;
    }
    std::map<std::string, size_t> byPath;
    for (const ItemConfig &ic : config.items) {
        Item item;
        QString why;
        std::string key;
        if (!parseItem(QString::fromStdString(ic.text), config.line.station, catalogue, api, &item, &why, false,
                       ic.type, &key)) {
            *error = where(config, key.empty() ? ic.line : ic.lineOf(key)) + "items" + (key.empty() ? "" : "." + key) +
                     ": " + why.toStdString();
            return false;
        }
        if (const auto [bad, reason] = typeProblem(ic, item.type); bad != nullptr) {
            *error = where(config, ic.lineOf(bad)) + "items." + bad + ": " + reason;
            return false;
        }
        item.every = std::chrono::milliseconds(ic.everyMs);
        for (const ValueSpan &span : item.values()) {
            PlannedValue v;
            v.points.assign(item.points.begin() + long(span.first),
                            item.points.begin() + long(span.first) + span.count);
            v.path = valuePath(v.points.front(), item.type);
            v.type = item.type;
            v.item = &ic;
            v.writable = ic.writable;
            const auto [at, added] = byPath.emplace(v.path, plan->values.size());
            if (added) {
                plan->values.push_back(v);
                continue;
            }
            // The same address twice is the same value, as long as neither gives it a meaning of its own.
            PlannedValue &first = plan->values[at->second];
            if (!first.type.plain || !v.type.plain) {
                *error = where(config, ic.line) + "items: " + v.path + " is published already, by the item on line " +
                         std::to_string(first.item->line) + ": an address has one meaning";
                return false;
            }
            first.writable = first.writable || v.writable;
        }
        plan->items.push_back(item);
        plan->configured.emplace_back(item, &ic);
    }
    const size_t values = plan->values.size();
    if (config.mqtt.buffer < values) {
        *error = where(config, 0) + "mqtt.buffer: " + std::to_string(config.mqtt.buffer) +
                 " cannot hold the latest value of each of the " + std::to_string(values) +
                 " values; give at least that many";
        return false;
    }
    return true;
}

std::vector<int> knownStations(const Config &config, const LinePlan &plan)
{
    std::set<int> known{config.line.station};
    for (const Item &item : plan.items)
        known.insert(item.station);
    for (const auto &[station, name] : config.stationNames)
        known.insert(station);
    return {known.begin(), known.end()};
}

namespace {

// What other masters reach, and the reads answered from what the polling carries: the
// blocks polled in turn, by the frames the driver builds for them.
void printServer(const Config &c, const LinePlan &plan, const std::vector<std::array<int, 4>> &blocks)
{
    const ModbusServerConfig &m = c.modbusServer;
    std::string text;
    for (const std::string &l : listenerNames(m, serverSerialLine(m, plan.line)))
        text += (text.empty() ? "" : ", ") + l;
    std::printf("modbus server: %s\n", text.c_str());
    text.clear();
    for (int station : knownStations(c, plan))
        text += (text.empty() ? "" : ", ") + std::to_string(station);
    std::printf("  stations %s; max-age %s; %s\n", text.c_str(),
                m.maxAgeMs > 0 ? (std::to_string(m.maxAgeMs) + " ms").c_str() : "two poll cycles, at most 1 s",
                m.writable.empty() ? "read only" : "writes to the writable ranges");
    if (!m.cache) {
        std::printf("  every read goes to the line (cache: false)\n");
        return;
    }
    for (const auto &[station, function, address, quantity] : blocks) {
        mb::Table table;
        bool write = false;
        if (mb::tableOf(uint8_t(function), &table, &write) && !write)
            std::printf("  from the cache: station %d %s %d..%d (function %02X)\n", station, mb::tableName(table),
                        address, address + quantity - 1, function);
    }
}

} // namespace

// The blocks are found by letting the driver walk its rotation with every request
// failing at once: nothing is sent.
void printPlan(const Config &c, const DriverApi &api, const Catalogue &catalogue, const LinePlan &plan)
{
    std::vector<unsigned char> memory(kHostMemoryBytes);
    std::vector<unsigned short> recipe(kRecipeBufferWords);
    QMutex lock;
    int err = 0;
    api.initProperty(memory.data(), 0, recipe.data(), &err, "1#0#0#1#64", &lock);
    QList<KEY_ADDRESS> keys;
    for (const Item &item : plan.items) {
        if (item.every.count() == 0) // a slow item is read on its own, out of the rotation
            keys.append(item.key());
    }
    const int blocks = api.addrMerge(keys);
    Model model(c, api, catalogue);
    const std::unique_ptr<Dialect> dialect = makeDialect(model);
    const std::string line = c.line.kind == LineConfig::Kind::Tcp
                                 ? "tcp " + c.line.host + ":" + std::to_string(c.line.port)
                                 : "serial " + c.line.device;
    std::printf("gateway %s: %s, broker %s, %s\n", c.name.c_str(), line.c_str(), c.mqtt.url.c_str(),
                dialect->where().c_str());
    std::printf("%d block%s polled in turn:\n", blocks, blocks == 1 ? "" : "s");
    std::vector<std::array<int, 4>> frames; // station, function, address, quantity
    for (int b = 0; b < blocks; ++b) {
        FRAME_PRO f;
        if (api.getSendFrame(f) != 1)
            break;
        if (f.frameLen >= 6)
            frames.push_back({f.frame[0], f.frame[1], f.frame[2] << 8 | f.frame[3], f.frame[4] << 8 | f.frame[5]});
        const Area *area = catalogue.find(f.regName);
        const QString block = area ? blockText(*area, f.station, f.startAddr, f.len) : f.regName;
        std::printf("  %s, %d unit%s (function %02X)\n", qPrintable(block), f.len, f.len == 1 ? "" : "s",
                    f.frameLen > 1 ? f.frame[1] : 0);
        QString ignored;
        api.dealRcvFrame(QByteArray(), ignored);
    }
    for (const Item &item : plan.items) {
        if (item.every.count() == 0 || item.points.empty())
            continue;
        int first = item.points.front().firstUnit(), end = first;
        for (const Point &p : item.points) {
            first = std::min(first, p.firstUnit());
            end = std::max(end, p.firstUnit() + p.units());
        }
        std::printf("  %s, read on its own every %g s\n",
                    qPrintable(blockText(*item.area, item.station, first, end - first)),
                    double(item.every.count()) / 1000.0);
    }
    std::printf("%zu value%s:\n", plan.values.size(), plan.values.size() == 1 ? "" : "s");
    for (const PlannedValue &v : plan.values)
        std::printf("  %s\n", dialect->planLine(v).c_str());
    if (c.modbusServer.enabled)
        printServer(c, plan, frames);
    api.setAddrValueChangeCallBack(nullptr);
}

} // namespace rtugw
