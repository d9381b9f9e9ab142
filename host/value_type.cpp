#include "rtuplc_host/value_type.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace rtuhost {

namespace {

constexpr int kMaxDecimals = 15;       // a double holds no more
constexpr double kLargestWhole = 1e15; // printed whole below this; a scaled value has at most 15 digits
constexpr int kFloatDigitsFrom = 6, kFloatDigitsTo = 9; // 9 always read back as the same float

struct KindRow {
    ValueKind kind;
    const char *name;
    double lowest, highest; // what its registers hold, for a write
};
const KindRow kKinds[] = {
    {ValueKind::UInt16, "uint16", 0, 65535},
    {ValueKind::Int16, "int16", -32768, 32767},
    {ValueKind::UInt32, "uint32", 0, 4294967295.0},
    {ValueKind::Int32, "int32", -2147483648.0, 2147483647},
    {ValueKind::Float32, "float32", -3.4028235e38, 3.4028235e38},
    {ValueKind::Bool, "bool", 0, 1},
    {ValueKind::String, "string", 0, 0},
};

const KindRow &rowOf(ValueKind k)
{
    for (const KindRow &r : kKinds) {
        if (r.kind == k)
            return r;
    }
    return kKinds[0];
}

bool isWide(ValueKind k)
{
    return k == ValueKind::UInt32 || k == ValueKind::Int32 || k == ValueKind::Float32;
}

uint16_t swapped(uint16_t w)
{
    return uint16_t(w << 8 | w >> 8);
}

std::string shown(double x)
{
    char text[40];
    std::snprintf(text, sizeof text, "%.15g", x);
    return text;
}

std::string quoted(const std::string &s)
{
    return '"' + s + '"';
}

// A decimal number the whole text is, or 0x hexadecimal where `hex` allows it.
bool parseNumber(const std::string &text, bool hex, double *x)
{
    const char *begin = text.c_str();
    while (std::isspace(static_cast<unsigned char>(*begin)))
        ++begin;
    char *end = nullptr;
    errno = 0;
    const bool isHex = begin[0] == '0' && (begin[1] == 'x' || begin[1] == 'X');
    if (isHex && !hex)
        return false;
    *x = isHex ? double(std::strtoull(begin + 2, &end, 16)) : std::strtod(begin, &end);
    if (end == begin || (isHex && end == begin + 2) || errno == ERANGE)
        return false;
    while (std::isspace(static_cast<unsigned char>(*end)))
        ++end;
    return *end == '\0' && std::isfinite(*x);
}

} // namespace

const char *kindName(ValueKind kind)
{
    return rowOf(kind).name;
}

const char *ValueType::name() const
{
    return kindName(kind);
}

