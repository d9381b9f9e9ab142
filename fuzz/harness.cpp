#include "harness.h"

#include <QVector>

#include <sanitizer/asan_interface.h>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace fuzz {

QByteArray *recording = nullptr;

Host &host()
{
    static Host *h = new Host(); // never destroyed: the driver may still point at it at exit
    return *h;
}

namespace {
constexpr int64_t kRecipeWords = int64_t(sizeof(Host::recipe) / sizeof(unsigned short));

// Under AddressSanitizer the driver may not even read host memory it was not given:
// the memory block but its two command bytes, and recipe words outside every
// variable, are poisoned. Poison comes in 8-byte granules whose first bytes alone can
// be open, so an opened range starts at the granule holding its first byte: up to 3
// recipe words (7 memory bytes) before it stay readable. Writes are checked exactly
// by checkHost(). Without AddressSanitizer these do nothing.
void openAll()
{
    Host &h = host();
    ASAN_UNPOISON_MEMORY_REGION(h.memory, sizeof h.memory);
    ASAN_UNPOISON_MEMORY_REGION(h.recipe, sizeof h.recipe);
}
void closeAll()
{
    Host &h = host();
    ASAN_POISON_MEMORY_REGION(h.memory, sizeof h.memory);
    ASAN_UNPOISON_MEMORY_REGION(h.memory + RTUPLC_RCP_DOWNLOAD_BYTE, 2);
    ASAN_POISON_MEMORY_REGION(h.recipe, sizeof h.recipe);
}
void openWords(int64_t first, int64_t end)
{
    Host &h = host();
    const int64_t granule = first & ~int64_t(3);
    ASAN_UNPOISON_MEMORY_REGION(h.recipe + granule, size_t(end - granule) * 2);
}
// Words of the recipe buffer that belong to a variable the driver was given since the
// last restart, and the ranges marked, to unmark them cheaply.
std::vector<uint8_t> owned(kRecipeWords, 0);
std::vector<std::pair<int64_t, int64_t>> ownedRanges;
} // namespace

int setRecipe(QVector<_RCP_VAR_PRO> &vars)
{
    Host &h = host();
    for (const _RCP_VAR_PRO &v : vars) {
        // A variable of no units or too long for the address space transfers nothing,
        // so it owns nothing either.
        if (v.driverId != driver.driverId || v.len <= 0 || v.len > 65536 ||
            int64_t(v.startAddr) + v.len > int64_t(INT_MAX) + 1)
            continue;
        // One word per bit or 16-bit register, the host's unit of len; an upload
        // fills a 32C variable with one whole value, two words, whatever its length.
        // A negative offset puts the variable's first words before the buffer; the
        // rest are its.
        const bool counter = v.regName == QLatin1String("32C");
        const int64_t first = std::max<int64_t>(v.rcpOffset, 0);
        const int64_t end = int64_t(v.rcpOffset) + (counter ? std::max(v.len, 2) : v.len);
        if (end > kRecipeWords)
            abort(); // the harness gave the driver a buffer too small for its recipe
        if (end <= first)
            continue;
        ownedRanges.emplace_back(first, end);
        openWords(first, end);
        for (int64_t w = first; w < end; ++w) {
            owned[size_t(w)] = 1;
            h.recipe[w] = static_cast<unsigned short>(w * 0x0101 + 1);
        }
    }
    const int taken = intf_setRcpAddress(vars);
    // A download sends each request's units back to back from the offset of its first
    // variable: the host gives the driver those words to read.
    for (const _RCP_VAR_PRO &q : driver.rcpReqs) {
        const int reg = getIndexFromRegName(q.regName);
        if (reg < 0 || q.len <= 0)
            continue;
        const int64_t first = std::max<int64_t>(q.rcpOffset, 0);
        const int64_t end =
            int64_t(q.rcpOffset) + int64_t(q.len) * (registerArea(reg).kind == AreaKind::DWordUnit ? 2 : 1);
        if (end > kRecipeWords)
            abort(); // the harness gave the driver a buffer too small for its recipe
        if (end > first)
            openWords(first, end);
    }
    return taken;
}

