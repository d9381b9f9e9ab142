// rtuplc: Modbus RTU driver for a compact programmable controller.
//
// This is the header a host (an operator-panel runtime or its screen editor) compiles
// against. It declares the records the host exchanges with the driver, the value-change
// callback, and every exported function. The functions have C linkage, so a host that
// loads the library with dlopen() resolves them by their plain names ("intf_getSendFrame");
// their arguments are Qt 5 types, so the host must be built against the same Qt major.
//
// The driver opens no port, starts no thread and sets no timer. The host's loop does:
//
//     FRAME_PRO f;
//     if (intf_getSendFrame(f)) {
//         transmit(f.frame, f.frameLen);
//         QByteArray reply = receive(f.replyLen);   // empty on time-out
//         QString what;
//         int r = intf_dealRcvFrame(reply, what);   // 1 ok, 8 send again, 2 failed
//     }
//
// Threading contract
// ------------------
// * intf_getSendFrame and intf_dealRcvFrame form the communication cycle; call them from
//   one loop, one frame in flight at a time.
// * Every other function may be called from any thread, also while the cycle runs on
//   another one: the driver serialises access to its lists and its value cache with an
//   internal lock. The editor functions (catalogue, validation, multiple copy) touch
//   only constant tables and take no lock at all.
// * The value-change callback runs synchronously on the thread whose call caused it
//   (usually the cycle's, or the caller of intf_setData), with that internal lock held.
//   A callback may call back into the driver (intf_getData, intf_setData, ...) from the
//   same thread; it must not wait for another thread that is itself calling the driver,
//   and it must not call intf_initProperty.
// * The driver takes the host's QMutex given to intf_initProperty only around reading
//   and clearing the two recipe command bytes, and never while holding its own lock.
//
// Result codes are plain ints; no exception ever leaves an exported function.
#ifndef RTUPLC_H
#define RTUPLC_H

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QVector>

#include <cstdint>

#if defined(RTUPLC_BUILDING_DRIVER)
#define RTUPLC_EXPORT __attribute__((visibility("default")))
#else
#define RTUPLC_EXPORT
#endif

// ---------------------------------------------------------------------------------
// Named constants. Every result is a plain int; these are its values.

// Kinds of request, as the driver numbers them in FRAME_PRO::reqKind and in the kind
// passed to intf_setData (writes) and intf_addConditionRead (one-shot reads).
enum RtuplcRequestKind {
    RTUPLC_KIND_IDLE = 0,      // nothing in flight
    RTUPLC_KIND_HANDSHAKE = 1, // a record with no bytes to send, no reply expected
    RTUPLC_KIND_WRITE = 2,
    RTUPLC_KIND_CONDITION_READ = 3,
    RTUPLC_KIND_MONITOR_READ = 4,
    RTUPLC_KIND_RECIPE_DOWNLOAD = 5,
    RTUPLC_KIND_RECIPE_UPLOAD = 6,
};

// intf_getSendFrame.
enum RtuplcSendResult {
    RTUPLC_SEND_NOTHING = 0, // nothing is due now
    RTUPLC_SEND_FRAME = 1,   // the record holds the frame to transmit
};

// intf_dealRcvFrame.
enum RtuplcReplyResult {
    RTUPLC_REPLY_IDLE = 0,     // no frame in flight; nothing was done
    RTUPLC_REPLY_ACCEPTED = 1, // the frame is finished; fetch the next one
    RTUPLC_REPLY_FAILED = 2,   // rejected retryTimes times: the request failed, the queue was dropped
    RTUPLC_REPLY_RETRY = 8,    // rejected, attempts left: intf_getSendFrame gives the same frame
};

// intf_checkAddrValidity and intf_checkAddr.
enum RtuplcAddressCheck {
    RTUPLC_ADDR_VALID = 0,
    RTUPLC_ADDR_WRONG_USE = 1,    // bit use of a word area, or word use of a bit area
    RTUPLC_ADDR_OUT_OF_RANGE = 2, // below the lowest address, or running past the highest
    RTUPLC_ADDR_UNKNOWN_AREA = 3,
    RTUPLC_ADDR_UNREADABLE = 4,    // the text is not a number in the area's notation
    RTUPLC_ADDR_BAD_DATA_TYPE = 5, // intf_checkAddr: a 32-bit area and a data type not 1, 3, 5, 6 or 9
    RTUPLC_ADDR_READ_ONLY = 6,     // intf_checkAddr: a read-only area to be written
};

