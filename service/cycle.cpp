// The send/receive cycle the host's loop drives: which request goes next, the frame in
// flight and its retries, and retiring finished requests.
#include "serviceForProtocol.h"

#include <cstring>

namespace {

constexpr int kMaxWritesInRow = 10;
constexpr int kMaxPriorityReadsInRow = 3;
constexpr int kClearDownload = 1;
constexpr int kClearUpload = 2;

struct RecipeCommands {
    bool download = false;
    bool upload = false;
};

// The host sets a command byte to 1 to start a transfer; the driver clears it when
// the transfer ends. Both are read under the host's lock.
RecipeCommands readRecipeCommands(unsigned char *memory, QMutex *hostLock)
{
    RecipeCommands c;
    if (memory == nullptr)
        return c;
    if (hostLock)
        hostLock->lock();
    c.download = memory[RTUPLC_RCP_DOWNLOAD_BYTE] == 1;
    c.upload = memory[RTUPLC_RCP_UPLOAD_BYTE] == 1;
    if (hostLock)
        hostLock->unlock();
    return c;
}

bool recipeRequestLeft()
{
    return driver.rcpIndex >= 0 && driver.rcpIndex < driver.rcpReqs.size();
}

void readCurVar()
{
    driver.curVarList.clear();
    driver.curVarList.append(driver.curVar);
    getReadFrame(driver.curVarList, driver.frameList);
}

// Picks the next request and builds its frame. Returns false when nothing is due.
bool chooseNext(const RecipeCommands &commands)
{
    if (driver.handshakeFlag != 0) {
        driver.sendState = RTUPLC_KIND_HANDSHAKE;
        handShakeFrame(driver.frameList);
        return true;
    }
    RecipeCommands c = commands;
    // A command with no request left (none was ever set, say) is complete at once.
    if (c.download && !recipeRequestLeft()) {
        driver.pendingHostClear |= kClearDownload;
        driver.rcpIndex = 0;
        c.download = false;
    }
    if (c.download) {
        rcpAddrToVar(driver.rcpReqs.at(driver.rcpIndex), driver.curVar, 1);
        driver.sendState = RTUPLC_KIND_RECIPE_DOWNLOAD;
        getWriteFrame(driver.curVar, driver.frameList);
        return true;
    }
    if (c.upload && !recipeRequestLeft()) {
        driver.pendingHostClear |= kClearUpload;
        driver.rcpIndex = 0;
        c.upload = false;
    }
    if (c.upload) {
        rcpAddrToVar(driver.rcpReqs.at(driver.rcpIndex), driver.curVar, 0);
        driver.sendState = RTUPLC_KIND_RECIPE_UPLOAD;
        readCurVar();
        return true;
    }
    if (!driver.writeList.isEmpty() && driver.priorityCount < kMaxWritesInRow) {
        driver.curVar = driver.writeList.first();
        driver.sendState = RTUPLC_KIND_WRITE;
        driver.priorityCount += 1;
        getWriteFrame(driver.curVar, driver.frameList);
        return true;
    }
    if (!driver.conditionList.isEmpty() && driver.priorityCount < kMaxPriorityReadsInRow) {
        driver.curVar = driver.conditionList.first();
        driver.sendState = RTUPLC_KIND_CONDITION_READ;
        driver.priorityCount += 1;
        readCurVar();
        return true;
    }
    if (!driver.monitorList.isEmpty()) {
        driver.curVar = driver.monitorList.first();
        driver.sendState = RTUPLC_KIND_MONITOR_READ;
        driver.priorityCount = 0;
        readCurVar();
        return true;
    }
    driver.priorityCount = 0;
    driver.sendState = RTUPLC_KIND_IDLE;
    driver.frameList.clear();
    return false;
}

// A recipe request that builds no frame (a read from the broadcast station, an area
// the table does not know, a length no frame can carry) would be chosen again on every
// cycle and starve all other traffic; it is skipped instead.
void skipUnbuildableRecipeRequest()
{
    if (!driver.frameList.isEmpty())
        return;
    if (driver.sendState != RTUPLC_KIND_RECIPE_DOWNLOAD && driver.sendState != RTUPLC_KIND_RECIPE_UPLOAD)
        return;
    if (++driver.rcpIndex >= driver.rcpReqs.size()) {
        driver.rcpIndex = 0;
        driver.pendingHostClear |= driver.sendState == RTUPLC_KIND_RECIPE_DOWNLOAD ? kClearDownload : kClearUpload;
    }
}

} // namespace

