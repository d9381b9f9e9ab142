// What the user asks to poll and write, in the areas' own notation ("D_W:100..109",
// "X:0..17" in octal, "D_D:200", "32C:201=70000"), with a type where the words mean
// more than an unsigned number ("D_D:200:float32", "D_W:100:int16", "D_W:100.3"),
// checked by the driver itself before anything is sent.
#ifndef RTUPLC_HOST_ITEMS_H
#define RTUPLC_HOST_ITEMS_H

#include <QString>
#include <QStringList>

#include <chrono>
#include <cstdint>
#include <vector>

#include "driver_location.h"
#include "value_type.h"

namespace rtuhost {

struct Area {
    QString name; // as the driver names it, e.g. "D_W"
    Kind kind = Kind::Word;
    int base = 10; // notation of addresses: 8, 10 or 16
    int lowest = 0;
    int highest = 0;
    QString lowestText, highestText;

    bool isBit() const { return kind == Kind::Bit; }
    // Addresses from one value to the next.
    int step() const { return kind == Kind::DWordOverWords ? 2 : 1; }
    // Units of intf_checkAddrValidity and intf_getData per value: bits, or 16-bit words.
    int countPerValue() const { return kind == Kind::DWord || kind == Kind::DWordOverWords ? 2 : 1; }
    // Name of the driver's cache under which D_D and D_W share their registers.
    QString cachePrefix() const { return name.section('_', 0, 0); }
    QString format(int address) const { return QString::number(address, base); }
};

// The driver's register areas, as the driver describes them.
class Catalogue {
public:
    explicit Catalogue(const DriverApi &api);
    // Exact name first, then a name that differs only in case.
    const Area *find(const QString &name) const;
    QStringList names() const;

private:
    std::vector<Area> areas_;
};

// One value the driver reports: the item text and address of its callback.
struct Point {
    int station = 1;
    const Area *area = nullptr;
    int address = 0;

    QString label() const { return area->name + ':' + area->format(address); }
    // The cache units the value lives in: [firstUnit, firstUnit + units) of cachePrefix.
    int firstUnit() const { return address; }
    int units() const { return area->kind == Kind::DWordOverWords ? 2 : 1; }
};

// One value of an item: `count` of its points from `first`.
struct ValueSpan {
    size_t first = 0;
    int count = 1;
};

struct Item {
    QString text;
    int station = 1;
    const Area *area = nullptr;
    int first = 0; // address of the first and the last point
    int last = 0;
    std::vector<Point> points; // what is polled: a register each where a value spans several
    // How often its values are wanted; zero: as fast as the line goes.
    std::chrono::milliseconds every{0};
    ValueType type; // of each of its values

    KEY_ADDRESS key() const;
    // Its values, in address order: a point each, unless the type spans several
    // registers of a 16-bit area (a 32-bit value two, a string the whole range).
    std::vector<ValueSpan> values() const;
    // "D_W:100", "D_W:100.3": where a value starts, as it is written.
    QString valueLabel(const ValueSpan &value) const;
};

// A run of `units` (bits, or 16-bit registers, as the driver counts a block) of `area`
// from `start` at `station`, written as items are: "D_W:0..3@9", "X:0..17@1" (octal),
// "D_D:200..202@1" (the values at 200 and 202), one value alone as "D_W:5@2".
QString blockText(const Area &area, int station, int start, int units);

// Reads "AREA:FIRST[..LAST][.BIT][:TYPE[:WORDS]][@STATION]": TYPE one of uint16 int16
// uint32 int32 float32 bool string, WORDS high-first or low-first. A 32-bit type on a
// 16-bit area spans two registers from each address FIRST, FIRST+2 .. LAST; a string
// spans the whole range. `options` adds what the gateway's keys say. False with a
// message naming the problem, and in `option` the one at fault, if one is.
// Station 0, the broadcast, only when `broadcast` allows it: nobody answers a read.
bool parseItem(const QString &text, int defaultStation, const Catalogue &catalogue, const DriverApi &api, Item *item,
               QString *error, bool broadcast = false, const TypeOptions &options = TypeOptions(),
               std::string *option = nullptr);

// Reads a time: a number with its unit, "250ms", "10s", "2m"; a bare number is seconds.
// Zero or less is refused.
bool parseInterval(const QString &text, std::chrono::milliseconds *interval, QString *error);

// Reads an item that may end in "/INTERVAL", how often its values are wanted:
// "D_W:100..109/10s"; without it, as fast as the line goes.
bool parseTimedItem(const QString &text, int defaultStation, const Catalogue &catalogue, const DriverApi &api,
                    Item *item, QString *error);

// Reads a value for a point of `kind`: decimal or 0x hexadecimal; a negative number
// is taken as its two's complement in the value's width.
bool parseValue(const QString &text, Kind kind, uint32_t *value, QString *error);

struct WriteRequest {
    QString text;
    Item target; // one value: its first point is where the write starts
    uint32_t value = 0;
    // A value over several registers of a 16-bit area: its registers, in address order,
    // instead of `value`.
    std::vector<uint16_t> words;

    // Arguments of intf_setData: count (bits, or 16-bit words) and the bytes.
    int count() const { return words.empty() ? target.area->countPerValue() : int(words.size()); }
    std::vector<unsigned char> bytes() const;
    // What the write puts where it starts, to compare with what a read brings back.
    bool landed(const DriverApi &api) const;
};

// A write of `text` to the value `type` says: its value or its words. For a plain
// value, parseValue's; a bit of a register is refused (only the gateway writes one,
// reading the word first). False with why.
bool encodeWrite(const QString &text, bool isText, WriteRequest *write, QString *error);

// Reads "AREA:ADDR[.BIT][:TYPE][@STATION]=VALUE"; station 0 writes to every station at once.
bool parseWrite(const QString &text, int defaultStation, const Catalogue &catalogue, const DriverApi &api,
                WriteRequest *write, QString *error);

// The value the driver shows for a point (intf_getData), unsigned.
uint32_t readValue(const DriverApi &api, const Point &point);
// The same for n points side by side (each where the one before ends, in one area of
// one station), read from the driver at once into out[0..n).
void readValues(const DriverApi &api, const Point *points, size_t n, uint32_t *out);
// Whether `next` starts where `point` ends, in the same area of the same station.
bool sideBySide(const Point &point, const Point &next);

} // namespace rtuhost

#endif
