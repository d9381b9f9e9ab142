// Recipe planning: the host's recipe variables become recipe requests, and a request
// becomes the variable the cycle sends, its data read from the host's recipe buffer.
#include "serviceForProtocol.h"

#include <algorithm>
#include <cstring>

void rcpAddrToVar(const _RCP_VAR_PRO &req, VARIABLE &var, int withData)
{
    var.station = req.station;
    var.regName = req.regName;
    var.startAddr = req.startAddr;
    var.len = req.len;
    std::memset(var.data, 0, sizeof var.data);
    if (withData == 0)
        return;
    const int reg = getIndexFromRegName(req.regName);
    if (reg < 0 || driver.rcpBuffer == nullptr || req.rcpOffset < 0 || req.len <= 0)
        return; // nothing to send but zeros
    const unsigned short *words = driver.rcpBuffer + req.rcpOffset;
    const RegisterArea &info = registerArea(reg);
    if (info.isBit()) {
        // A bit of a recipe takes a whole buffer word: non-zero means on.
        const int bits = std::min(req.len, RTUPLC_RECORD_DATA_BYTES);
        for (int i = 0; i < bits; ++i)
            var.data[i] = words[i] != 0 ? 1 : 0;
        return;
    }
    const int64_t bytes = std::min<int64_t>(int64_t(req.len) * (info.unitWidth / 8), RTUPLC_RECORD_DATA_BYTES);
    std::memcpy(var.data, words, static_cast<size_t>(bytes));
}

extern "C" RTUPLC_EXPORT int intf_setRcpAddress(QVector<_RCP_VAR_PRO> &vars)
{
    return guarded(0, [&] {
        StateLock lock(driver.stateMutex);
        driver.rcpVars.clear();
        for (const _RCP_VAR_PRO &v : vars) {
            if (v.driverId == driver.driverId)
                driver.rcpVars.append(v);
        }
        if (driver.rcpVars.isEmpty())
            return 0;
        if (driver.rcpVars.size() >= 2) {
            std::stable_sort(driver.rcpVars.begin(), driver.rcpVars.end(),
                             [](const _RCP_VAR_PRO &a, const _RCP_VAR_PRO &b) {
                                 return getRegAddressWeight(a.station, a.regName, a.startAddr, a.len) <
                                        getRegAddressWeight(b.station, b.regName, b.startAddr, b.len);
                             });
        }
        std::vector<MergeItem> items;
        items.reserve(static_cast<size_t>(driver.rcpVars.size()));
        for (int i = 0; i < driver.rcpVars.size(); ++i) {
            const _RCP_VAR_PRO &v = driver.rcpVars.at(i);
            // A variable without units, past the end of int, or longer than an address
            // space has nothing a frame could carry; it stays a variable but gets no
            // request, so it cannot stall or abort a transfer.
            if (v.len <= 0 || !hostRangeFits(v.startAddr, v.len))
                continue;
            items.push_back(MergeItem{v.station, v.regName, v.startAddr, v.len, i, v.rcpOffset});
        }
        driver.rcpReqStart.clear();
        driver.rcpReqs.clear();
        for (const MergeItem &b : addrMerge(std::move(items), MERGE_RECIPE, &driver.rcpReqStart)) {
            _RCP_VAR_PRO req;
            req.station = b.station;
            req.regName = b.regName;
            req.startAddr = static_cast<int>(b.startAddr);
            req.len = static_cast<int>(b.len);
            req.rcpOffset = static_cast<int>(b.offset);
            driver.rcpReqs.append(req);
        }
        return int(driver.rcpVars.size());
    });
}

