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
// Records. Field order and widths are part of the interface; every record starts
// zero-filled.

// One address block: what a screen monitors (intf_addrMerge) or reads once
// (intf_addConditionRead). Word-area lengths are given in 16-bit registers.
struct KEY_ADDRESS {
    QString keyName;          // host's own, copied, never interpreted
    int32_t keyField1 = 0;    // host's own
    int32_t keyField2 = 0;    // host's own
    int32_t station = 0;      // Modbus station (slave address)
    QString regName;          // register area name, e.g. "D_W", "X", "32C"
    QString keyText;          // host's own
    int32_t startAddr = 0;    // first address, in the area's units
    int32_t bitPos = 0;       // -1: one byte per unit (bits); otherwise two (words)
    int32_t len = 0;          // number of units
    uint8_t data[1024] = {};  // value bytes

    KEY_ADDRESS() = default;
    KEY_ADDRESS(const KEY_ADDRESS &) = default;
    KEY_ADDRESS &operator=(const KEY_ADDRESS &) = default;
    ~KEY_ADDRESS() = default;
};

// One request frame and the exact shape of its reply.
struct FRAME_PRO {
    uint8_t frame[1024] = {}; // request bytes to transmit
    int32_t frameLen = 0;     // bytes of `frame` to transmit (0: nothing)
    int32_t replyLen = 0;     // exact reply length expected (0: no reply)
    int32_t dataPos = 0;      // first data byte in the reply (3 for reads)
    int32_t dataLen = 0;      // units a read reply carries; 0 for writes
    int32_t hostWord = 0;     // the host's; the driver leaves it 0
    int32_t reqKind = 0;      // 1 handshake, 2 write, 3 condition read, 4 monitor read,
                              // 5 recipe download, 6 recipe upload (as queued)
    int32_t station = 0;
    QString regName;
    int32_t startAddr = 0;
    int32_t len = 0;
    uint8_t data[1024] = {};
};

// One recipe variable. rcpOffset is counted in 16-bit words of the recipe buffer.
struct _RCP_VAR_PRO {
    int32_t driverId = 0;     // only variables of this driver's id are taken
    int32_t station = 0;
    QString regName;
    int32_t startAddr = 0;
    int32_t len = 0;          // in 16-bit registers for word areas, bits for bit areas
    int32_t rcpOffset = 0;
    int32_t rcpAux = 0;       // host's own
};

// Value-change notification: (driverId, station, item text, address). The text lives
// only during the call. Besides value changes the driver sends two notices, told apart
// by station -1: (-1, -1, "-1", 0 or -1) when a batch of condition reads has finished
// (-1: the link failed), and (0, -1, "RWI", w) for each recipe buffer word w filled by
// an upload.
typedef void (*AddrValueChangeCallBack)(int driverId, int station, QString &item, int addr);