namespace {
// A block of sentinels to compare and refill the recipe buffer with memcmp and memcpy:
// much faster than word loops under coverage instrumentation.
constexpr int64_t kChunkWords = 4096;
const unsigned short *sentinelChunk()
{
    static unsigned short *chunk = [] {
        auto *c = new unsigned short[kChunkWords];
        std::fill(c, c + kChunkWords, kRecipeSentinel);
        return c;
    }();
    return chunk;
}
} // namespace

void checkHost()
{
    Host &h = host();
    openAll();
    static const unsigned char zeros[sizeof h.memory] = {};
    const unsigned char download = h.memory[RTUPLC_RCP_DOWNLOAD_BYTE];
    const unsigned char upload = h.memory[RTUPLC_RCP_UPLOAD_BYTE];
    h.memory[RTUPLC_RCP_DOWNLOAD_BYTE] = h.memory[RTUPLC_RCP_UPLOAD_BYTE] = 0;
    if (std::memcmp(h.memory, zeros, sizeof zeros) != 0) {
        std::fprintf(stderr, "the memory block was written beyond the command bytes\n");
        abort();
    }
    h.memory[RTUPLC_RCP_DOWNLOAD_BYTE] = download;
    h.memory[RTUPLC_RCP_UPLOAD_BYTE] = upload;

    for (int64_t c = 0; c < kRecipeWords; c += kChunkWords) {
        const int64_t n = std::min(kChunkWords, kRecipeWords - c);
        if (std::memcmp(h.recipe + c, sentinelChunk(), size_t(n) * 2) == 0)
            continue;
        for (int64_t w = c; w < c + n; ++w) {
            if (h.recipe[w] == kRecipeSentinel || owned[size_t(w)])
                continue;
            std::fprintf(stderr, "recipe buffer word %lld written, owned by no variable; variables:\n",
                         static_cast<long long>(w));
            for (const _RCP_VAR_PRO &v : driver.rcpVars)
                std::fprintf(stderr, "  %d %s %d len %d offset %d\n", v.station, qPrintable(v.regName), v.startAddr,
                             v.len, v.rcpOffset);
            abort();
        }
    }
}

void finish()
{
    checkHost();
    intf_setAddrValueChangeCallBack(nullptr);
    restart();
}

void restart(const char *properties, bool withHost)
{
    Host &h = host();
    openAll();
    std::memset(h.memory, 0, sizeof h.memory);
    for (int64_t c = 0; c < kRecipeWords; c += kChunkWords)
        std::memcpy(h.recipe + c, sentinelChunk(), size_t(std::min(kChunkWords, kRecipeWords - c)) * 2);
    for (const auto &r : ownedRanges)
        std::fill(owned.begin() + r.first, owned.begin() + r.second, 0);
    ownedRanges.clear();
    int err = -1;
    intf_initProperty(withHost ? h.memory : nullptr, 0, withHost ? h.recipe : nullptr, &err, properties,
                      withHost ? &h.lock : nullptr);
    if (err != 0)
        abort();
    // What intf_initProperty keeps on purpose, reset so that inputs do not see each other.
    driver.rcpVars.clear();
    driver.rcpReqs.clear();
    driver.rcpReqStart.clear();
    driver.rcpIndex = 0;
    driver.lastCondVar = VARIABLE();
    driver.curVar = VARIABLE();
    driver.curVarList.clear();
    driver.handshakeFlag = 0;
    closeAll();
}

namespace {
bool coilAt(uint32_t a, uint32_t gen)
{
    return (a * 7u + gen) % 3u == 0;
}
uint16_t registerAt(uint32_t a, uint32_t gen)
{
    return static_cast<uint16_t>((a * 2654435761u + gen * 40503u) >> 13);
}
} // namespace