// Fills the host's recipe buffer from an upload reply, one recipe variable at a time,
// and tells the host which buffer words it filled.
void copyRecipeUpload(const ReplyBytes &r, int dataPos, const VARIABLE &var)
{
    const int index = driver.rcpIndex;
    const QList<int> starts = driver.rcpReqStart;
    const QVector<_RCP_VAR_PRO> vars = driver.rcpVars;
    if (index < 0 || index >= starts.size())
        return;
    const int first = starts.at(index);
    // A variable longer than one request is cut into several requests that all start
    // with it, so a request covers at least its first variable.
    int end = index + 1 < starts.size() ? starts.at(index + 1) : vars.size();
    if (end <= first)
        end = first + 1;
    if (first < 0 || first >= vars.size())
        return;
    end = qMin(end, vars.size());
    const int reg = getIndexFromRegName(var.regName);
    if (reg < 0)
        return;
    unsigned char *buffer = reinterpret_cast<unsigned char *>(driver.rcpBuffer);
    const AreaKind kind = registerArea(reg).kind;
    // The request in area units; only units it carries are copied.
    const int64_t qStart = var.startAddr;
    const int64_t qEnd = qStart + var.len;
    const auto inRequest = [&](int64_t from, int64_t units) { return from >= qStart && from + units <= qEnd; };
    const QString rwi = QString::fromLatin1(RTUPLC_NOTICE_RECIPE_TEXT);
    const auto word = [&](int64_t w) { return static_cast<int>(w); };

    for (int i = first; i < end; ++i) {
        const _RCP_VAR_PRO &v = vars.at(i);
        if (v.regName != var.regName || v.station != var.station)
            continue;
        // A variable that got no request transfers nothing, whatever requests it sorts
        // between; walking one near INT_MAX units long would stall the host's loop.
        if (v.len <= 0 || !hostRangeFits(v.startAddr, v.len))
            continue;
        if (kind == AreaKind::Bit) {
            // One buffer word per bit, 0 or 1.
            for (int64_t m = 0; m < v.len; ++m) {
                const int64_t a = int64_t(v.startAddr) + m;
                if (!inRequest(a, 1))
                    continue;
                const int64_t bit = a - qStart;
                const int64_t w = int64_t(v.rcpOffset) + m;
                if (buffer == nullptr || w < 0)
                    continue;
                const uint8_t b = (r[dataPos + bit / 8] >> (bit % 8)) & 1;
                buffer[2 * w] = b;
                buffer[2 * w + 1] = 0;
                notifyHost(0, RTUPLC_NOTICE_STATION, rwi, word(w));
            }
        } else if (kind == AreaKind::DWordOverWords) {
            for (int64_t m = 0; m < v.len / 2; ++m) {
                const int64_t a = int64_t(v.startAddr) + 2 * m;
                const int64_t w = int64_t(v.rcpOffset) + 2 * m;
                if (!inRequest(a, 2) || buffer == nullptr || w < 0)
                    continue;
                const int64_t o = dataPos + 2 * (a - qStart);
                for (int b = 0; b < 4; ++b)
                    buffer[2 * w + b] = r[o + 3 - b];
                notifyHost(0, RTUPLC_NOTICE_STATION, rwi, word(w));
                notifyHost(0, RTUPLC_NOTICE_STATION, rwi, word(w + 1));
            }
        } else if (kind == AreaKind::Word) {
            for (int64_t m = 0; m < v.len; ++m) {
                const int64_t a = int64_t(v.startAddr) + m;
                const int64_t w = int64_t(v.rcpOffset) + m;
                if (!inRequest(a, 1) || buffer == nullptr || w < 0)
                    continue;
                const int64_t o = dataPos + 2 * (a - qStart);
                // Least significant byte first, as a download reads the buffer.
                buffer[2 * w] = r[o + 1];
                buffer[2 * w + 1] = r[o];
                notifyHost(0, RTUPLC_NOTICE_STATION, rwi, word(w));
            }
        } else {
            // One value per recipe variable, whatever its length.
            const int64_t a = v.startAddr;
            const int64_t w = v.rcpOffset;
            if (!inRequest(a, 1) || buffer == nullptr || w < 0)
                continue;
            const int64_t o = dataPos + 4 * (a - qStart);
            for (int b = 0; b < 4; ++b)
                buffer[2 * w + b] = r[o + 3 - b];
            notifyHost(0, RTUPLC_NOTICE_STATION, rwi, word(w));
            notifyHost(0, RTUPLC_NOTICE_STATION, rwi, word(w + 1));
        }
    }
}