extern "C" {

// Bad input, for every function below: nothing an argument holds makes the driver
// crash, read or write outside its own buffers, or throw. Names are compared exactly
// (case-sensitive, whole text): a lower-case, padded, empty or non-Latin-1 name is an
// unknown area and gets the function's "unknown" result. What the host owns it must
// size: the memory block (60117 bytes or more), the recipe buffer (see
// intf_setRcpAddress), intf_getData's output and intf_setData's input.

// ---------------------------------------------------------------------------------
// Identity, parameters, properties.

// Sets type to 0.
RTUPLC_EXPORT void intf_getProtocolType(int &type);

// Returns the driver version, "2.0.0.0".
RTUPLC_EXPORT QString intf_getVersion();

// Assigns the default parameters and register names:
// "0,9600,8,EVEN,1,0,1,127.0.0.1,8000,rtu_plc,X,Y,M,SM,S,T,C,32C,CV,TV,Z,SD,D_D,D_W".
RTUPLC_EXPORT void intf_getDriverParameter(QString &param);

// Assigns "0_0" (whatever intf_SetDriverPropertyPage stored).
RTUPLC_EXPORT void intf_getDriverPropertyPage(QString &page);

// Stores a copy of page (any text).
RTUPLC_EXPORT void intf_SetDriverPropertyPage(const QString &page);

// Installs the value-change callback; null switches notifications off.
RTUPLC_EXPORT void intf_setAddrValueChangeCallBack(AddrValueChangeCallBack fn);

// Hands over the host's resources and properties, and restarts all traffic: request
// lists, value cache and frame queue are emptied; the callback and recipe are kept.
//   hostMem:   host memory block of at least 60117 bytes; byte 60115 = recipe download
//              command, 60116 = upload command (acted on when exactly 1, cleared by
//              the driver when the transfer ends). Null: both commands read as 0.
//   ignored:   unused.
//   rcpBuf:    recipe buffer of 16-bit words. Null: downloads send zeros, uploads copy
//              nothing.
//   errorCode: set to 0. Null: not written.
//   propertyText: "driverId#localWriteMode#ignored#retryTimes#maxBlockLen", Latin-1,
//              e.g. "1#0#0#3#64". With fewer than five fields the five properties keep
//              their values; a field that is not a decimal int (empty, other bytes,
//              out of range) reads 0. Null counts as empty. A retryTimes of 1 or less
//              fails a request at its first bad reply; a maxBlockLen of 0 or less
//              bridges no gap and cuts long reads and writes at 64 words / 512 bits.
//   hostLock:  the host's lock over the two command bytes; null means no locking.
// Returns 1.
RTUPLC_EXPORT int intf_initProperty(unsigned char *hostMem, intptr_t ignored, unsigned short *rcpBuf,
                                    int *errorCode, const char *propertyText, QMutex *hostLock);

// ---------------------------------------------------------------------------------
// Register catalogue (editor). These read constant tables only.

// Appends the names of bit areas (type 0) or word areas (any other type) to *names.
// Returns 1 for type 0 or 1, else 0 (the list is filled either way). Null names:
// returns 0.
RTUPLC_EXPORT int intf_getRegListByType(int type, QStringList *names);

// Appends five texts about the area to *info: notation, lowest, highest address (in
// the notation), width code ("0" bit, "1" word, "2" double word) and access code
// ("0" R, "1" RW, "2" W). Unknown name or null info: nothing appended. Returns 0.
RTUPLC_EXPORT int intf_getRegDiscription(const QString &regName, QStringList *info);

// Checks address text for bit use (wordUse 0, count in bits) or word use (wordUse != 0,
// count in 16-bit words). Results: 0 valid, *addr holds the address; 1 use does not fit
// the area; 2 out of range; 3 unknown area; 4 text not readable in the area's notation
// (empty, other digits, beyond int; *addr = 0). *addr is written only once the text
// was converted (results 0, 2, 4). A null addr gives 4 where 0, 2 or 4 would be.
// A count of 0 or below puts no end on the range.
RTUPLC_EXPORT int intf_checkAddrValidity(const QString &regName, const QString &addrText, int *addr,
                                         int count, int wordUse);

// As intf_checkAddrValidity with the use given by a data-type code (-1 single bit) and
// a read/write flag (1 or 2: will be written). Adds: 5 a 32-bit area with a data type
// other than 1, 3, 5, 6, 9; 6 a read-only area to be written.
RTUPLC_EXPORT int intf_checkAddr(const QString &regName, const QString &addrText, int *addr,
                                 int dataType, int count, int rw);

// Appends `count` addresses start, start+step, ... to *values and their texts, in the
// area's notation, to *texts. step -1 means one 16-bit word, -2 one 32-bit word, below
// 1 means 1. Addresses past the area's end are replaced by its highest address; a
// negative one is written as its unsigned 32-bit value. Returns 1 all within the area
// (also for a count below 1: nothing appended), 2 some clipped, 0 unknown area, a null
// list, or a count above 65536 (nothing appended).
RTUPLC_EXPORT int intf_multiCopy(const QString &regName, int start, int count, int step,
                                 QVector<QString> *texts, QVector<int> *values);

// ---------------------------------------------------------------------------------
// Communication cycle.

// Copies the next frame to transmit into out. Returns 1 when out holds a frame (the
// same one again after intf_dealRcvFrame returned 8), 0 when there is nothing to send.
// A frame with frameLen 0 (handshake) is not transmitted; replyLen 0 means no reply.
// A read that builds no frame (station 0, unknown area) gives 0 and stays where it
// is: a monitored item of station 0 or of an unknown area at the head of the rotation
// stops the polling of the others, so hosts do not register such items. A recipe
// request that builds no frame is skipped.
RTUPLC_EXPORT int intf_getSendFrame(FRAME_PRO &out);

// Judges the reply to the frame in flight (empty when none came) and assigns a
// one-line description of that frame to errorText ("1#D_W100(10)"). Returns
// 0 no frame in flight; 1 accepted, frame finished; 8 rejected, send the same frame
// again; 2 rejected retryTimes times: the request failed and every queued frame was
// dropped (a failed write is reported through the callback). Any bytes are judged by
// length and CRC alone; a Modbus exception reply counts as a rejected reply.
RTUPLC_EXPORT int intf_dealRcvFrame(QByteArray reply, QString &errorText);

// ---------------------------------------------------------------------------------
// Planning.

// Replaces the monitored addresses with `list` (word lengths in 16-bit registers),
// merges them into read blocks of at most 128 units and returns the number of blocks.
// Items of unknown areas flag nothing but still get a block of their own, which builds
// no frame. Items with a length of 0 or less flag nothing. Items longer than 65536
// units or running past the largest int are skipped. An empty list returns 0.
RTUPLC_EXPORT int intf_addrMerge(QList<KEY_ADDRESS> &list);

// Queues a one-shot read of key (cut into pieces of maxBlockLen words, or 8 x
// maxBlockLen units when key.bitPos is -1), each queued with reqKind = kind. Returns 1,
// or -1 for an unknown area or a length above 65536 units or running past the largest
// int (nothing queued). When the last piece queued has been read the callback gets
// (-1, -1, "-1", 0), or (..., -1) when the link failed. A queue of 513 reads recycles
// its last entry.
RTUPLC_EXPORT int intf_addConditionRead(const KEY_ADDRESS &key, int kind);

// Takes the recipe variables whose driverId is this driver's, sorts them by station,
// area and address and merges touching ones into requests. Returns the number of
// variables taken (0: none, the previous recipe stays). A bit-area variable uses one
// buffer word per bit (0 or non-zero), a register one word, a 32-bit value two (least
// significant first); an upload fills one value of a 32C variable, whatever its
// length. A download sends each request's units back to back from the rcpOffset of
// its first variable, so touching variables must lie in the buffer one after another
// in address order, and the buffer must hold those words. Variables of unknown areas,
// of no units, or too long for the address space are kept but transfer nothing.
RTUPLC_EXPORT int intf_setRcpAddress(QVector<_RCP_VAR_PRO> &vars);

// ---------------------------------------------------------------------------------
// Values.

// Copies cached values into out: 1 byte per bit for bit areas, 2 bytes (low first)
// per word, 4 bytes (least significant first) per 32-bit value, where count counts
// 16-bit words (count/2 values). A value written and not yet settled reads as
// written; an address never read reads 0. Returns 1 (a count of 0 or less writes
// nothing), or -1 for an unknown area, a null out with count > 0, or a count above
// 65536 or running past the largest int (nothing written).
RTUPLC_EXPORT int intf_getData(int station, QString regName, int addr, int count, unsigned char *out);

// Writes count bits (one byte each, non-zero = on) or count 16-bit words (low byte
// first; a 32-bit value is two words, least significant byte first) from data. The
// values show at once in intf_getData and the callback; the write is queued with
// reqKind and settled when the controller answers. A write waiting for the same target
// is replaced; a queue of 513 writes recycles its last entry. Returns 1; -1 for an
// unknown area or a count below 0 or above 1024 bits / 512 words (both when
// localWriteMode is 0), a null data with count > 0, or a count above 65536 or an
// address range past the largest int (nothing queued, cache untouched).
RTUPLC_EXPORT int intf_setData(int station, QString regName, int addr, int count, unsigned char *data,
                               int reqKind);

} // extern "C"

#endif