bool resolveType(const TypeOptions &o, Kind kind, const std::string &area, int registers, ValueType *out,
                 std::string *option, std::string *why)
{
    const auto fail = [&](const char *key, const std::string &text) {
        *option = key;
        *why = text;
        return false;
    };
    ValueType t;
    t.plain = o.type.empty() && o.wordOrder.empty() && o.byteOrder.empty() && o.bit < 0 && std::isnan(o.scale) &&
              std::isnan(o.offset) && o.decimals < 0;
    if (o.type.empty()) {
        t.kind = o.bit >= 0 || kind == Kind::Bit ? ValueKind::Bool
                 : kind == Kind::Word            ? ValueKind::UInt16
                                                 : ValueKind::UInt32;
    } else {
        const KindRow *found = nullptr;
        for (const KindRow &r : kKinds)
            found = o.type == r.name ? &r : found;
        if (found == nullptr)
            return fail("type",
                        quoted(o.type) + " is not a type: uint16, int16, uint32, int32, float32, bool or string");
        t.kind = found->kind;
    }
    const std::string typeName = kindName(t.kind);
    const bool wide = isWide(t.kind);
    if (o.bit >= 0) {
        if (kind == Kind::Bit)
            return fail("item",
                        area + " holds bits already: name one by its address, without ." + std::to_string(o.bit));
        if (kind != Kind::Word)
            return fail("item", "a bit is named on a 16-bit register, and " + area + " holds 32-bit values");
        if (o.bit > 15)
            return fail("item", "a register has the bits 0 to 15, not " + std::to_string(o.bit));
        if (t.kind != ValueKind::Bool)
            return fail("type", "a bit of a register is a bool, not " + typeName);
        t.bit = o.bit;
    }
    switch (kind) {
    case Kind::Bit:
        if (t.kind != ValueKind::Bool)
            return fail("type", area + " holds bits: its values are bool, not " + typeName);
        break;
    case Kind::Word:
        if (t.kind == ValueKind::Bool && t.bit < 0)
            return fail("type", "a bool on a 16-bit register is one of its bits: name it, e.g. " + area + ":100.3");
        if (t.kind == ValueKind::String && registers > kMaxStringRegisters)
            return fail("item", "a string spans at most " + std::to_string(kMaxStringRegisters) + " registers (" +
                                    std::to_string(2 * kMaxStringRegisters) + " characters), not " +
                                    std::to_string(registers));
        t.registers = t.kind == ValueKind::String ? registers : wide ? 2 : 1;
        break;
    default:
        if (!wide)
            return fail("type", area + " holds 32-bit values: " + typeName + " is not one (uint32, int32 or float32)");
        t.registers = 2;
        break;
    }
    if (!o.wordOrder.empty()) {
        if (o.wordOrder != "high-first" && o.wordOrder != "low-first")
            return fail("word-order", "must be high-first or low-first, not " + quoted(o.wordOrder));
        if (!wide)
            return fail("word-order", "only a 32-bit value has two words, and " + typeName + " has not");
        t.lowWordFirst = o.wordOrder == "low-first";
    }
    if (!o.byteOrder.empty()) {
        if (o.byteOrder != "high-first" && o.byteOrder != "low-first")
            return fail("byte-order", "must be high-first or low-first, not " + quoted(o.byteOrder));
        if (kind == Kind::Bit)
            return fail("byte-order", area + " holds bits, which have no bytes");
        t.swapBytes = o.byteOrder == "low-first";
    }
    const struct {
        const char *key;
        bool given;
    } numeric[] = {{"scale", !std::isnan(o.scale)},
                   {"offset", !std::isnan(o.offset)},
                   {"decimals", o.decimals >= 0},
                   {"min", !std::isnan(o.min)},
                   {"max", !std::isnan(o.max)}};
    for (const auto &n : numeric) {
        if (n.given && !t.number())
            return fail(n.key, std::string("only numbers have one, and a ") + typeName + " is not a number");
    }
    if (!std::isnan(o.scale)) {
        if (o.scale == 0 || !std::isfinite(o.scale))
            return fail("scale", o.scale == 0 ? "0 would make every value 0 and leave nothing to write"
                                              : "must be a finite number");
        t.scale = o.scale;
    }
    if (!std::isnan(o.offset)) {
        if (!std::isfinite(o.offset))
            return fail("offset", "must be a finite number");
        t.offset = o.offset;
    }
    if (o.decimals > kMaxDecimals)
        return fail("decimals", "at most " + std::to_string(kMaxDecimals) + ", not " + std::to_string(o.decimals));
    t.decimals = o.decimals;
    t.min = std::isnan(o.min) ? t.min : o.min;
    t.max = std::isnan(o.max) ? t.max : o.max;
    if (t.min > t.max)
        return fail("min", shown(t.min) + " is above max " + shown(t.max));
    *out = t;
    return true;
}

int wordsOf(Kind kind, const uint32_t *values, int points, uint16_t *words)
{
    if (kind == Kind::Word || kind == Kind::Bit) {
        for (int i = 0; i < points; ++i)
            words[i] = uint16_t(values[i]);
        return points;
    }
    words[0] = uint16_t(values[0] >> 16);
    words[1] = uint16_t(values[0]);
    return 2;
}

uint32_t packWords(const uint16_t *words, int count)
{
    return count >= 2 ? uint32_t(words[0]) << 16 | words[1] : words[0];
}