void applyPendingHostClears()
{
    int clear = 0;
    unsigned char *memory = nullptr;
    QMutex *hostLock = nullptr;
    {
        StateLock lock(driver.stateMutex);
        clear = driver.pendingHostClear;
        driver.pendingHostClear = 0;
        memory = driver.hostMemory;
        hostLock = driver.hostMutex;
    }
    if (clear == 0 || memory == nullptr)
        return;
    if (hostLock)
        hostLock->lock();
    if (clear & kClearDownload)
        memory[RTUPLC_RCP_DOWNLOAD_BYTE] = 0;
    if (clear & kClearUpload)
        memory[RTUPLC_RCP_UPLOAD_BYTE] = 0;
    if (hostLock)
        hostLock->unlock();
}

QString getErrorInfo(const QByteArray &reply)
{
    if (driver.frameList.isEmpty())
        return QString();
    const FRAME_PRO &head = driver.frameList.first();
    QString code;
    if (reply.size() == 10 && reply.at(5) != 0)
        code = QStringLiteral(",error code:%1").arg(static_cast<unsigned char>(reply.at(5)));
    const QString address = QStringLiteral("%1%2").arg(head.regName).arg(head.startAddr);
    return QStringLiteral("%1#%2(%3)").arg(head.station).arg(address).arg(head.len) + code;
}

int dealReadFrameReturnSaveData(const QByteArray &reply)
{
    if (driver.frameList.isEmpty())
        return 0;
    const FRAME_PRO &head = driver.frameList.first();
    VARIABLE var;
    var.reqKind = head.reqKind;
    var.station = head.station;
    var.regName = head.regName;
    var.startAddr = head.startAddr;
    var.len = head.len;
    std::memcpy(var.data, head.data, sizeof var.data);
    const int count = head.dataLen;
    const int dataPos = head.dataPos;
    // An upload reply is a cached read too; the recipe buffer is filled once the cache
    // has it, unless a change report restarted the driver in between.
    const ReplyBytes r{reinterpret_cast<const unsigned char *>(reply.constData()), reply.size()};
    if (analyzeFrameOfVal(reply, count, dataPos, var) && driver.sendState == RTUPLC_KIND_RECIPE_UPLOAD)
        copyRecipeUpload(r, dataPos, var);
    return 0;
}

void dealListWhenFinish()
{
    switch (driver.sendState) {
    case RTUPLC_KIND_WRITE:
        if (!driver.writeList.isEmpty()) {
            QMutexLocker queueLock(&driver.listMutex);
            driver.writeList.removeFirst();
        }
        break;
    case RTUPLC_KIND_CONDITION_READ: {
        if (driver.conditionList.isEmpty())
            break;
        const VARIABLE &head = driver.conditionList.first();
        const VARIABLE &last = driver.lastCondVar;
        if (head.station == last.station && head.regName == last.regName && head.startAddr == last.startAddr &&
            head.len == last.len) {
            static const QString batchDone = QString::fromLatin1(RTUPLC_NOTICE_BATCH_TEXT);
            notifyHost(RTUPLC_NOTICE_BATCH_ID, RTUPLC_NOTICE_STATION, batchDone,
                       driver.commError ? RTUPLC_BATCH_FAILED : RTUPLC_BATCH_DONE);
        }
        if (driver.conditionList.isEmpty())
            break; // the host emptied it from its callback
        if (driver.commError)
            driver.conditionList.clear();
        else
            driver.conditionList.removeFirst();
        break;
    }
    case RTUPLC_KIND_MONITOR_READ:
        if (driver.monitorList.size() >= 2) {
            driver.monitorList.append(driver.monitorList.takeFirst()); // round-robin
            // The next block was last polled a whole rotation ago and has left the
            // processor's cache: start fetching its request and its areas while the
            // host carries this reply and the next frame.
            const VARIABLE &next = driver.monitorList.constFirst();
            for (size_t at = 0; at < sizeof(VARIABLE); at += 64)
                __builtin_prefetch(reinterpret_cast<const char *>(&next) + at);
            const int reg = getIndexFromRegName(next.regName);
            if (reg >= 0)
                driver.areaIndex.prefetchRun(driver.dataAreas, next.station, driver.areaIndex.prefixOfReg(reg),
                                             next.startAddr, next.len);
        }
        break;
    case RTUPLC_KIND_RECIPE_DOWNLOAD:
    case RTUPLC_KIND_RECIPE_UPLOAD: {
        const int clear = driver.sendState == RTUPLC_KIND_RECIPE_DOWNLOAD ? kClearDownload : kClearUpload;
        if (driver.commError) {
            driver.rcpIndex = 0;
            driver.pendingHostClear |= clear;
        } else if (++driver.rcpIndex >= driver.rcpReqs.size()) {
            driver.rcpIndex = 0;
            driver.pendingHostClear |= clear;
        }
        break;
    }
    default:
        break;
    }
}

