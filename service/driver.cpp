// The one driver object, its identity and the properties the host hands over.
//
// rtu_plc.h (included through serviceForProtocol.h) defines the constant strings and
// register tables as inline variables ahead of this definition, so they are built
// before `driver` and torn down after it.
#include "serviceForProtocol.h"

#include <QStringList>

#include <climits>

RTUPLC_EXPORT Protocol driver;

Protocol::Protocol()
{
    dataAreas.clear();
    priorityCount = 0;
    commError = 0;
    rcpIndex = 0;
    curVar.station = 0;
    curVar.startAddr = 0;
    curVar.len = 0;
    curVar.regName = QString();
    for (const QString &name : REG_LIST)
        regList.append(name);
}

Protocol::~Protocol() = default;

int splitWords()
{
    return driver.maxWordLen > 0 ? driver.maxWordLen : RTUPLC_DEFAULT_SPLIT_WORDS;
}

int splitBits()
{
    return driver.maxBitLen > 0 ? driver.maxBitLen : RTUPLC_DEFAULT_SPLIT_WORDS * 8;
}

extern "C" {

RTUPLC_EXPORT void intf_getProtocolType(int &type)
{
    type = 0;
}

#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif
RTUPLC_EXPORT QString intf_getVersion()
{
    return guarded(QString(), [] { return PROCOTOL_VERSION; });
}
#if defined(__clang__)
#pragma clang diagnostic pop
#endif

RTUPLC_EXPORT void intf_getDriverParameter(QString &param)
{
    guardedVoid([&] {
        QStringList names;
        {
            StateLock lock(driver.stateMutex);
            names = driver.regList;
        }
        param = QStringLiteral("%1,%2,%3,%4,%5,%6,%7")
                    .arg(0)
                    .arg(PROCOTOL_DEFALT_COM_PAR)
                    .arg(0)
                    .arg(1)
                    .arg(PROCOTOL_DEFALT_IP_PAR)
                    .arg(PROCOTOL_NAME)
                    .arg(names.join(QLatin1Char(',')));
    });
}

RTUPLC_EXPORT void intf_getDriverPropertyPage(QString &page)
{
    guardedVoid([&] { page = PROCOTOL_PAR_HMI_SET_MODE; });
}

RTUPLC_EXPORT void intf_SetDriverPropertyPage(const QString &page)
{
    guardedVoid([&] {
        StateLock lock(driver.stateMutex);
        driver.propertyPage = page;
    });
}

RTUPLC_EXPORT void intf_setAddrValueChangeCallBack(AddrValueChangeCallBack fn)
{
    StateLock lock(driver.stateMutex);
    driver.addrValueChangeCallBack = fn;
}

RTUPLC_EXPORT int intf_initProperty(unsigned char *hostMem, intptr_t ignored, unsigned short *rcpBuf, int *errorCode,
                                    const char *propertyText, QMutex *hostLock)
{
    Q_UNUSED(ignored); // one machine word of the documented signature that this driver has no use for
    if (errorCode)
        *errorCode = 0;
    return guarded(1, [&] {
        const QStringList parts =
            QString::fromLatin1(propertyText ? propertyText : "").split(QLatin1Char('#'), Qt::KeepEmptyParts);
        StateLock lock(driver.stateMutex);
        if (parts.size() > 4) {
            driver.driverId = parts[0].toInt();
            driver.localWriteMode = parts[1].toInt();
            // parts[2] is a field the controller's tooling reserves; nothing uses it.
            driver.retryTimes = parts[3].toInt();
            driver.maxBlockLen = parts[4].toInt();
        }
        driver.hostMemory = hostMem;
        driver.rcpBuffer = rcpBuf;
        driver.hostMutex = hostLock;
        driver.monitorList.clear();
        {
            QMutexLocker queueLock(&driver.listMutex);
            driver.writeList.clear();
        }
        driver.conditionList.clear();
        driver.dataAreas.clear();
        driver.areaIndex.clear();
        ++driver.resetGeneration;
        driver.sendState = RTUPLC_KIND_IDLE;
        driver.priorityCount = 0;
        driver.handshakeFlag = 0;
        driver.failCount = 0;
        driver.commError = 0;
        driver.maxWordLen = driver.maxBlockLen;
        // Wraps like the controller's 32-bit arithmetic instead of overflowing.
        driver.maxBitLen = static_cast<int32_t>(static_cast<uint32_t>(driver.maxBlockLen) * 8u);
        driver.frameList.clear();
        driver.pendingHostClear = 0;
        return 1;
    });
}

} // extern "C"

// ---------------------------------------------------------------------------------
// What the host is told and what it can hold.

void notifyHost(int driverId, int station, const QString &item, int addr)
{
    AddrValueChangeCallBack cb = driver.addrValueChangeCallBack;
    if (cb == nullptr)
        return;          // no callback installed: the host polls with intf_getData instead
    QString text = item; // the host may change its copy; ours stays intact
    cb(driverId, station, text, addr);
}

bool hostRangeFits(int addr, int64_t units)
{
    return units <= RTUPLC_MAX_HOST_UNITS && int64_t(addr) + units <= int64_t(INT_MAX) + 1;
}
