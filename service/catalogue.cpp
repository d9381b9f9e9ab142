// Editor functions: register catalogue, address validation and multiple copy. They read
// only the constant register tables, so they take no lock.
#include "serviceForProtocol.h"

#include <QStringList>

namespace {

QString widthCode(int valueWidth)
{
    switch (valueWidth) {
    case 1:
        return QStringLiteral("0");
    case 32:
        return QStringLiteral("2");
    default: // 8 and 16 are words too
        return QStringLiteral("1");
    }
}

QString accessCode(const QString &access)
{
    if (access == QLatin1String("R"))
        return QStringLiteral("0");
    if (access == QLatin1String("W"))
        return QStringLiteral("2");
    return QStringLiteral("1");
}

bool isLongDataType(int dataType)
{
    switch (dataType) {
    case 1:
    case 3:
    case 5:
    case 6:
    case 9:
        return true;
    default:
        return false;
    }
}

} // namespace

int validateAddress(const QString *row, const QString &regName, const QString &addrText, int *addr, int count,
                    const AddressUse &use)
{
    const bool bitArea = row[COL_VALUE_WIDTH] == QLatin1String("1");
    if (bitArea != use.bitUse)
        return RTUPLC_ADDR_WRONG_USE;
    if (use.typed) {
        if (row[COL_ACCESS] == QLatin1String("R") && (use.rw == 1 || use.rw == 2))
            return RTUPLC_ADDR_READ_ONLY;
        if (row[COL_VALUE_WIDTH] == QLatin1String("32") && !isLongDataType(use.dataType))
            return RTUPLC_ADDR_BAD_DATA_TYPE;
    }
    int value = 0;
    const int converted = a2i(addrText, value, row[COL_NOTATION], regName);
    if (addr == nullptr)
        return RTUPLC_ADDR_UNREADABLE; // nowhere to put the address: nothing can be reported valid
    *addr = value;
    if (converted != 1)
        return RTUPLC_ADDR_UNREADABLE;
    int highest = 0;
    int lowest = 0;
    a2i(row[COL_HIGHEST], highest, row[COL_NOTATION], regName);
    a2i(row[COL_LOWEST], lowest, row[COL_NOTATION], regName);
    // Bit use counts bits, one per address; word use counts 16-bit words, which the
    // unit width turns into addresses (two words make one 32-bit unit).
    const double w = use.bitUse ? 16.0 : static_cast<double>(row[COL_UNIT_WIDTH].toInt());
    if (*addr < lowest)
        return RTUPLC_ADDR_OUT_OF_RANGE;
    if (static_cast<double>(count) / (w / 16.0) + static_cast<double>(*addr) > static_cast<double>(highest) + 1.0)
        return RTUPLC_ADDR_OUT_OF_RANGE;
    *addr = addrOffset(regName, *addr);
    return RTUPLC_ADDR_VALID;
}

int multiCp(QString regName, QString notation, int start, int count, int step, QVector<QString> &texts,
            QVector<int> &values, int highest, QString highestText)
{
    int result = 1;
    if (count < 1)
        return result;
    const int reg = getIndexFromRegName(regName);
    const int unit = reg < 0 ? 0 : registerArea(reg).unitWidth;
    const QChar kind = notation.isEmpty() ? QChar() : notation.at(0);
    QString text;
    for (int i = 0; i < count; ++i) {
        // -1 and -2 ask for one 16-bit or one 32-bit word, in the area's units.
        if (step == -1)
            step = unit > 0 ? static_cast<int>(16.0f / static_cast<float>(unit)) : 1;
        else if (step == -2)
            step = unit > 0 ? static_cast<int>(32.0f / static_cast<float>(unit)) : 1;
        const int used = step < 1 ? 1 : step;
        const int64_t address = int64_t(start) + int64_t(i) * used;
        if (address > highest) {
            values.append(highest);
            texts.append(highestText);
            result = 2;
            continue;
        }
        const int a = static_cast<int>(address);
        if (kind == QLatin1Char('D'))
            text = QString::asprintf("%u", static_cast<unsigned>(a));
        else if (kind == QLatin1Char('H'))
            text = QString::asprintf("%x", static_cast<unsigned>(a));
        else if (kind == QLatin1Char('O'))
            text = QString::asprintf("%o", static_cast<unsigned>(a));
        values.append(a);
        texts.append(text);
    }
    return result;
}

extern "C" {

RTUPLC_EXPORT int intf_getRegListByType(int type, QStringList *names)
{
    if (names == nullptr)
        return 0;
    return guarded(0, [&] {
        for (int i = 0; i < REG_COUNT; ++i) {
            const bool bits = registerArea(i).isBit();
            if ((type == 0 && bits) || (type != 0 && !bits))
                names->append(REG_LIST[i]);
        }
        return (type == 0 || type == 1) ? 1 : 0;
    });
}

RTUPLC_EXPORT int intf_getRegDiscription(const QString &regName, QStringList *info)
{
    if (info == nullptr)
        return 0;
    return guarded(0, [&] {
        const int reg = getIndexFromRegName(regName);
        if (reg < 0)
            return 0;
        const QString *row = ADDRESS_RANGE_PRO[reg];
        info->append(row[COL_NOTATION]);
        info->append(row[COL_LOWEST]);
        info->append(row[COL_HIGHEST]);
        info->append(widthCode(row[COL_VALUE_WIDTH].toInt()));
        info->append(accessCode(row[COL_ACCESS]));
        return 0;
    });
}

RTUPLC_EXPORT int intf_checkAddrValidity(const QString &regName, const QString &addrText, int *addr, int count,
                                         int wordUse)
{
    return guarded(3, [&] {
        const int reg = getIndexFromRegName(regName);
        if (reg < 0)
            return int(RTUPLC_ADDR_UNKNOWN_AREA);
        AddressUse use;
        use.bitUse = wordUse == 0;
        return validateAddress(ADDRESS_RANGE_PRO[reg], regName, addrText, addr, count, use);
    });
}

RTUPLC_EXPORT int intf_checkAddr(const QString &regName, const QString &addrText, int *addr, int dataType, int count,
                                 int rw)
{
    return guarded(3, [&] {
        const int reg = getIndexFromRegName(regName);
        if (reg < 0)
            return int(RTUPLC_ADDR_UNKNOWN_AREA);
        AddressUse use;
        use.bitUse = dataType == -1;
        use.typed = true;
        use.dataType = dataType;
        use.rw = rw;
        return validateAddress(ADDRESS_RANGE_PRO[reg], regName, addrText, addr, count, use);
    });
}

RTUPLC_EXPORT int intf_multiCopy(const QString &regName, int start, int count, int step, QVector<QString> *texts,
                                 QVector<int> *values)
{
    if (texts == nullptr || values == nullptr || count > RTUPLC_MAX_HOST_UNITS)
        return RTUPLC_COPY_UNKNOWN_AREA;
    return guarded(0, [&] {
        const int reg = getIndexFromRegName(regName);
        if (reg < 0)
            return int(RTUPLC_COPY_UNKNOWN_AREA);
        const QString *row = ADDRESS_RANGE_PRO[reg];
        int highest = 0;
        a2i(row[COL_HIGHEST], highest, row[COL_NOTATION], regName);
        return multiCp(regName, row[COL_NOTATION], start, count, step, *texts, *values, highest, row[COL_HIGHEST]);
    });
}

} // extern "C"