// Data-type code of intf_checkAddr that means a single bit.
constexpr int RTUPLC_DATA_TYPE_BIT = -1;

// intf_multiCopy.
enum RtuplcCopyResult {
    RTUPLC_COPY_UNKNOWN_AREA = 0, // or a null list, or too many copies: nothing appended
    RTUPLC_COPY_IN_RANGE = 1,
    RTUPLC_COPY_CLIPPED = 2, // some addresses were replaced by the area's highest
};
// Steps of intf_multiCopy that count in words rather than addresses.
constexpr int RTUPLC_STEP_WORD = -1;
constexpr int RTUPLC_STEP_DWORD = -2;

// intf_getRegListByType.
enum RtuplcAreaType {
    RTUPLC_BIT_AREAS = 0,
    RTUPLC_WORD_AREAS = 1,
};

// intf_getData, intf_setData, intf_addConditionRead.
constexpr int RTUPLC_OK = 1;
constexpr int RTUPLC_REFUSED = -1; // unknown area, or arguments no request can carry

// The host memory block: two bytes the host sets to RTUPLC_RCP_COMMAND to start a
// recipe transfer, which the driver clears when the transfer ends. The block must
// hold at least RTUPLC_HOST_MEMORY_BYTES bytes.
constexpr int RTUPLC_RCP_DOWNLOAD_BYTE = 60115;
constexpr int RTUPLC_RCP_UPLOAD_BYTE = 60116;
constexpr unsigned char RTUPLC_RCP_COMMAND = 1;
constexpr int RTUPLC_HOST_MEMORY_BYTES = RTUPLC_RCP_UPLOAD_BYTE + 1;

// Notices through the value-change callback, told from value changes by their station.
constexpr int RTUPLC_NOTICE_STATION = -1;
// (-1, -1, "-1", 0 or -1): a batch of condition reads has finished (-1: the link failed).
constexpr int RTUPLC_NOTICE_BATCH_ID = -1;
constexpr const char *RTUPLC_NOTICE_BATCH_TEXT = "-1";
constexpr int RTUPLC_BATCH_DONE = 0;
constexpr int RTUPLC_BATCH_FAILED = -1;
// (0, -1, "RWI", w): recipe buffer word w was filled by an upload.
constexpr const char *RTUPLC_NOTICE_RECIPE_TEXT = "RWI";

// Limits.
constexpr int RTUPLC_MAX_READ_UNITS = 128;                           // units one read block covers at most
constexpr int RTUPLC_RECORD_DATA_BYTES = 1024;                       // the data bytes of a record
constexpr int RTUPLC_FRAME_BYTES = 1024;                             // the frame bytes of a FRAME_PRO
constexpr int RTUPLC_MAX_WRITE_WORDS = RTUPLC_RECORD_DATA_BYTES / 2; // intf_setData, word areas
constexpr int RTUPLC_MAX_WRITE_BITS = RTUPLC_RECORD_DATA_BYTES;      // intf_setData, bit areas
constexpr int RTUPLC_MAX_HOST_UNITS = 65536;                         // one Modbus address space: the largest call
constexpr int RTUPLC_QUEUE_LAST = 512;                               // write and condition queues hold indices 0..512
constexpr int RTUPLC_DEFAULT_SPLIT_WORDS = 64;                       // split size while maxBlockLen is 0 or less

// ---------------------------------------------------------------------------------
// Records. Field order and widths are part of the interface; every record starts
// zero-filled.