void unpackWords(uint32_t packed, int count, uint16_t *words)
{
    if (count >= 2) {
        words[0] = uint16_t(packed >> 16);
        words[1] = uint16_t(packed);
    } else {
        words[0] = uint16_t(packed);
    }
}

Reading decode(const ValueType &t, const uint16_t *w)
{
    Reading r;
    const auto word = [&](int i) { return t.swapBytes ? swapped(w[i]) : w[i]; };
    const auto wide = [&] {
        return t.lowWordFirst ? uint32_t(word(1)) << 16 | word(0) : uint32_t(word(0)) << 16 | word(1);
    };
    switch (t.kind) {
    case ValueKind::UInt16:
        r.number = word(0);
        break;
    case ValueKind::Int16:
        r.number = int16_t(word(0));
        break;
    case ValueKind::UInt32:
        r.number = wide();
        break;
    case ValueKind::Int32:
        r.number = int32_t(wide());
        break;
    case ValueKind::Float32: {
        const uint32_t bits = wide();
        float f = 0;
        std::memcpy(&f, &bits, sizeof f);
        if (std::isnan(f))
            r.invalid = "the controller holds NaN, not a number";
        else if (std::isinf(f))
            r.invalid = f > 0 ? "the controller holds +infinity" : "the controller holds -infinity";
        r.number = f;
        break;
    }
    case ValueKind::Bool:
        // A bit of a bit area without a type said is published as ever, 0 or 1.
        r.form = t.plain ? Reading::Form::Integer : Reading::Form::Boolean;
        r.number = t.bit >= 0 ? (word(0) >> t.bit) & 1 : word(0) != 0;
        return r;
    case ValueKind::String:
        r.form = Reading::Form::Text;
        // Two characters a register, the high byte first; the string ends at its first NUL.
        for (int i = 0; i < t.registers; ++i) {
            const uint16_t v = word(i);
            const char pair[2] = {char(v >> 8), char(v & 0xFF)};
            for (const char c : pair) {
                if (c == '\0')
                    return r;
                r.text += static_cast<unsigned char>(c) < 0x80 ? c : '?';
            }
        }
        return r;
    }
    r.form = t.fractional() ? Reading::Form::Real : Reading::Form::Integer;
    if (t.scaled())
        r.number = r.number * t.scale + t.offset;
    if (t.decimals >= 0 && std::isfinite(r.number) && std::fabs(r.number) < kLargestWhole) {
        const double p = std::pow(10.0, t.decimals);
        r.number = std::round(r.number * p) / p;
    }
    return r;
}

std::string formatNumber(double x, const ValueType &t)
{
    if (x == 0)
        return "0"; // -0 too: a sign on nothing means nothing to a plant
    char text[64];
    if (std::fabs(x) < kLargestWhole) {
        if (t.decimals >= 0) {
            std::snprintf(text, sizeof text, "%.*f", t.decimals, x);
            std::string s = text;
            if (s.find('.') != std::string::npos) {
                s.erase(s.find_last_not_of('0') + 1);
                if (s.back() == '.')
                    s.pop_back();
            }
            return s;
        }
        if (t.kind != ValueKind::Float32 && std::floor(x) == x) {
            std::snprintf(text, sizeof text, "%.0f", x);
            return text;
        }
    }
    if (t.kind == ValueKind::Float32) {
        const float f = float(x);
        for (int digits = kFloatDigitsFrom; digits <= kFloatDigitsTo; ++digits) {
            std::snprintf(text, sizeof text, "%.*g", digits, double(f));
            if (std::strtof(text, nullptr) == f)
                break;
        }
        return text;
    }
    return shown(x);
}

std::string readingText(const Reading &r, const ValueType &t)
{
    switch (r.form) {
    case Reading::Form::Boolean:
        return r.number != 0 ? "true" : "false";
    case Reading::Form::Text:
        return r.text;
    default:
        return formatNumber(r.number, t);
    }
}