extern "C" {

RTUPLC_EXPORT int intf_getSendFrame(FRAME_PRO &out)
{
    return guarded(0, [&] {
        unsigned char *memory = nullptr;
        QMutex *hostLock = nullptr;
        {
            StateLock lock(driver.stateMutex);
            if (!driver.frameList.isEmpty()) {
                out = driver.frameList.first(); // the same frame again after a rejected reply
                return int(RTUPLC_SEND_FRAME);
            }
            memory = driver.hostMemory;
            hostLock = driver.hostMutex;
        }
        const RecipeCommands commands = readRecipeCommands(memory, hostLock);
        int result = 0;
        {
            StateLock lock(driver.stateMutex);
            if (chooseNext(commands)) {
                skipUnbuildableRecipeRequest();
                if (!driver.frameList.isEmpty()) {
                    out = driver.frameList.first();
                    result = 1;
                }
            }
        }
        applyPendingHostClears();
        return result;
    });
}

RTUPLC_EXPORT int intf_dealRcvFrame(QByteArray reply, QString &errorText)
{
    const int result = guarded(0, [&] {
        errorText = QString();
        StateLock lock(driver.stateMutex);
        if (driver.frameList.isEmpty())
            return int(RTUPLC_REPLY_IDLE);
        errorText = getErrorInfo(reply);
        // What settling needs of the head, taken before callbacks may change the queue.
        const FRAME_PRO &head = driver.frameList.first();
        const int verdict = check_rcv_data(reinterpret_cast<const unsigned char *>(reply.constData()),
                                           driver.curVarList, reply.size(), head);
        const int station = head.station;
        const QString regName = head.regName;
        const int startAddr = head.startAddr;
        const int len = head.len;

        if (verdict == CHECK_REJECTED) {
            driver.failCount += 1;
            if (driver.failCount < driver.retryTimes)
                return int(RTUPLC_REPLY_RETRY);
            driver.commError = 1;
            if (driver.sendState == RTUPLC_KIND_WRITE)
                _write_FailOrSuc(station, regName, startAddr, len, 0);
            driver.frameList.clear();
            driver.failCount = 0;
            dealListWhenFinish();
            return int(RTUPLC_REPLY_FAILED);
        }
        driver.commError = 0;
        if (verdict == CHECK_DATA)
            dealReadFrameReturnSaveData(reply);
        else if (driver.sendState == RTUPLC_KIND_WRITE)
            _write_FailOrSuc(station, regName, startAddr, len, 1);
        if (!driver.frameList.isEmpty())
            driver.frameList.removeFirst();
        if (driver.frameList.isEmpty())
            dealListWhenFinish();
        driver.failCount = 0;
        return int(RTUPLC_REPLY_ACCEPTED);
    });
    applyPendingHostClears();
    return result;
}

} // extern "C"
