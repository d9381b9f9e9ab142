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
    const int unit = regColumnInt(reg, COL_UNIT_WIDTH);
    if (unit == 1) {
        // A bit of a recipe takes a whole buffer word: non-zero means on.
        const int bits = std::min(req.len, RECORD_DATA_BYTES);
        for (int i = 0; i < bits; ++i)
            var.data[i] = words[i] != 0 ? 1 : 0;
        return;
    }
    const int64_t bytes = std::min<int64_t>(int64_t(req.len) * (unit / 8), RECORD_DATA_BYTES);
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
        for (const MergeItem &b : mergeItems(std::move(items), MERGE_RECIPE, &driver.rcpReqStart)) {
            _RCP_VAR_PRO req;
            req.station = b.station;
            req.regName = b.regName;
            req.startAddr = static_cast<int>(b.start);
            req.len = static_cast<int>(b.len);
            req.rcpOffset = static_cast<int>(b.offset);
            driver.rcpReqs.append(req);
        }
        return driver.rcpVars.size();
    });
}
