// Property texts of any bytes, then a few cycles of ordinary traffic under the
// properties they gave: monitored areas of every kind, writes, a long condition read
// and a recipe download and upload.
//
// Input: the property text up to the first NUL (the harness adds the terminator when
// there is none), then op bytes for the host loop as in fuzz_cycle.
#include "harness.h"

#include <QVector>

#include <string>

namespace {

int callbacks = 0;
void onChange(int, int, QString &, int)
{
    ++callbacks;
}

KEY_ADDRESS key(const char *reg, int start, int len, int bitPos = 0)
{
    KEY_ADDRESS k;
    k.station = 1;
    k.regName = QString::fromLatin1(reg);
    k.startAddr = start;
    k.len = len;
    k.bitPos = bitPos;
    return k;
}

_RCP_VAR_PRO recipeVar(const char *reg, int start, int len, int offset)
{
    _RCP_VAR_PRO v;
    v.driverId = driver.driverId;
    v.station = 1;
    v.regName = QString::fromLatin1(reg);
    v.startAddr = start;
    v.len = len;
    v.rcpOffset = offset;
    return v;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr size_t kMaxText = 512;
    const uint8_t *nul = static_cast<const uint8_t *>(std::memchr(data, 0, size < kMaxText ? size : kMaxText));
    const size_t textLen = nul ? size_t(nul - data) : (size < kMaxText ? size : kMaxText);
    const std::string text(reinterpret_cast<const char *>(data), textLen); // adds the NUL
    const size_t used = nul ? textLen + 1 : textLen;
    fuzz::Input in(data + used, size - used);

    fuzz::restart();
    callbacks = 0;
    intf_setAddrValueChangeCallBack(onChange);
    fuzz::Host &h = fuzz::host();
    int err = -1;
    if (intf_initProperty(h.memory, 0, h.recipe, &err, text.c_str(), &h.lock) != 1 || err != 0)
        abort();

    // A little of everything the properties steer: block gaps and split sizes
    // (maxBlockLen), retries, local writes, and the driver id recipes are taken by.
    QList<KEY_ADDRESS> keys{key("D_W", 0, 4),  key("X", 0, 10),  key("32C", 200, 4),
                            key("D_D", 20, 4), key("M", 100, 8), key("D_W", 30, 2)};
    intf_addrMerge(keys);
    unsigned char values[64];
    for (size_t i = 0; i < sizeof values; ++i)
        values[i] = static_cast<unsigned char>(i * 13 + 1);
    intf_setData(1, QStringLiteral("D_W"), 5, 20, values, RTUPLC_KIND_WRITE);
    intf_setData(1, QStringLiteral("Y"), 0, 30, values, RTUPLC_KIND_WRITE);
    intf_setData(1, QStringLiteral("32C"), 201, 2, values, RTUPLC_KIND_WRITE);
    intf_addConditionRead(key("SD", 0, 20), RTUPLC_KIND_CONDITION_READ);
    intf_addConditionRead(key("S", 0, 40, -1), RTUPLC_KIND_CONDITION_READ);
    QVector<_RCP_VAR_PRO> recipe{recipeVar("D_W", 100, 4, 0), recipeVar("X", 0, 10, 4), recipeVar("32C", 210, 4, 14),
                                 recipeVar("D_D", 300, 130, 20)};
    fuzz::setRecipe(recipe);
    h.memory[RTUPLC_RCP_DOWNLOAD_BYTE] = 1;
    h.memory[RTUPLC_RCP_UPLOAD_BYTE] = 1;

    fuzz::Scenario sc;
    sc.properties = QByteArray(text.c_str());
    fuzz::Loop loop(sc);
    loop.run(in, 20);

    unsigned char out[64];
    intf_getData(1, QStringLiteral("D_W"), 0, 10, out);
    fuzz::finish();
    return 0;
}
