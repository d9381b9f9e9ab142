// A value as the plant means it: the registers of an area read as a signed or unsigned
// integer, a float, one bit of a word or a string, scaled to engineering units; and an
// engineering value turned back into registers for a write. rtuplc-poll and
// rtuplc-gateway convert here and nowhere else, so that no consumer reads the same
// words slightly differently.
#ifndef RTUPLC_HOST_VALUE_TYPE_H
#define RTUPLC_HOST_VALUE_TYPE_H

#include <cstdint>
#include <limits>
#include <string>

namespace rtuhost {

// How an area holds its values, from the driver's description of it.
enum class Kind {
    Bit,            // one coil per address
    Word,           // one 16-bit register per address
    DWordOverWords, // a 32-bit value over two registers, addressed by the first (D_D)
    DWord,          // a 32-bit value per address (32C)
};

enum class ValueKind { UInt16, Int16, UInt32, Int32, Float32, Bool, String };

// A string is read whole in one request: at most this many registers, two characters each.
constexpr int kMaxStringRegisters = 64;

// What the user asked of an item before its area is known: the gateway's keys, or
// rtuplc-poll's ":TYPE" after the address. Empty text and NaN: not said.
struct TypeOptions {
    std::string type;      // uint16 int16 uint32 int32 float32 bool string
    std::string wordOrder; // high-first | low-first
    std::string byteOrder; // high-first | low-first
    int bit = -1;          // the 3 of D_W:100.3
    double scale = std::numeric_limits<double>::quiet_NaN();
    double offset = std::numeric_limits<double>::quiet_NaN();
    int decimals = -1;
    double min = std::numeric_limits<double>::quiet_NaN();
    double max = std::numeric_limits<double>::quiet_NaN();
};

struct ValueType {
    ValueKind kind = ValueKind::UInt16;
    // Nothing asked for: the area's own unsigned value, published, written and shown as
    // it always was. Costs nothing: no conversion runs for it.
    bool plain = true;
    bool lowWordFirst = false; // 32-bit over two registers: the low half at the lower address
    bool swapBytes = false;    // each register's low byte first
    int bit = -1;              // a bit of a 16-bit register, 0..15
    int registers = 1;         // 16-bit registers a value spans (a bit area's value: 1)
    double scale = 1, offset = 0;
    int decimals = -1; // rounded to this many decimals; -1: as it comes
    double min = -std::numeric_limits<double>::infinity();
    double max = std::numeric_limits<double>::infinity();

    bool number() const { return kind != ValueKind::Bool && kind != ValueKind::String; }
    bool scaled() const { return scale != 1 || offset != 0; }
    // A fraction can come out: a float, or a scaled integer.
    bool fractional() const { return kind == ValueKind::Float32 || (number() && scaled()); }
    bool limited() const
    {
        return min > -std::numeric_limits<double>::infinity() || max < std::numeric_limits<double>::infinity();
    }
    // Points of the area one value is made of: a register each on a 16-bit area.
    int points(Kind area) const { return area == Kind::Word ? registers : 1; }
    const char *name() const;
};

const char *kindName(ValueKind kind);

// The type `options` ask for on an area of `kind` whose item spans `registers` (a
// string is the whole range). False with the option at fault ("type", "word-order",
// "scale", ...) and why.
bool resolveType(const TypeOptions &options, Kind kind, const std::string &area, int registers, ValueType *type,
                 std::string *option, std::string *why);

// A value read, as the plant means it.
struct Reading {
    enum class Form { Integer, Real, Boolean, Text };
    Form form = Form::Integer;
    double number = 0; // Integer, Real; Boolean 0 or 1
    std::string text;  // Text
    // Why the words make no number to publish (a float's NaN or infinity); null when they do.
    const char *invalid = nullptr;
};

// The registers of a value from its points as the driver reports them: a 16-bit area's
// a word each, a 32-bit value's two (the high half first, as the controller holds it),
// a bit's one word of 0 or 1. Returns how many.
int wordsOf(Kind kind, const uint32_t *pointValues, int points, uint16_t *words);
// The value's registers, in address order, read as `type` says.
Reading decode(const ValueType &type, const uint16_t *words);
// Two registers or fewer in one number, the first in the high half: how the gateway
// holds a reading on its way to the broker.
uint32_t packWords(const uint16_t *words, int count);
void unpackWords(uint32_t packed, int count, uint16_t *words);

// A number as published and shown: whole numbers without a fraction; a float with the
// fewest digits that read back as the same float; a scaled value with at most 15
// significant digits; rounded to `decimals` when given. -0 is 0.
std::string formatNumber(double number, const ValueType &type);
// A reading as text: the number, true or false, or the string itself.
std::string readingText(const Reading &reading, const ValueType &type);
// The registers as read, as text: one number for one or two (the first in the high
// half, as the controller's 32-bit values are shown), a string's words one by one,
// `separator` between them.
std::string rawText(const ValueType &type, const uint16_t *words, char separator);

// The registers (in address order) a write of `text` puts in a value of `type`, the
// inverse of decode: the engineering value checked against min and max, unscaled, and
// refused when it does not fit. `quoted`: the value came as text, which only a string
// takes. `current`: for a bit of a word, the word the bit is set in. False with why.
bool encode(const ValueType &type, const std::string &text, bool quoted, uint16_t current, uint16_t *words,
            std::string *why);

} // namespace rtuhost

#endif
