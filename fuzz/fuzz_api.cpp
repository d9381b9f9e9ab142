// The host's planning and value calls with any (bounded) arguments, in any order, with
// cycles in between: intf_setData, intf_addConditionRead, intf_addrMerge,
// intf_setRcpAddress, intf_getData, recipe commands, restarts, and a callback that
// calls back into the driver.
//
// Input: up to 32 ops, each an op byte and the arguments it reads. Numbers come from
// fuzz::Input::edgy, bounded where the host contract makes the caller size a buffer.
#include "harness.h"

#include <QVector>

namespace {

constexpr int kMaxUnits = 1100; // long enough to cut into several blocks and pieces
constexpr int kOutUnits = 4096; // what the intf_getData buffer holds (words)

const char *const kOddNames[] = {"", "D", "d_w", "D_X", "32c", "RWI", "-1", "D_W ", "X_W", "\xc4\x8e_W", "D_D_W"};

QString regName(fuzz::Input &in)
{
    const uint8_t n = in.u8();
    if (n < 224)
        return REG_LIST[n % REG_COUNT];
    return QString::fromUtf8(kOddNames[n % (sizeof kOddNames / sizeof kOddNames[0])]);
}

int station(fuzz::Input &in)
{
    const uint8_t s = in.u8();
    return s < 200 ? 1 + s % 3 : (s < 240 ? 0 : in.edgy());
}

int address(fuzz::Input &in)
{
    return (in.u8() & 1) ? in.u16() % 8192 : in.edgy();
}

// A length: anything the driver refuses by itself, otherwise at most kMaxUnits.
int length(fuzz::Input &in)
{
    const int v = in.edgy();
    return (v > kMaxUnits && v <= 65536) ? v % (kMaxUnits + 1) : v;
}

KEY_ADDRESS keyFrom(fuzz::Input &in)
{
    KEY_ADDRESS k;
    k.station = station(in);
    k.regName = regName(in);
    k.startAddr = address(in);
    k.len = length(in);
    k.bitPos = (in.u8() & 1) ? -1 : in.edgy();
    k.keyField2 = in.edgy();
    return k;
}

enum CallbackMode { CB_NONE, CB_COUNT, CB_READ, CB_WRITE, CB_REPLAN, CB_MODES };
int callbackMode = CB_NONE;
int callbacks = 0;

void onChange(int, int st, QString &item, int addr)
{
    ++callbacks;
    static int depth = 0;
    if (depth > 0 || callbackMode == CB_COUNT)
        return;
    ++depth;
    unsigned char buf[16] = {};
    switch (callbackMode) {
    case CB_READ:
        intf_getData(st, item, addr, 2, buf);
        break;
    case CB_WRITE: // the screen answers a change with a write of its own
        intf_getData(st, item, addr, 1, buf);
        buf[0] = static_cast<unsigned char>(buf[0] ^ 1);
        intf_setData(st, item, addr, 1, buf, RTUPLC_KIND_WRITE);
        break;
    case CB_REPLAN: { // the screen closes: nothing is monitored any more
        QList<KEY_ADDRESS> none;
        intf_addrMerge(none);
        KEY_ADDRESS k;
        k.station = st;
        k.regName = item;
        k.startAddr = addr;
        k.len = 2;
        intf_addConditionRead(k, RTUPLC_KIND_CONDITION_READ);
        break;
    }
    default:
        break;
    }
    --depth;
}

const char *const kProperties[] = {"1#0#0#3#64", "1#1#0#3#64",  "1#0#0#0#1",         "1#0#0#1#0",
                                   "2#0#0#2#-5", "1#0#0#3#128", "1#0#0#2#268435456", "1#0#0#2#536870913"};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Input in(data, size);
    const char *properties = kProperties[in.u8() % 8];
    fuzz::restart(properties);
    callbacks = 0;
    callbackMode = CB_COUNT;
    intf_setAddrValueChangeCallBack(onChange);
    fuzz::Host &h = fuzz::host();
    static unsigned char values[2 * kMaxUnits + 64];
    static unsigned char out[2 * kOutUnits + 64];

    fuzz::Scenario sc;
    sc.properties = properties;
    fuzz::Loop loop(sc);

    for (int op = 0; op < 32 && !in.empty(); ++op) {
        switch (in.u8() % 8) {
        case 0: {
            const int st = station(in);
            const QString name = regName(in);
            const int addr = address(in);
            const int count = length(in); // values holds any count the driver takes
            const QByteArray bytes = in.bytes(in.u8());
            std::memset(values, 0x33, sizeof values);
            std::memcpy(values, bytes.constData(), size_t(bytes.size()));
            const bool null = (in.u8() & 0x0F) == 0;
            const int r = intf_setData(st, name, addr, count, null ? nullptr : values, in.edgy());
            if (r != 1 && r != -1)
                abort();
            break;
        }
        case 1: {
            const KEY_ADDRESS k = keyFrom(in);
            const int r = intf_addConditionRead(k, in.edgy());
            if (r != 1 && r != -1)
                abort();
            break;
        }
        case 2: {
            QList<KEY_ADDRESS> keys;
            const int n = in.u8() % 7;
            for (int i = 0; i < n; ++i)
                keys.append(keyFrom(in));
            const int r = intf_addrMerge(keys);
            if (r < 0 || (n == 0 && r != 0))
                abort();
            break;
        }
        case 3: {
            QVector<_RCP_VAR_PRO> vars;
            const int n = in.u8() % 7;
            for (int i = 0; i < n; ++i) {
                _RCP_VAR_PRO v;
                const uint8_t id = in.u8();
                v.driverId = id < 200 ? driver.driverId : in.edgy();
                v.station = station(in);
                v.regName = regName(in);
                v.startAddr = address(in);
                v.len = length(in);
                const int offset = in.edgy();
                v.rcpOffset = offset > 0xFFFF ? offset & 0xFFFF : offset; // inside the host's buffer
                v.rcpAux = in.edgy();
                vars.append(v);
            }
            const int r = fuzz::setRecipe(vars);
            if (r < 0 || r > n)
                abort();
            break;
        }
        case 4: {
            const int st = station(in);
            const QString name = regName(in);
            const int addr = address(in);
            int count = in.edgy();
            if (count > kOutUnits)
                count %= kOutUnits + 1; // the host sizes out for count
            const bool null = (in.u8() & 0x0F) == 0;
            const int r = intf_getData(st, name, addr, count, null ? nullptr : out);
            if (r != 1 && r != -1)
                abort();
            break;
        }
        case 5:
            h.lock.lock();
            h.memory[RTUPLC_RCP_DOWNLOAD_BYTE] = in.u8();
            h.memory[RTUPLC_RCP_UPLOAD_BYTE] = in.u8();
            h.lock.unlock();
            break;
        case 6:
            loop.run(in, 1 + in.u8() % 8);
            break;
        default: {
            const uint8_t c = in.u8();
            if (c < 200) {
                callbackMode = c % CB_MODES;
                intf_setAddrValueChangeCallBack(callbackMode == CB_NONE ? nullptr : onChange);
            } else {
                int err = 0;
                intf_initProperty(h.memory, 0, h.recipe, &err, kProperties[c % 8], &h.lock);
            }
            break;
        }
        }
    }
    // Whatever is left goes out and comes back.
    loop.run(in, 8);
    fuzz::finish();
    return 0;
}
