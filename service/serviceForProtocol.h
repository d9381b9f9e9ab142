// The driver's state and the generic protocol service around the controller unit:
// the driver object, planning, the send/receive cycle, the value cache, change reports
// and writes.
#ifndef RTUPLC_SERVICE_FOR_PROTOCOL_H
#define RTUPLC_SERVICE_FOR_PROTOCOL_H

#include <QList>
#include <QMutex>
#include <QString>
#include <QVector>

#include <cstdint>
#include <mutex>
#include <vector>

#include "area_index.h"
#include "rtu_plc.h"
#include "rtuplc.h"

class Protocol {
public:
    Protocol();
    ~Protocol();
    Protocol(const Protocol &) = delete;
    Protocol &operator=(const Protocol &) = delete;

    AddrValueChangeCallBack addrValueChangeCallBack = nullptr;
    int32_t driverId = 0;
    int32_t localWriteMode = 0;
    int32_t retryTimes = 0;
    int32_t maxBlockLen = 0;
    unsigned char *hostMemory = nullptr;
    unsigned short *rcpBuffer = nullptr;
    QMutex *hostMutex = nullptr;
    QList<VARIABLE> monitorList;
    QList<VARIABLE> writeList;
    QList<VARIABLE> conditionList;
    QList<_DATA_> dataAreas;
    QVector<_RCP_VAR_PRO> rcpVars;
    QVector<_RCP_VAR_PRO> rcpReqs;
    QList<int> rcpReqStart;
    VARIABLE lastCondVar;
    QList<QString> regList;
    VARIABLE curVar;
    QList<VARIABLE> curVarList;
    int32_t sendState = 0;
    int32_t priorityCount = 0;
    int32_t handshakeFlag = 0;
    int32_t failCount = 0;
    int32_t maxBitLen = 0;
    int32_t maxWordLen = 0;
    int32_t commError = 0;
    QList<FRAME_PRO> frameList;
    QMutex listMutex;
    int32_t rcpIndex = 0;
    // Written by intf_SetDriverPropertyPage and never read back: hosts see the member,
    // so it stays where the layout has it.
    QString propertyPage;

    // --- Members below are the implementation's own; hosts never see them. ---

    // Serialises every caller of the lists and the value cache. Recursive, so that a
    // callback may call back into the driver on its own thread. A standard mutex
    // rather than a QMutex so that thread checkers see its ordering.
    std::recursive_mutex stateMutex;
    DataAreaIndex areaIndex;
    // Recipe command bytes to clear once the state lock is released (bit 0: download,
    // bit 1: upload), so that the host's lock is never taken inside ours.
    int pendingHostClear = 0;
    // Bumped by intf_initProperty; a decode that sees it change stops touching areas.
    uint32_t resetGeneration = 0;
};

extern RTUPLC_EXPORT Protocol driver;

using StateLock = std::lock_guard<std::recursive_mutex>;

// --- Effective split sizes: a maxBlockLen of 0 or less cuts at the defaults. ---
int splitWords();
int splitBits();

// True when `units` units from addr are a sane host request: at most one Modbus
// address space, and every address representable as an int.
bool hostRangeFits(int addr, int64_t units);

// --- Planning. ---

enum MergeMode { MERGE_MONITOR = 1, MERGE_RECIPE = 2 };

// What merging needs of an item or a block: `src` is the index of the item (for a
// block, of the item that opened it) in the caller's list; `offset` is a recipe
// variable's buffer offset, carried along (and advanced over cut pieces).
struct MergeItem {
    int station = 0;
    QString regName;
    int64_t startAddr = 0;
    int64_t len = 0;
    int src = 0;
    int64_t offset = 0;
};

