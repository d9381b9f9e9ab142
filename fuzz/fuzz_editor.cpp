// The editor functions with any area names, address texts and numbers. They read only
// constant tables; every result must be one the header documents, and list outputs
// must grow by exactly what the result says.
//
// Input: up to 16 calls, each a function byte, a name, and what the function reads
// (texts as a kind byte, a length byte and bytes; numbers as fuzz::Input::edgy).
#include "harness.h"

#include <QStringList>
#include <QVector>

namespace {

const char *const kTexts[] = {"0",  "377", "400",  "18",  "1999",        "7998",       "7999",        "8000",
                              "1F", "",    "200",  "255", "256",         "12a",        " 7",          "7 ",
                              "+7", "-1",  "0x10", "017", "99999999999", "2147483647", "-2147483648", "１２"};

// A text from the input: often a register name or a typical address, otherwise bytes
// in one of several encodings.
QString text(fuzz::Input &in, bool registerName)
{
    const uint8_t kind = in.u8();
    if (registerName && kind < 160)
        return REG_LIST[kind % REG_COUNT];
    if (!registerName && kind < 96)
        return QString::fromUtf8(kTexts[kind % (sizeof kTexts / sizeof kTexts[0])]);
    const QByteArray b = in.bytes(in.u8() % 48);
    switch (kind % 4) {
    case 0:
        return QString::fromLatin1(b);
    case 1:
        return QString::fromUtf8(b);
    case 2:
        return QString::fromUtf16(reinterpret_cast<const char16_t *>(b.constData()), b.size() / 2);
    default: // a register name with something added: case, spaces, suffixes
        return REG_LIST[kind % REG_COUNT] + QString::fromLatin1(b.left(2));
    }
}

void fail()
{
    abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Input in(data, size);
    for (int call = 0; call < 16 && !in.empty(); ++call) {
        const uint8_t fn = in.u8();
        const bool nullOut = (fn & 0x80) != 0 && (fn & 0x40) != 0;
        switch (fn % 5) {
        case 0: {
            const int type = in.edgy();
            QStringList names;
            const int r = intf_getRegListByType(type, nullOut ? nullptr : &names);
            if (r != (!nullOut && (type == 0 || type == 1) ? 1 : 0))
                fail();
            if (names.size() != (nullOut ? 0 : 7)) // seven bit areas, seven word areas
                fail();
            break;
        }
        case 1: {
            const QString name = text(in, true);
            QStringList info{QStringLiteral("kept")};
            const int r = intf_getRegDiscription(name, nullOut ? nullptr : &info);
            if (r != 0)
                fail();
            const int added = info.size() - 1;
            if (!nullOut && added != (getIndexFromRegName(name) >= 0 ? 5 : 0))
                fail();
            break;
        }
        case 2:
        case 3: {
            const QString name = text(in, true);
            const QString addrText = text(in, false);
            const int count = in.edgy();
            const int use = in.edgy();
            const int rw = in.edgy();
            int addr = 0x5A5A5A5A;
            const int r = fn % 5 == 2 ? intf_checkAddrValidity(name, addrText, nullOut ? nullptr : &addr, count, use)
                                      : intf_checkAddr(name, addrText, nullOut ? nullptr : &addr, use, count, rw);
            if (r < 0 || r > (fn % 5 == 2 ? 4 : 6))
                fail();
            if ((r == 1 || r == 3 || r == 5 || r == 6) && addr != 0x5A5A5A5A)
                fail(); // *addr is written only once the text was converted
            if (r == 4 && !nullOut && addr != 0)
                fail();
            break;
        }
        default: {
            const QString name = text(in, true);
            const int start = in.edgy();
            int count = in.edgy();
            if (count > 4096 && count <= 65536)
                count %= 4097; // keeps each input fast; larger counts are refused anyway
            const int step = in.edgy();
            QVector<QString> texts{QStringLiteral("kept")};
            QVector<int> values{-7};
            const int r = intf_multiCopy(name, start, count, step, nullOut ? nullptr : &texts, &values);
            if (r < 0 || r > 2)
                fail();
            const int added = values.size() - 1;
            if (texts.size() != values.size() && !nullOut)
                fail();
            if (r == 0 && added != 0)
                fail();
            if (r != 0 && added != (count > 0 ? count : 0))
                fail();
            break;
        }
        }
    }
    return 0;
}