// One address block: what a screen monitors (intf_addrMerge) or reads once
// (intf_addConditionRead). Word-area lengths are given in 16-bit registers.
struct KEY_ADDRESS {
    QString keyName;                             // host's own, copied, never interpreted
    int32_t keyField1 = 0;                       // host's own
    int32_t keyField2 = 0;                       // host's own
    int32_t station = 0;                         // Modbus station (slave address)
    QString regName;                             // register area name, e.g. "D_W", "X", "32C"
    QString keyText;                             // host's own
    int32_t startAddr = 0;                       // first address, in the area's units
    int32_t bitPos = 0;                          // -1: one byte per unit (bits); otherwise two (words)
    int32_t len = 0;                             // number of units
    uint8_t data[RTUPLC_RECORD_DATA_BYTES] = {}; // value bytes

    KEY_ADDRESS() = default;
    KEY_ADDRESS(const KEY_ADDRESS &) = default;
    KEY_ADDRESS &operator=(const KEY_ADDRESS &) = default;
    ~KEY_ADDRESS() = default;
};

// One request frame and the exact shape of its reply.
struct FRAME_PRO {
    uint8_t frame[RTUPLC_FRAME_BYTES] = {}; // request bytes to transmit
    int32_t frameLen = 0;                   // bytes of `frame` to transmit (0: nothing)
    int32_t replyLen = 0;                   // exact reply length expected (0: no reply)
    int32_t dataPos = 0;                    // first data byte in the reply (3 for reads)
    int32_t dataLen = 0;                    // units a read reply carries; 0 for writes
    int32_t hostWord = 0;                   // the host's; the driver leaves it 0
    int32_t reqKind = 0;                    // an RtuplcRequestKind, as queued
    int32_t station = 0;
    QString regName;
    int32_t startAddr = 0;
    int32_t len = 0;
    uint8_t data[RTUPLC_RECORD_DATA_BYTES] = {};
};

// One recipe variable. rcpOffset is counted in 16-bit words of the recipe buffer.
struct _RCP_VAR_PRO {
    int32_t driverId = 0; // only variables of this driver's id are taken
    int32_t station = 0;
    QString regName;
    int32_t startAddr = 0;
    int32_t len = 0; // in 16-bit registers for word areas, bits for bit areas
    int32_t rcpOffset = 0;
    int32_t rcpAux = 0; // host's own
};

// Value-change notification: (driverId, station, item text, address). The text lives
// only during the call. Besides value changes the driver sends two notices, told apart
// by station RTUPLC_NOTICE_STATION: the end of a batch of condition reads and a recipe
// buffer word filled by an upload (see the constants above).
typedef void (*AddrValueChangeCallBack)(int driverId, int station, QString &item, int addr);

