// What a value's registers mean, and back: the one conversion the gateway's topics,
// Sparkplug metrics, page, CSV log and rtuplc-poll all show. Every type over each word
// and byte order, at its extremes, through decode and, where the words say a value,
// back through encode to the same words; then what a write or a type is refused for.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "rtuplc_host/value_type.h"

namespace {

using namespace rtuhost;

constexpr double kNot = std::numeric_limits<double>::quiet_NaN();

// As TypeOptions, with every field defaulted so that a row names only what it sets.
struct Opt {
    const char *type = "";
    const char *words = ""; // word order
    const char *bytes = ""; // byte order
    int bit = -1;
    double scale = kNot, offset = kNot;
    int decimals = -1;
    double min = kNot, max = kNot;
    TypeOptions options() const { return {type, words, bytes, bit, scale, offset, decimals, min, max}; }
};

ValueType typeOf(const Opt &o, Kind kind, int registers = 1)
{
    ValueType v;
    std::string option, why;
    EXPECT_TRUE(resolveType(o.options(), kind, "D_W", registers, &v, &option, &why)) << option << ": " << why;
    return v;
}

uint16_t w(const char two[3])
{
    return uint16_t(static_cast<unsigned char>(two[0]) << 8 | static_cast<unsigned char>(two[1]));
}

TEST(ValueType, WordsReadAsTheTypeSaysAndWrittenBackTheSame)
{
    const Kind W = Kind::Word, DD = Kind::DWordOverWords, B = Kind::Bit;
    struct Row {
        const char *what;
        Opt opt;
        Kind kind;
        std::vector<uint16_t> words; // address order
        const char *shown;           // readingText, or the start of why it is no number
        bool back;                   // written as shown, the same words come back
    };
    const Row rows[] = {
        // clang-format off
        {"plain register, unsigned as ever", {}, W, {0xFFFB}, "65531", false},
        {"plain bit, 0 or 1 as ever", {}, B, {1}, "1", false},
        {"uint16 top", {"uint16"}, W, {0xFFFF}, "65535", true},
        {"int16 -5", {"int16"}, W, {0xFFFB}, "-5", true},
        {"int16 lowest", {"int16"}, W, {0x8000}, "-32768", true},
        {"int16 highest", {"int16"}, W, {0x7FFF}, "32767", true},
        {"int16 bytes swapped", {"int16", "", "low-first"}, W, {0xFBFF}, "-5", true},
        {"uint32 high word first", {"uint32"}, W, {0x0001, 0x0002}, "65538", true},
        {"uint32 low word first", {"uint32", "low-first"}, W, {0x0002, 0x0001}, "65538", true},
        {"uint32 2^31", {"uint32"}, W, {0x8000, 0x0000}, "2147483648", true},
        {"int32 lowest", {"int32"}, W, {0x8000, 0x0000}, "-2147483648", true},
        {"int32 highest, low word first", {"int32", "low-first"}, W, {0xFFFF, 0x7FFF}, "2147483647", true},
        {"uint32 on D_D, the controller's order", {"uint32"}, DD, {0xFFFF, 0xFFFF}, "4294967295", true},
        {"float32 21.5", {"float32"}, W, {0x41AC, 0x0000}, "21.5", true},
        {"float32 on D_D", {"float32"}, DD, {0x41AC, 0x0000}, "21.5", true},
        {"float32 low word first", {"float32", "low-first"}, W, {0x0000, 0x41AC}, "21.5", true},
        {"float32 bytes swapped", {"float32", "", "low-first"}, W, {0xAC41, 0x0000}, "21.5", true},
        {"float32 both swapped", {"float32", "low-first", "low-first"}, W, {0x0000, 0xAC41}, "21.5", true},
        {"float32 0.1 in its fewest digits", {"float32"}, W, {0x3DCC, 0xCCCD}, "0.1", true},
        {"float32 largest", {"float32"}, W, {0x7F7F, 0xFFFF}, "3.4028235e+38", true},
        {"float32 -0 is 0", {"float32"}, W, {0x8000, 0x0000}, "0", false},
        {"float32 NaN", {"float32"}, W, {0x7FC0, 0x0000}, "the controller holds NaN", false},
        {"float32 +infinity", {"float32"}, W, {0x7F80, 0x0000}, "the controller holds +infinity", false},
        {"float32 -infinity", {"float32"}, W, {0xFF80, 0x0000}, "the controller holds -infinity", false},
        {"tenths of a degree", {"int16", "", "", -1, 0.1, kNot, 1}, W, {215}, "21.5", true},
        {"negative tenths", {"int16", "", "", -1, 0.1}, W, {0xFFCE}, "-5", true},
        {"scale and offset", {"uint16", "", "", -1, 0.01, -40}, W, {6000}, "20", true},
        {"a third, at most 15 digits", {"uint16", "", "", -1, 1.0 / 3}, W, {1}, "0.333333333333333", false},
        {"decimals round what is shown", {"uint16", "", "", -1, 0.001, kNot, 2}, W, {1234}, "1.23", false},
        {"bit 3 set", {"", "", "", 3}, W, {0x0008}, "true", false},
        {"bit 15 clear", {"bool", "", "", 15}, W, {0x7FFF}, "false", false},
        {"bit 0 of a swapped word", {"", "", "low-first", 0}, W, {0x0100}, "true", false},
        {"bool on a bit area", {"bool"}, B, {1}, "true", true},
        {"string ends at its first NUL", {"string"}, W, {w("AB"), w("C\0"), w("XY")}, "ABC", false},
        {"string, bytes swapped", {"string", "", "low-first"}, W, {w("BA"), w("DC")}, "ABCD", true},
        {"string, padded with NULs", {"string"}, W, {w("OK"), 0, 0}, "OK", true},
        {"string beyond ASCII", {"string"}, W, {0xC3A9}, "??", false},
        // clang-format on
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        const ValueType t = typeOf(r.opt, r.kind, int(r.words.size()));
        const Reading reading = decode(t, r.words.data());
        const std::string shown = reading.invalid ? reading.invalid : readingText(reading, t);
        EXPECT_EQ(shown.substr(0, std::string(r.shown).size()), r.shown);
        if (!r.back)
            continue;
        std::vector<uint16_t> back(r.words.size(), 0xEEEE);
        std::string why;
        ASSERT_TRUE(encode(t, shown, false, 0, back.data(), &why)) << why;
        EXPECT_EQ(back, r.words);
    }
}

TEST(ValueType, WritesThatDoNotFitAreRefusedWithWhy)
{
    const Kind W = Kind::Word;
    struct Row {
        const char *what;
        Opt opt;
        int registers;
        const char *text;
        bool isText;
        uint16_t current;            // the word a bit is set in
        std::vector<uint16_t> words; // written; empty: refused
        const char *why;             // part of the refusal
    };
    const Row rows[] = {
        // clang-format off
        {"int16 past its top", {"int16"}, 1, "32768", false, 0, {}, "out of range: int16 takes -32768..32767"},
        {"int16 past its bottom", {"int16"}, 1, "-32769", false, 0, {}, "out of range"},
        {"uint16 negative", {"uint16"}, 1, "-1", false, 0, {}, "out of range: uint16 takes 0..65535"},
        {"uint32 in hex", {"uint32"}, 2, "0x1F", false, 0, {0, 0x1F}, ""},
        {"a fraction to a whole type", {"int16"}, 1, "1.5", false, 0, {}, "not a whole number"},
        {"scaled, rounded to the nearest step", {"int16", "", "", -1, 0.1}, 1, "21.55", false, 0, {216}, ""},
        {"scaled past the registers", {"int16", "", "", -1, 0.1}, 1, "5000", false, 0, {}, "5000 is 50000 unscaled"},
        {"above max", {"int16", "", "", -1, kNot, kNot, -1, kNot, 100}, 1, "101", false, 0, {}, "above the item's max 100"},
        {"below min", {"int16", "", "", -1, kNot, kNot, -1, 0}, 1, "-1", false, 0, {}, "below the item's min 0"},
        {"beyond a float", {"float32"}, 2, "1e39", false, 0, {}, "out of range"},
        {"text to a number", {"float32"}, 2, "21.5", true, 0, {}, "is text: a float32 takes a number"},
        {"not a number", {"int16"}, 1, "abc", false, 0, {}, "\"abc\" is not a number"},
        {"bit set, the rest kept", {"", "", "", 3}, 1, "true", false, 0x00F0, {0x00F8}, ""},
        {"bit cleared, the rest kept", {"", "", "", 4}, 1, "0", false, 0x00F0, {0x00E0}, ""},
        {"a bool is no number", {"", "", "", 4}, 1, "2", false, 0, {}, "not a bool"},
        {"string too long", {"string"}, 2, "ABCDE", true, 0, {}, "has 5 characters; the string holds 4"},
        {"string beyond ASCII", {"string"}, 2, "caf\xc3", true, 0, {}, "ASCII characters only"},
        // clang-format on
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        const ValueType t = typeOf(r.opt, W, r.registers);
        std::vector<uint16_t> words(size_t(t.registers), 0xEEEE);
        std::string why;
        const bool ok = encode(t, r.text, r.isText, r.current, words.data(), &why);
        EXPECT_EQ(ok, !r.words.empty()) << why;
        if (ok)
            EXPECT_EQ(words, r.words);
        else
            EXPECT_NE(why.find(r.why), std::string::npos) << why;
    }
}

TEST(ValueType, ImpossibleTypesAreRefusedNamingTheOption)
{
    struct Row {
        const char *what;
        Opt opt;
        Kind kind;
        int registers;
        const char *option;
        const char *why;
    };
    const Row rows[] = {
        // clang-format off
        {"float32 on a bit area", {"float32"}, Kind::Bit, 1, "type", "D_W holds bits"},
        {"string on a 32-bit area", {"string"}, Kind::DWordOverWords, 1, "type", "holds 32-bit values"},
        {".3 on a 32-bit area", {"", "", "", 3}, Kind::DWord, 1, "item", "a bit is named on a 16-bit register"},
        {".3 on a bit area", {"", "", "", 3}, Kind::Bit, 1, "item", "holds bits already"},
        {"bit 16", {"", "", "", 16}, Kind::Word, 1, "item", "bits 0 to 15, not 16"},
        {"a bool without its bit", {"bool"}, Kind::Word, 1, "type", "name it, e.g. D_W:100.3"},
        {"a bit as a number", {"int16", "", "", 3}, Kind::Word, 1, "type", "a bit of a register is a bool"},
        {"word order of one word", {"int16", "low-first"}, Kind::Word, 1, "word-order", "only a 32-bit value"},
        {"bytes of bits", {"", "", "high-first"}, Kind::Bit, 1, "byte-order", "no bytes"},
        {"scale 0", {"int16", "", "", -1, 0}, Kind::Word, 1, "scale", "0 would make every value 0"},
        {"a scaled bool", {"", "", "", 2, 10}, Kind::Word, 1, "scale", "a bool is not a number"},
        {"min above max", {"int16", "", "", -1, kNot, kNot, -1, 10, 5}, Kind::Word, 1, "min", "10 is above max 5"},
        {"string longer than a read", {"string"}, Kind::Word, 65, "item", "at most 64 registers"},
        {"an unknown type", {"float64"}, Kind::Word, 1, "type", "\"float64\" is not a type"},
        // clang-format on
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        ValueType v;
        std::string option, why;
        EXPECT_FALSE(resolveType(r.opt.options(), r.kind, "D_W", r.registers, &v, &option, &why));
        EXPECT_EQ(option, r.option);
        EXPECT_NE(why.find(r.why), std::string::npos) << why;
    }
}

} // namespace