QByteArray Slave::answer(const FRAME_PRO &f)
{
    if (f.frameLen < 8 || f.frame[0] == 0)
        return QByteArray(); // nothing a slave would take, or a broadcast
    const uint8_t *p = f.frame;
    const uint32_t address = uint32_t(p[2] << 8 | p[3]);
    const uint32_t quantity = uint32_t(p[4] << 8 | p[5]);
    const uint32_t end = std::min<uint32_t>(address + quantity, rtusupport::kAddressSpace);
    if (p[1] == rtuplc::kReadCoils) {
        for (uint32_t a = address; a < end; ++a)
            memory_.coils[a] = coilAt(a, gen) ? 1 : 0;
    } else if (p[1] == rtuplc::kReadHoldingRegisters) {
        for (uint32_t a = address; a < end; ++a)
            memory_.registers[a] = registerAt(a, gen);
    }
    rtusupport::Limits limits;
    limits.maxReadRegisters = RTUPLC_MAX_READ_UNITS;
    limits.everyAddressMapped = true;
    const std::vector<uint8_t> pdu = rtusupport::executeRequest(memory_, p + 1, size_t(f.frameLen - 3), limits);
    QByteArray r(1, static_cast<char>(p[0]));
    r.append(reinterpret_cast<const char *>(pdu.data()), static_cast<int>(pdu.size()));
    return withCrc(r);
}

void checkFrame(const FRAME_PRO &f)
{
    if (f.frameLen < 0 || f.frameLen > RTUPLC_FRAME_BYTES)
        abort();
    if (f.frameLen == 0)
        return;
    if (f.frameLen < 4)
        abort();
    const uint16_t crc = computate_check(f.frame, static_cast<unsigned short>(f.frameLen - 2));
    if (f.frame[f.frameLen - 2] != (crc & 0xFF) || f.frame[f.frameLen - 1] != (crc >> 8))
        abort();
}

namespace {
KEY_ADDRESS keyOf(int station, int area, int start, int len)
{
    KEY_ADDRESS k;
    k.station = station;
    k.regName = REG_LIST[area];
    k.startAddr = start;
    k.len = len;
    k.bitPos = registerArea(area).isBit() ? -1 : 0;
    return k;
}
} // namespace

void Loop::interject(Input &in)
{
    Host &h = host();
    const QString name = REG_LIST[sc_.area];
    static unsigned char buffer[2 * RTUPLC_RECORD_DATA_BYTES + 64];
    switch (in.u8() % 8) {
    case 0: { // the screen writes into the area being read
        const int count = in.u8() % 24;
        const QByteArray values = in.bytes(size_t(2 * count));
        std::memset(buffer, 0, sizeof buffer);
        std::memcpy(buffer, values.constData(), size_t(values.size()));
        intf_setData(sc_.station, name, sc_.start + in.u8() % 16, count, buffer, RTUPLC_KIND_WRITE);
        break;
    }
    case 1:
        intf_addConditionRead(keyOf(sc_.station, sc_.area, sc_.start, sc_.len + in.u8() % 32),
                              RTUPLC_KIND_CONDITION_READ);
        break;
    case 2: // recipe commands: only 1 starts a transfer
        h.lock.lock();
        h.memory[RTUPLC_RCP_DOWNLOAD_BYTE] = in.u8() % 3;
        h.memory[RTUPLC_RCP_UPLOAD_BYTE] = in.u8() % 3;
        h.lock.unlock();
        break;
    case 3: { // the host restarts the driver with the frame in flight
        int err = 0;
        intf_initProperty(h.memory, 0, h.recipe, &err, sc_.properties.constData(), &h.lock);
        break;
    }
    case 4: { // screens change: a new registration, possibly empty
        QList<KEY_ADDRESS> keys;
        const int n = in.u8() % 3;
        for (int i = 0; i < n; ++i)
            keys.append(keyOf(sc_.station, in.u8() % REG_COUNT, in.u16(), in.u8()));
        intf_addrMerge(keys);
        break;
    }
    case 5: {
        const int count = in.u8() % 64;
        intf_getData(sc_.station, name, sc_.start + in.u8() % 64, count, buffer);
        break;
    }
    case 6: { // a new recipe, possibly while one is being transferred
        _RCP_VAR_PRO v;
        v.driverId = driver.driverId;
        v.station = sc_.station;
        v.regName = REG_LIST[in.u8() % REG_COUNT];
        v.startAddr = in.u16();
        v.len = in.u8();
        v.rcpOffset = in.u16();
        QVector<_RCP_VAR_PRO> vars{v};
        setRecipe(vars);
        break;
    }
    default: { // a write somewhere else
        const int area = in.u8() % REG_COUNT;
        const int count = in.u8() % 8;
        const QByteArray values = in.bytes(size_t(2 * count));
        std::memset(buffer, 0, sizeof buffer);
        std::memcpy(buffer, values.constData(), size_t(values.size()));
        intf_setData(sc_.station, REG_LIST[area], in.u16(), count, buffer, RTUPLC_KIND_WRITE);
        break;
    }
    }
}