extern "C" {

// Every function below, in the manner of a manual page: what it does, Returns, Errors
// (what bad input gets) and an Example. Bad input in general: nothing an argument holds
// makes the driver crash, read or write outside its own buffers, or throw. Names are
// compared exactly (case-sensitive, whole text): a lower-case, padded, empty or
// non-Latin-1 name is an unknown area. What the host owns it must size: the memory block
// (RTUPLC_HOST_MEMORY_BYTES or more), the recipe buffer (see intf_setRcpAddress),
// intf_getData's output and intf_setData's input.

// ---------------------------------------------------------------------------------
// Identity, parameters, properties.

// intf_getProtocolType: the driver's protocol type.
// Returns: nothing; sets type to 0.
// Example: int t; intf_getProtocolType(t);
RTUPLC_EXPORT void intf_getProtocolType(int &type);

// intf_getVersion: the driver's version.
// Returns: "2.0.0.0".
RTUPLC_EXPORT QString intf_getVersion();

// intf_getDriverParameter: the default line and the register names.
// Returns: nothing; assigns
// "0,9600,8,EVEN,1,0,1,127.0.0.1,8000,rtu_plc,X,Y,M,SM,S,T,C,32C,CV,TV,Z,SD,D_D,D_W":
// fields 2-5 are the serial line, field 9 the TCP port, from field 11 on the areas.
// Example: QString p; intf_getDriverParameter(p); QString line = p.section(',', 1, 4);
RTUPLC_EXPORT void intf_getDriverParameter(QString &param);

// intf_getDriverPropertyPage: the property-page mode.
// Returns: nothing; assigns "0_0" (whatever intf_SetDriverPropertyPage stored).
RTUPLC_EXPORT void intf_getDriverPropertyPage(QString &page);

// intf_SetDriverPropertyPage: keeps a copy of page (any text); nothing reads it back.
RTUPLC_EXPORT void intf_SetDriverPropertyPage(const QString &page);

// intf_setAddrValueChangeCallBack: installs the value-change callback.
// Errors: null switches notifications off.
// Example: intf_setAddrValueChangeCallBack(onChange);
RTUPLC_EXPORT void intf_setAddrValueChangeCallBack(AddrValueChangeCallBack fn);

// intf_initProperty: hands over the host's resources and properties, and restarts all
// traffic: request lists, value cache and frame queue are emptied; the callback and
// the recipe are kept.
//   hostMem:   the host memory block (RTUPLC_HOST_MEMORY_BYTES or more) holding the
//              recipe command bytes RTUPLC_RCP_DOWNLOAD_BYTE and RTUPLC_RCP_UPLOAD_BYTE.
//   ignored:   unused.
//   rcpBuf:    the recipe buffer of 16-bit words.
//   errorCode: set to 0.
//   propertyText: "driverId#localWriteMode#ignored#retryTimes#maxBlockLen", Latin-1.
//   hostLock:  the host's lock over the two command bytes.
// Returns: 1.
// Errors: a null hostMem reads both commands as 0; a null rcpBuf makes downloads send
// zeros and uploads copy nothing; a null errorCode is not written; a null text counts as
// empty; with fewer than five fields the five properties keep their values, and a field
// that is not a decimal int reads 0; a null hostLock means no locking. A retryTimes of 1
// or less fails a request at its first bad reply; a maxBlockLen of 0 or less bridges no
// gap and cuts long reads and writes at RTUPLC_DEFAULT_SPLIT_WORDS words (8 times as
// many bits).
// Example: intf_initProperty(memory, 0, recipe, &err, "1#0#0#3#64", &memoryLock);
RTUPLC_EXPORT int intf_initProperty(unsigned char *hostMem, intptr_t ignored, unsigned short *rcpBuf, int *errorCode,
                                    const char *propertyText, QMutex *hostLock);

// ---------------------------------------------------------------------------------
// Register catalogue (editor). These read constant tables only.

// intf_getRegListByType: appends the names of the bit areas (RTUPLC_BIT_AREAS) or of
// the word areas (any other type) to *names.
// Returns: 1 for RTUPLC_BIT_AREAS or RTUPLC_WORD_AREAS, else 0 (the list is filled
// either way).
// Errors: a null names returns 0.
// Example: QStringList bits; intf_getRegListByType(RTUPLC_BIT_AREAS, &bits); // X Y M SM S T C
RTUPLC_EXPORT int intf_getRegListByType(int type, QStringList *names);

// intf_getRegDiscription: appends five texts about the area to *info: notation, lowest
// and highest address (in the notation), width code ("0" bit, "1" word, "2" double
// word) and access code ("0" R, "1" RW, "2" W).
// Returns: 0.
// Errors: an unknown name or a null info appends nothing.
// Example: intf_getRegDiscription("X", &info); // "OOO", "0", "377", "0", "1"
RTUPLC_EXPORT int intf_getRegDiscription(const QString &regName, QStringList *info);

// intf_checkAddrValidity: checks address text for bit use (wordUse 0, count in bits)
// or word use (wordUse != 0, count in 16-bit words) and converts it into *addr.
// Returns: RTUPLC_ADDR_VALID with *addr set, or RTUPLC_ADDR_WRONG_USE,
// RTUPLC_ADDR_OUT_OF_RANGE, RTUPLC_ADDR_UNKNOWN_AREA, RTUPLC_ADDR_UNREADABLE
// (*addr = 0).
// Errors: *addr is written only once the text was converted (valid, out of range,
// unreadable); a null addr gives RTUPLC_ADDR_UNREADABLE where one of those would be; a
// count of 0 or below puts no end on the range.
// Example: intf_checkAddrValidity("X", "17", &addr, 1, 0); // RTUPLC_ADDR_VALID, addr 15
RTUPLC_EXPORT int intf_checkAddrValidity(const QString &regName, const QString &addrText, int *addr, int count,
                                         int wordUse);

// intf_checkAddr: as intf_checkAddrValidity, with the use given by a data-type code
// (RTUPLC_DATA_TYPE_BIT: a single bit) and a read/write flag (1 or 2: will be written).
// Returns: as intf_checkAddrValidity, plus RTUPLC_ADDR_BAD_DATA_TYPE and
// RTUPLC_ADDR_READ_ONLY.
// Example: intf_checkAddr("D_D", "100", &addr, 3, 2, 1); // RTUPLC_ADDR_VALID
RTUPLC_EXPORT int intf_checkAddr(const QString &regName, const QString &addrText, int *addr, int dataType, int count,
                                 int rw);

// intf_multiCopy: appends `count` addresses start, start+step, ... to *values and
// their texts, in the area's notation, to *texts. A step of RTUPLC_STEP_WORD or
// RTUPLC_STEP_DWORD counts one 16-bit or 32-bit word in the area's units; below 1
// means 1.
// Returns: RTUPLC_COPY_IN_RANGE (also for a count below 1: nothing appended),
// RTUPLC_COPY_CLIPPED when addresses past the area's end were replaced by its highest
// address, RTUPLC_COPY_UNKNOWN_AREA.
// Errors: a null list, or a count above RTUPLC_MAX_HOST_UNITS, gives
// RTUPLC_COPY_UNKNOWN_AREA with nothing appended; a negative address is written as its
// unsigned 32-bit value.
// Example: intf_multiCopy("X", 8, 3, 8, &texts, &values); // 8 16 24, "10" "20" "30"
RTUPLC_EXPORT int intf_multiCopy(const QString &regName, int start, int count, int step, QVector<QString> *texts,
                                 QVector<int> *values);

// ---------------------------------------------------------------------------------
// Communication cycle.

// intf_getSendFrame: copies the next frame to transmit into out. A record with
// frameLen 0 (a handshake) is not transmitted; replyLen 0 means no reply is expected.
// Returns: RTUPLC_SEND_FRAME (the same frame again after RTUPLC_REPLY_RETRY), or
// RTUPLC_SEND_NOTHING.
// Errors: a read that builds no frame (station 0, unknown area) gives
// RTUPLC_SEND_NOTHING and stays where it is: a monitored item of station 0 or of an
// unknown area at the head of the rotation stops the polling of the others, so hosts
// do not register such items. A recipe request that builds no frame is skipped.
// Example: see intf_dealRcvFrame.
RTUPLC_EXPORT int intf_getSendFrame(FRAME_PRO &out);

// intf_dealRcvFrame: judges the reply to the frame in flight (empty when none came)
// and assigns a one-line description of that frame to errorText ("1#D_W100(10)").
// Returns: RTUPLC_REPLY_IDLE, RTUPLC_REPLY_ACCEPTED, RTUPLC_REPLY_RETRY, or
// RTUPLC_REPLY_FAILED (a failed write is reported through the callback).
// Errors: any bytes are judged by exact length and CRC alone, so the host must hand
// over only bytes that answer the frame in flight (rtuplc_link.h); a Modbus exception
// reply counts as a rejected reply.
// Example:
//   FRAME_PRO f;
//   if (intf_getSendFrame(f) == RTUPLC_SEND_FRAME) {
//       QByteArray reply = exchange(f);          // the matched reply, or empty
//       QString what;
//       if (intf_dealRcvFrame(reply, what) == RTUPLC_REPLY_FAILED)
//           report(what);
//   }
RTUPLC_EXPORT int intf_dealRcvFrame(QByteArray reply, QString &errorText);

// ---------------------------------------------------------------------------------
// Planning.

// intf_addrMerge: replaces the monitored addresses with `list` (word lengths in 16-bit
// registers) and merges them into read blocks of at most RTUPLC_MAX_READ_UNITS units.
// Returns: the number of read blocks; 0 for an empty list.
// Errors: items of unknown areas flag nothing but still get a block of their own, which
// builds no frame; items with a length of 0 or less flag nothing; items longer than
// RTUPLC_MAX_HOST_UNITS units or running past the largest int are skipped.
// Example: KEY_ADDRESS k; k.station = 1; k.regName = "D_W"; k.startAddr = 100;
//          k.len = 10; QList<KEY_ADDRESS> l{k}; intf_addrMerge(l); // 1
RTUPLC_EXPORT int intf_addrMerge(QList<KEY_ADDRESS> &list);

// intf_addConditionRead: queues a one-shot read of key, cut into pieces of maxBlockLen
// words (8 x maxBlockLen units when key.bitPos is -1), each queued with reqKind = kind
// (RTUPLC_KIND_CONDITION_READ). When the last piece queued has been read the callback
// gets the batch notice (RTUPLC_NOTICE_BATCH_TEXT).
// Returns: RTUPLC_OK.
// Errors: RTUPLC_REFUSED, nothing queued, for an unknown area or a length above
// RTUPLC_MAX_HOST_UNITS or running past the largest int. A queue holding
// RTUPLC_QUEUE_LAST + 1 reads recycles its last entry.
// Example: intf_addConditionRead(k, RTUPLC_KIND_CONDITION_READ);
RTUPLC_EXPORT int intf_addConditionRead(const KEY_ADDRESS &key, int kind);

// intf_setRcpAddress: takes the recipe variables whose driverId is this driver's,
// sorts them by station, area and address and merges touching ones into requests. A
// bit-area variable uses one buffer word per bit (0 or non-zero), a register one word,
// a 32-bit value two (least significant first); an upload fills one value of a 32C
// variable, whatever its length. A download sends each request's units back to back
// from the rcpOffset of its first variable, so touching variables must lie in the
// buffer one after another in address order, and the buffer must hold those words.
// Returns: the number of variables taken (0: none, and the previous recipe stays).
// Errors: variables of unknown areas, of no units, or too long for the address space
// are kept but transfer nothing.
// Example: then set memory[RTUPLC_RCP_DOWNLOAD_BYTE] = RTUPLC_RCP_COMMAND under the lock.
RTUPLC_EXPORT int intf_setRcpAddress(QVector<_RCP_VAR_PRO> &vars);

// ---------------------------------------------------------------------------------
// Values.

// intf_getData: copies cached values into out: 1 byte per bit for bit areas, 2 bytes
// (low first) per word, 4 bytes (least significant first) per 32-bit value, where count
// counts 16-bit words (count/2 values). A value written and not yet settled reads as
// written; an address never read reads 0.
// Returns: RTUPLC_OK (a count of 0 or less writes nothing).
// Errors: RTUPLC_REFUSED, nothing written, for an unknown area, a null out with
// count > 0, or a count above RTUPLC_MAX_HOST_UNITS or running past the largest int.
// Example: unsigned char v[2]; intf_getData(1, "D_W", 100, 1, v); // v[0] | v[1] << 8
RTUPLC_EXPORT int intf_getData(int station, QString regName, int addr, int count, unsigned char *out);

// intf_setData: writes count bits (one byte each, non-zero = on) or count 16-bit words
// (low byte first; a 32-bit value is two words, least significant byte first) from
// data. The values show at once in intf_getData and the callback; the write is queued
// with reqKind (RTUPLC_KIND_WRITE) and settled when the controller answers. A write
// waiting for the same target is replaced.
// Returns: RTUPLC_OK.
// Errors: RTUPLC_REFUSED, nothing queued and the cache untouched, for an unknown area
// or a count below 0 or above RTUPLC_MAX_WRITE_BITS / RTUPLC_MAX_WRITE_WORDS (both
// when localWriteMode is 0), a null data with count > 0, or a count above
// RTUPLC_MAX_HOST_UNITS or an address range past the largest int. A queue holding
// RTUPLC_QUEUE_LAST + 1 writes recycles its last entry.
// Example: unsigned char v[2] = {0xD2, 0x04}; intf_setData(1, "D_W", 100, 1, v, RTUPLC_KIND_WRITE);
RTUPLC_EXPORT int intf_setData(int station, QString regName, int addr, int count, unsigned char *data, int reqKind);

} // extern "C"

#endif