std::string rawText(const ValueType &t, const uint16_t *words, char separator)
{
    if (t.kind != ValueKind::String)
        return std::to_string(packWords(words, t.registers));
    std::string raw;
    for (int i = 0; i < t.registers; ++i) {
        if (i > 0)
            raw += separator;
        raw += std::to_string(words[i]);
    }
    return raw;
}

bool encode(const ValueType &t, const std::string &text, bool isText, uint16_t current, uint16_t *words,
            std::string *why)
{
    const auto fail = [&](const std::string &s) {
        *why = s;
        return false;
    };
    const auto put = [&](int i, uint16_t w) { words[i] = t.swapBytes ? swapped(w) : w; };
    if (t.kind == ValueKind::String) {
        const size_t room = size_t(2 * t.registers);
        if (text.size() > room)
            return fail(quoted(text) + " has " + std::to_string(text.size()) + " characters; the string holds " +
                        std::to_string(room));
        for (const char c : text) {
            if (c == '\0' || static_cast<unsigned char>(c) >= 0x80)
                return fail(quoted(text) + ": a string takes ASCII characters only");
        }
        for (int i = 0; i < t.registers; ++i) {
            const size_t at = size_t(2 * i);
            const auto byte = [&](size_t n) { return n < text.size() ? static_cast<unsigned char>(text[n]) : 0u; };
            put(i, uint16_t(byte(at) << 8 | byte(at + 1)));
        }
        return true;
    }
    if (isText)
        return fail(quoted(text) + " is text: a " + std::string(t.name()) + " takes " +
                    (t.kind == ValueKind::Bool ? "true or false" : "a number"));
    if (t.kind == ValueKind::Bool) {
        std::string v;
        for (const char c : text)
            if (!std::isspace(static_cast<unsigned char>(c)))
                v += char(std::tolower(static_cast<unsigned char>(c)));
        if (v != "1" && v != "0" && v != "true" && v != "false")
            return fail(quoted(text) + " is not a bool: send true or false (1 or 0)");
        const bool on = v == "1" || v == "true";
        if (t.bit < 0) {
            words[0] = on ? 1 : 0;
            return true;
        }
        const uint16_t word = t.swapBytes ? swapped(current) : current;
        const uint16_t mask = uint16_t(1u << t.bit);
        put(0, on ? uint16_t(word | mask) : uint16_t(word & ~mask));
        return true;
    }
    double x = 0;
    const bool integer = t.kind != ValueKind::Float32;
    if (!parseNumber(text, integer && !t.scaled(), &x))
        return fail(quoted(text) + " is not a number");
    if (x < t.min)
        return fail(shown(x) + " is below the item's min " + shown(t.min));
    if (x > t.max)
        return fail(shown(x) + " is above the item's max " + shown(t.max));
    double raw = t.scaled() ? (x - t.offset) / t.scale : x;
    const KindRow &row = rowOf(t.kind);
    const std::string range = std::string(row.name) + " takes " + shown(row.lowest) + ".." + shown(row.highest);
    if (integer) {
        if (!t.scaled() && std::floor(raw) != raw)
            return fail(shown(x) + " is not a whole number, which " + row.name + " takes only");
        raw = std::round(raw);
    }
    // A float's range is where a number rounds to a float rather than to an infinity.
    const bool fits = integer ? raw >= row.lowest && raw <= row.highest : std::isfinite(float(raw));
    if (!fits)
        return fail(t.scaled() ? shown(x) + " is " + shown(raw) + " unscaled, out of range: " + range
                               : shown(x) + " is out of range: " + range);
    uint32_t bits = 0;
    if (t.kind == ValueKind::Float32) {
        const float f = float(raw);
        std::memcpy(&bits, &f, sizeof bits);
    } else {
        bits = uint32_t(int64_t(raw)); // two's complement of a negative
    }
    if (t.registers == 1) {
        put(0, uint16_t(bits));
        return true;
    }
    const uint16_t high = uint16_t(bits >> 16), low = uint16_t(bits);
    put(0, t.lowWordFirst ? low : high);
    put(1, t.lowWordFirst ? high : low);
    return true;
}

} // namespace rtuhost