void Loop::run(Input &in, int steps)
{
    int idle = 0;
    for (int s = 0; s < steps; ++s) {
        const bool scripted = !in.empty();
        const uint8_t op = scripted ? in.u8() : uint8_t(REPLY_SLAVE);
        FRAME_PRO f;
        const int got = intf_getSendFrame(f);
        if (got != 0 && got != 1)
            abort();
        if (got == 0) {
            if (!scripted)
                recording = nullptr; // a replay would interject here
            if (!scripted && ++idle > 2)
                return;
            if (scripted)
                interject(in); // give the driver something to do
            continue;
        }
        checkFrame(f);
        if (op & 0x08)
            slave.gen += 1; // the controller's values move on
        QByteArray reply;
        switch (op & 7) {
        case REPLY_RAW:
            reply = in.bytes(in.u8() | ((op & 0x80) ? 0x100 : 0));
            break;
        case REPLY_CRC_BODY:
            if (f.replyLen >= 2 && f.replyLen <= 4096) {
                reply = in.bytes(size_t(f.replyLen - 2));
                reply.append(QByteArray(f.replyLen - 2 - reply.size(), '\0'));
                reply = withCrc(reply);
            }
            break;
        case REPLY_SLAVE:
            reply = slave.answer(f);
            break;
        case REPLY_PATCHED:
            reply = slave.answer(f);
            if (reply.size() > 2) {
                const int at = in.u8() % (reply.size() - 2);
                reply[at] = static_cast<char>(in.u8());
                reply = withCrc(reply.left(reply.size() - 2));
            }
            break;
        case REPLY_TIMEOUT:
            break;
        case REPLY_RESIZED: {
            reply = slave.answer(f);
            const int delta = static_cast<int8_t>(in.u8());
            if (delta < 0)
                reply.chop(-delta);
            else
                reply.append(in.bytes(size_t(delta)));
            if ((op & 0x10) && reply.size() >= 2)
                reply = withCrc(reply.left(reply.size() - 2));
            break;
        }
        case REPLY_HOST:
            interject(in);
            reply = slave.answer(f);
            break;
        default: {
            QByteArray e;
            e.append(static_cast<char>(f.frame[0]));
            e.append(static_cast<char>(f.frame[1] | 0x80));
            e.append(static_cast<char>(in.u8()));
            reply = withCrc(e);
            break;
        }
        }
        if (!scripted && recording) {
            recording->append(static_cast<char>(REPLY_RAW | (reply.size() > 0xFF ? 0x80 : 0)));
            recording->append(static_cast<char>(reply.size() & 0xFF));
            recording->append(reply);
        }
        QString what;
        const int r = intf_dealRcvFrame(reply, what);
        if (r != 0 && r != 1 && r != 2 && r != 8)
            abort();
    }
}

} // namespace fuzz