// Normalises lengths (word lengths to the area's units; in monitor mode D_D becomes
// D_W), sorts by weight in monitor mode (recipe callers sort beforehand), and merges
// into blocks of at most RTUPLC_MAX_READ_UNITS. In recipe mode `starts` receives, per block,
// the `src` of the first item it covers. Registration and recipe planning call this
// form: it carries no 1 KB records.
std::vector<MergeItem> addrMerge(std::vector<MergeItem> items, int mode, QList<int> *starts);
// The same on host keys, in and out; blocks carry the fields of their opening key.
void addrMerge(QList<KEY_ADDRESS> &keys, int mode);

// (station x 14 + register position) x 65535 + address, compared unsigned. `len` is
// part of the documented signature and plays no part in the order.
uint32_t getRegAddressWeight(int station, const QString &regName, int startAddr, int len);
void groupingKey(const KEY_ADDRESS &key, int maxLen, QList<KEY_ADDRESS> &out, int copyData);
int _setDataAreaMonitorFlag(int station, const QString &regName, int startAddr, int len);
int _setBitValue(int value, int bit, int on);
void rcpAddrToVar(const _RCP_VAR_PRO &req, VARIABLE &var, int withData);

// --- Data areas and change reports. ---
// The data area of (station, area name, address): the first that matches, or a new one
// appended with every other field zero. On driver.dataAreas it is found through the
// index; any other list is scanned.
int getIndexOfDataArea(int station, const QString &name, int addr, QList<_DATA_> &areas);
// The same on driver.dataAreas with the area name interned (DataAreaIndex::prefixId):
// what the decoder, the host's reads and writes call for every unit.
int getIndexOfDataArea(int station, int prefixId, int addr);
void _bitDataChange(int area);
// The old and new values are part of the documented signatures; what is reported
// depends only on the area's monitor flags, so they are not read (and may be null).
void _wordDataChange(int *oldValue, int *newValue, int area, int plainName);
void _dwordDataChange(int *oldValue, int *newValue, int area, int plainName);
int uchar2int16(unsigned char lo, unsigned char hi);
int uchar2int32(unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3);
// Reply bytes past the end read as 0: the length check keeps real replies inside.
struct ReplyBytes {
    const unsigned char *p;
    int64_t n;
    unsigned char operator[](int64_t i) const { return (i >= 0 && i < n) ? p[i] : 0; }
};
// False when a change report restarted the driver meanwhile: the rest of the reply is stale.
bool analyzeFrameOfVal(const QByteArray &reply, int count, int dataPos, const VARIABLE &var);
// Fills the host's recipe buffer from the reply to the upload request in flight.
void copyRecipeUpload(const ReplyBytes &r, int dataPos, const VARIABLE &var);
void notifyHost(int driverId, int station, const QString &item, int addr);

// --- Cycle. ---
QString getErrorInfo(const QByteArray &reply);
void dealListWhenFinish();
// Returns 0, which nobody reads: the documented signature keeps the int.
int dealReadFrameReturnSaveData(const QByteArray &reply);
void applyPendingHostClears();

// --- Writes. ---
void write_saveDataToArea(int station, const QString &regName, int addr, int count, const unsigned char *data);
void _write_FailOrSuc(int station, const QString &regName, int startAddr, int len, int ok);

// --- Editor helpers, table-independent so that any row can be tested. ---
// How an editor item uses an address: as a bit or as words; with a data type and a
// read/write flag for the typed check.
struct AddressUse {
    bool bitUse = false;
    bool typed = false; // apply the access and 32-bit data-type tests
    int dataType = 0;
    int rw = 0;
};
int validateAddress(const QString *row, const QString &regName, const QString &addrText, int *addr, int count,
                    const AddressUse &use);
int multiCp(QString regName, QString notation, int start, int count, int step, QVector<QString> &texts,
            QVector<int> &values, int highest, QString highestText);

// Runs an exported function body, turning any escaping exception into `fallback`.
template <typename F, typename R>
R guarded(R fallback, F &&body) noexcept
{
    try {
        return body();
    } catch (...) {
        return fallback;
    }
}
template <typename F>
void guardedVoid(F &&body) noexcept
{
    try {
        body();
    } catch (...) {
    }
}

#endif
