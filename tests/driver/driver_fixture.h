// Shared helpers for the unit tests that drive the statically linked driver.
#ifndef RTUPLC_TESTS_DRIVER_FIXTURE_H
#define RTUPLC_TESTS_DRIVER_FIXTURE_H

#include <gtest/gtest.h>

#include <QByteArray>
#include <QStringList>

#include <ostream>
#include <tuple>
#include <vector>

#include "rtuplc_support/frames.h"
#include "rtuplc_support/request.h"
#include "serviceForProtocol.h"

// Lets failing assertions show Qt strings as text.
inline void PrintTo(const QString &s, std::ostream *os)
{
    *os << '"' << s.toStdString() << '"';
}
inline void PrintTo(const QByteArray &b, std::ostream *os)
{
    *os << b.toHex().constData();
}

namespace testing_support {

// Every callback the driver makes, as "driverId/station/item/address".
inline QStringList &reports()
{
    static QStringList r;
    return r;
}

inline void recordReport(int id, int station, QString &item, int addr)
{
    reports() << QStringLiteral("%1/%2/%3/%4").arg(id).arg(station).arg(item).arg(addr);
}

using rtusupport::withCrc;

inline QByteArray hex(const char *h)
{
    return QByteArray::fromHex(h);
}

inline KEY_ADDRESS key(int station, const QString &reg, int start, int len, int bitPos = 0)
{
    KEY_ADDRESS k;
    k.station = station;
    k.regName = reg;
    k.startAddr = start;
    k.len = len;
    k.bitPos = bitPos;
    return k;
}

inline VARIABLE variable(int station, const QString &reg, int start, int len, int kind = RTUPLC_KIND_MONITOR_READ)
{
    VARIABLE v;
    v.reqKind = kind;
    v.station = station;
    v.regName = reg;
    v.startAddr = start;
    v.len = len;
    return v;
}

// A recipe variable of this driver (id 1).
inline _RCP_VAR_PRO rcp(const char *reg, int start, int len, int offset, int station = 1, int driverId = 1)
{
    return _RCP_VAR_PRO{driverId, station, reg, start, len, offset};
}

// Sends the frame the driver offers and answers it with `reply`; returns the verdict.
inline int exchange(const QByteArray &reply, FRAME_PRO *sent = nullptr, QString *what = nullptr)
{
    FRAME_PRO f;
    QString text;
    if (intf_getSendFrame(sent ? *sent : f) != 1)
        return -100;
    return intf_dealRcvFrame(reply, what ? *what : text);
}

// A reply to a register read carrying `words` (high byte first on the wire).
inline QByteArray registersReply(int station, const std::vector<uint16_t> &words)
{
    QByteArray b;
    b.append(char(station)).append(char(0x03)).append(char(2 * words.size()));
    for (uint16_t w : words)
        b.append(char(w >> 8)).append(char(w & 0xFF));
    return withCrc(b);
}

// The echo a controller sends for a write request: its first six bytes and a CRC.
inline QByteArray writeEcho(const FRAME_PRO &f)
{
    return withCrc(QByteArray(reinterpret_cast<const char *>(f.frame), 6));
}

inline QByteArray frameBytes(const FRAME_PRO &f)
{
    return QByteArray(reinterpret_cast<const char *>(f.frame), f.frameLen);
}

// A controller answering request frames: the simulator's memory and request handling,
// without a line in between.
class FakeController : public rtusupport::StationMemory {
public:
    QByteArray answer(const FRAME_PRO &f)
    {
        if (f.frameLen < 4)
            return QByteArray();
        const std::vector<uint8_t> pdu = rtusupport::executeRequest(*this, f.frame + 1, size_t(f.frameLen - 3), {});
        if (f.frame[0] == 0)
            return QByteArray(); // broadcasts are applied but never answered
        QByteArray r(1, char(f.frame[0]));
        r.append(reinterpret_cast<const char *>(pdu.data()), int(pdu.size()));
        return withCrc(r);
    }

    // Runs cycles until nothing is left to send or `limit` frames went out; returns the
    // kinds of the frames sent, one digit each, in order.
    QString run(int limit)
    {
        QString kinds;
        FRAME_PRO f;
        for (int i = 0; i < limit && intf_getSendFrame(f) == 1; ++i) {
            kinds += QString::number(driver.sendState);
            QString what;
            intf_dealRcvFrame(answer(f), what);
        }
        return kinds;
    }
};

// Restarts the driver with a property text and records callbacks.
class DriverTest : public ::testing::Test {
protected:
    void SetUp() override { restart("1#0#0#3#64"); }
    void TearDown() override { intf_setAddrValueChangeCallBack(nullptr); }

    void restart(const char *properties, unsigned char *memory = nullptr, unsigned short *recipe = nullptr,
                 QMutex *lock = nullptr)
    {
        intf_setAddrValueChangeCallBack(recordReport);
        int err = 0;
        intf_initProperty(memory, 0, recipe, &err, properties, lock);
        reports().clear();
    }

    static QByteArray read(int station, const QString &reg, int addr, int count, int bytes)
    {
        QByteArray out(bytes, char(0x5A));
        intf_getData(station, reg, addr, count, reinterpret_cast<unsigned char *>(out.data()));
        return out;
    }
    static int monitor(QList<KEY_ADDRESS> keys) { return intf_addrMerge(keys); }
    static _DATA_ &area(int station, const char *prefix, int addr)
    {
        return driver.dataAreas[getIndexOfDataArea(station, prefix, addr, driver.dataAreas)];
    }
};

// A driver started with the host's memory (recipe command bytes) and recipe buffer,
// talking to a FakeController.
class HostMemoryTest : public DriverTest {
protected:
    void withHost(const char *properties = "1#0#0#3#64")
    {
        restart(properties, memory.data(), recipe.data(), &hostLock);
    }
    static int setRecipe(const std::vector<_RCP_VAR_PRO> &vars)
    {
        QVector<_RCP_VAR_PRO> v(vars.begin(), vars.end());
        return intf_setRcpAddress(v);
    }

    FakeController plc;
    std::vector<unsigned char> memory = std::vector<unsigned char>(65536, 0);
    std::vector<unsigned short> recipe = std::vector<unsigned short>(512, 0);
    QMutex hostLock;
};

} // namespace testing_support

#endif
