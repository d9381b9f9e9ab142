// Writes the seed corpora, fuzz/corpus/<target>/, from exchanges the driver really
// has: each target runs on a set-up, the slave answers the frames the driver builds,
// and those answers are stored in the input as raw replies. The replies therefore have
// the lengths and CRCs of real ones, for every area and kind of request.
//
//   fuzz_seeds <corpus dir>         writes the seeds
//   fuzz_seeds <target> <file>...   replays inputs without the fuzzer (for debugging)
#include "harness.h"

#include <QDataStream>
#include <QDir>
#include <QFile>

#include <cstdio>
#include <functional>

extern "C" int replay_fuzz_cycle(const uint8_t *data, size_t size);
extern "C" int replay_fuzz_properties(const uint8_t *data, size_t size);
extern "C" int replay_fuzz_editor(const uint8_t *data, size_t size);
extern "C" int replay_fuzz_api(const uint8_t *data, size_t size);

namespace {

using Target = int (*)(const uint8_t *, size_t);

constexpr int CB_WRITE_MODE = 3; // fuzz_api's callback mode that writes back

struct Corpus {
    QDir dir;
    int files = 0;
    void save(const QString &name, const QByteArray &input)
    {
        QFile f(dir.filePath(name));
        if (!f.open(QIODevice::WriteOnly) || f.write(input) != input.size()) {
            std::fprintf(stderr, "cannot write %s\n", qPrintable(f.fileName()));
            std::exit(1);
        }
        ++files;
    }
};

int run(Target t, const QByteArray &input)
{
    return t(reinterpret_cast<const uint8_t *>(input.constData()), size_t(input.size()));
}

// Where a run left the driver: its queues, the cycle's state and every cached value.
QByteArray fingerprint()
{
    QByteArray f;
    QDataStream s(&f, QIODevice::WriteOnly);
    s << driver.monitorList.size() << driver.writeList.size() << driver.conditionList.size() << driver.frameList.size()
      << driver.sendState << driver.commError << driver.rcpIndex << driver.failCount << driver.dataAreas.size();
    for (const _DATA_ &a : driver.dataAreas)
        s << a.station << a.regPrefix << a.addr << QByteArray(reinterpret_cast<const char *>(a.value), 4)
          << QByteArray(reinterpret_cast<const char *>(a.writeValue), 4) << a.writePending;
    return f;
}

// The input followed by the slave's answers to what the driver then sends. The result
// must take the driver where the input took it with the slave answering.
QByteArray recorded(Target t, const QByteArray &input)
{
    QByteArray tail;
    fuzz::recording = &tail;
    run(t, input);
    fuzz::recording = nullptr;
    const QByteArray expected = fingerprint();
    const QByteArray seed = input + tail;
    run(t, seed);
    if (fingerprint() != expected) {
        std::fprintf(stderr, "a recorded input does not replay its exchanges\n");
        std::exit(1);
    }
    return seed;
}

int lowest(int area)
{
    return registerArea(area).lowest;
}

// ---------------------------------------------------------------------------------
// fuzz_cycle: set-up bytes, then hand-written ops, then the recorded answers.

enum {
    T_MONITOR = 0x01,
    T_WRITE = 0x02,
    T_CONDITION = 0x04,
    T_DOWNLOAD = 0x08,
    T_UPLOAD = 0x10,
    T_HANDSHAKE = 0x20,
    T_CALLBACK = 0x40,
    T_REENTER = 0x80
};

struct CycleSetUp {
    int what = T_MONITOR | T_CALLBACK;
    int area = 13;
    int rcpArea = 13;
    int station = 0; // index: 1, 2, 0, 247, 255, 256, -1
    int start = 0;
    int len = 6;
    int tune = 3; // retries 3, maxBlockLen 64, no local writes
    int area2 = 12;
    int start2 = 10;
    int len2 = 4;
    int offset = 100;
    QByteArray ops;

    QByteArray bytes() const
    {
        fuzz::Output o;
        o.u8(what);
        o.u8(area);
        o.u8(rcpArea);
        o.u8(station);
        o.u16(start);
        o.u8(len);
        o.u8(tune);
        o.u8(area2);
        o.u16(start2);
        o.u8(len2);
        o.u16(offset);
        o.bytes(ops);
        return o.data;
    }
};

void cycleSeeds(Corpus &c)
{
    const struct {
        int what;
        const char *name;
    } kinds[] = {{T_MONITOR, "monitor"},
                 {T_WRITE, "write"},
                 {T_CONDITION, "condition"},
                 {T_DOWNLOAD, "download"},
                 {T_UPLOAD, "upload"}};
    for (const auto &k : kinds) {
        for (int area = 0; area < REG_COUNT; ++area) {
            CycleSetUp s;
            s.what = k.what | T_CALLBACK;
            s.area = s.rcpArea = area;
            s.start = lowest(area);
            s.len = registerArea(area).isBit() ? 20 : 6;
            s.area2 = (area + 1) % REG_COUNT;
            s.start2 = lowest(s.area2) + 8;
            c.save(QStringLiteral("%1-%2").arg(QLatin1String(k.name)).arg(REG_LIST[area]),
                   recorded(replay_fuzz_cycle, s.bytes()));
        }
    }

    const auto op = [](std::initializer_list<int> b) {
        QByteArray a;
        for (int v : b)
            a.append(static_cast<char>(v));
        return a;
    };
    struct Extra {
        const char *name;
        CycleSetUp s;
    };
    std::vector<Extra> extras;
    CycleSetUp all;
    all.what = T_MONITOR | T_WRITE | T_CONDITION | T_DOWNLOAD | T_UPLOAD | T_CALLBACK;
    extras.push_back({"everything", all});
    CycleSetUp failing = all;
    failing.ops = op({fuzz::REPLY_TIMEOUT, fuzz::REPLY_TIMEOUT, fuzz::REPLY_TIMEOUT, fuzz::REPLY_EXCEPTION, 2,
                      fuzz::REPLY_PATCHED, 3, 0x55, fuzz::REPLY_RESIZED, 0xFF, fuzz::REPLY_RESIZED | 0x10, 2, 0, 0});
    extras.push_back({"everything-failing", failing});
    CycleSetUp interjecting = all;
    interjecting.ops = op({fuzz::REPLY_HOST, 0, 2, 0x34, 0x12, 0x78, 0x56, 0, fuzz::REPLY_HOST, 2, 1, 1,
                           fuzz::REPLY_HOST, 3, fuzz::REPLY_HOST, 1, 20, fuzz::REPLY_SLAVE | 0x08});
    extras.push_back({"everything-host-calls", interjecting});
    CycleSetUp handshake;
    handshake.what = T_HANDSHAKE | T_MONITOR;
    handshake.tune = 3 | 0x20;
    handshake.ops = op({fuzz::REPLY_TIMEOUT, fuzz::REPLY_HOST, 3});
    extras.push_back({"handshake", handshake});
    CycleSetUp broadcast;
    broadcast.what = T_WRITE | T_MONITOR | T_DOWNLOAD;
    broadcast.station = 2;
    extras.push_back({"broadcast", broadcast});
    CycleSetUp reenter;
    reenter.what = T_REENTER | T_MONITOR | T_WRITE | T_CONDITION;
    reenter.area = reenter.area2 = 12; // D_D: double-word reports
    extras.push_back({"reenter-D_D", reenter});
    CycleSetUp cut;
    cut.what = T_CONDITION | T_WRITE | T_CALLBACK;
    cut.len = 40;
    cut.tune = 3 | (2 << 2); // maxBlockLen 1: every word its own piece
    extras.push_back({"condition-cut", cut});
    CycleSetUp local;
    local.what = T_WRITE | T_MONITOR | T_CALLBACK;
    local.tune = 3 | 0x80;
    extras.push_back({"local-write", local});
    CycleSetUp once;
    once.what = T_WRITE | T_CONDITION | T_CALLBACK;
    once.tune = 0; // one attempt per frame
    once.ops = op({fuzz::REPLY_TIMEOUT, fuzz::REPLY_TIMEOUT});
    extras.push_back({"no-retries", once});
    CycleSetUp longUpload;
    longUpload.what = T_UPLOAD | T_CALLBACK;
    longUpload.rcpArea = 12;
    longUpload.len = 200; // more than one request
    longUpload.len2 = 60;
    extras.push_back({"upload-long-D_D", longUpload});
    CycleSetUp far;
    far.what = T_MONITOR | T_WRITE | T_CALLBACK;
    far.station = 3;
    far.start = 7990;
    far.len = 30; // past the end of the area
    extras.push_back({"past-the-end", far});
    for (const Extra &e : extras)
        c.save(QStringLiteral("extra-%1").arg(QLatin1String(e.name)), recorded(replay_fuzz_cycle, e.s.bytes()));
}

// ---------------------------------------------------------------------------------
// fuzz_properties: a text, its NUL, the recorded answers.

void propertySeeds(Corpus &c)
{
    const char *const texts[] = {
        "1#0#0#3#64",
        "0#1#0#1#8",
        "2#0#0#0#0",
        "1#0#0#3#128",
        "1#0#0#3",
        "",
        "#",
        "####",
        "1#0#0#3#64#extra",
        "-1#0#0#-3#-64",
        "99999999999#1#0#3#64",
        "1#0#0#3#0x40",
        " 1# 0#0# 3# 64",
        "1#0#0#3#268435456",
        "1#0#0#2#536870913",
        "1#0#0#1000000#1",
        "7#2#x#3#1",
        "\xef\xbc\x91#0#0#3#64", // a full-width digit in UTF-8
        "1\xe9#0#0#3#64",        // Latin-1 letter
    };
    int i = 0;
    for (const char *t : texts) {
        QByteArray input(t);
        input.append('\0');
        c.save(QStringLiteral("text-%1").arg(i++, 2, 10, QLatin1Char('0')), recorded(replay_fuzz_properties, input));
    }
    // No NUL at all: the whole input is the text.
    c.save(QStringLiteral("text-unterminated"), QByteArray("1#0#0#3#64"));
}

// ---------------------------------------------------------------------------------
// fuzz_editor: calls with real names and address texts.

void name(fuzz::Output &o, int area)
{
    o.u8(area);
}

void latin1(fuzz::Output &o, const QByteArray &text, bool registerName)
{
    o.u8(registerName ? 160 : 96); // both pick Latin-1 bytes from the input
    o.u8(text.size());
    o.bytes(text);
}

void editorSeeds(Corpus &c)
{
    for (int area = 0; area < REG_COUNT; ++area) {
        const bool bits = registerArea(area).isBit();
        fuzz::Output o;
        o.u8(1); // intf_getRegDiscription
        name(o, area);
        o.u8(2); // intf_checkAddrValidity: the highest address, one unit
        name(o, area);
        latin1(o, ADDRESS_RANGE_PRO[area][COL_HIGHEST].toLatin1(), false);
        o.edgy(1);
        o.edgy(bits ? 0 : 1);
        o.edgy(0);
        o.u8(3); // intf_checkAddr: the lowest address, two words, written
        name(o, area);
        latin1(o, ADDRESS_RANGE_PRO[area][COL_LOWEST].toLatin1(), false);
        o.edgy(2);
        o.edgy(bits ? -1 : 3);
        o.edgy(1);
        o.u8(4); // intf_multiCopy from the lowest address by one word
        name(o, area);
        o.edgy(lowest(area));
        o.edgy(5);
        o.edgy(-1);
        o.u8(4); // and clipped at the end by double words
        name(o, area);
        o.edgy(registerArea(area).highest - 2);
        o.edgy(4);
        o.edgy(-2);
        c.save(QStringLiteral("area-%1").arg(REG_LIST[area]), o.data);
    }
    fuzz::Output o;
    for (int type : {0, 1, 5}) {
        o.u8(0);
        o.edgy(type);
    }
    o.u8(1);
    latin1(o, "D", true); // not an area
    o.u8(2);
    latin1(o, "D_W", true);
    latin1(o, "12a", false);
    o.edgy(1);
    o.edgy(1);
    o.edgy(0);
    c.save(QStringLiteral("lists-and-unknowns"), o.data);
}

// ---------------------------------------------------------------------------------
// fuzz_api: sequences of host calls with cycles answered by the slave.

enum ApiOp { A_SET, A_CONDITION, A_MERGE, A_RECIPE, A_GET, A_COMMANDS, A_CYCLES, A_CONTROL };

void key(fuzz::Output &o, int area, int start, int len)
{
    o.u8(0); // station 1
    o.u8(area);
    o.u8(1); // address as 16 bits
    o.u16(start);
    o.edgy(len);
    if (registerArea(area).isBit()) {
        o.u8(1); // bitPos -1
    } else {
        o.u8(0);
        o.edgy(0);
    }
    o.edgy(0);
}

void cycles(fuzz::Output &o, int n)
{
    o.u8(A_CYCLES);
    o.u8(n - 1);
    for (int i = 0; i < n; ++i)
        o.u8(fuzz::REPLY_SLAVE);
}

void apiSeeds(Corpus &c)
{
    {
        fuzz::Output o;
        o.u8(0); // default properties
        o.u8(A_MERGE);
        o.u8(6);
        for (int area : {0, 2, 7, 9, 12, 13})
            key(o, area, lowest(area), registerArea(area).isBit() ? 16 : 4);
        cycles(o, 6);
        o.u8(A_SET);
        o.u8(0);
        o.u8(13);
        o.u8(1);
        o.u16(100);
        o.edgy(2);
        o.u8(4);
        o.bytes(QByteArray::fromHex("34120100"));
        o.u8(0xFF); // not null
        o.edgy(RTUPLC_KIND_WRITE);
        cycles(o, 3);
        o.u8(A_GET);
        o.u8(0);
        o.u8(13);
        o.u8(1);
        o.u16(100);
        o.edgy(2);
        o.u8(0xFF);
        c.save(QStringLiteral("monitor-write-read"), o.data);
    }
    {
        fuzz::Output o;
        o.u8(0);
        o.u8(A_RECIPE);
        o.u8(4);
        const int vars[][3] = {{13, 100, 4}, {0, 0, 10}, {7, 210, 4}, {12, 300, 140}};
        int offset = 0;
        for (const auto &v : vars) {
            o.u8(0); // this driver's id
            o.u8(0);
            o.u8(v[0]);
            o.u8(1);
            o.u16(v[1]);
            o.edgy(v[2]);
            o.edgy(offset);
            o.edgy(0);
            offset += 2 * v[2];
        }
        o.u8(A_COMMANDS);
        o.u8(1);
        o.u8(0);
        cycles(o, 5);
        o.u8(A_COMMANDS);
        o.u8(0);
        o.u8(1);
        cycles(o, 5);
        c.save(QStringLiteral("recipe-down-up"), o.data);
    }
    for (int area = 0; area < REG_COUNT; ++area) {
        // Variables of one and a few units, overlapping and touching, up and down.
        fuzz::Output o;
        o.u8(0);
        o.u8(A_RECIPE);
        o.u8(3);
        const int start = lowest(area);
        const int vars[][3] = {{start, 1, 0}, {start, 4, 10}, {start + 4, 3, 20}};
        for (const auto &v : vars) {
            o.u8(0);
            o.u8(0);
            o.u8(area);
            o.u8(1);
            o.u16(v[0]);
            o.edgy(v[1]);
            o.edgy(v[2]);
            o.edgy(0);
        }
        o.u8(A_COMMANDS);
        o.u8(0);
        o.u8(1);
        cycles(o, 3);
        o.u8(A_COMMANDS);
        o.u8(1);
        o.u8(0);
        cycles(o, 3);
        c.save(QStringLiteral("recipe-%1").arg(REG_LIST[area]), o.data);
    }
    {
        fuzz::Output o;
        o.u8(2); // maxBlockLen 1
        o.u8(A_CONTROL);
        o.u8(CB_WRITE_MODE);
        o.u8(A_CONDITION);
        key(o, 9, 0, 10);
        o.edgy(RTUPLC_KIND_CONDITION_READ);
        o.u8(A_CONDITION);
        key(o, 2, 0, 30);
        o.edgy(RTUPLC_KIND_CONDITION_READ);
        o.u8(A_MERGE);
        o.u8(1);
        key(o, 9, 0, 10);
        cycles(o, 8);
        c.save(QStringLiteral("condition-callback-writes"), o.data);
    }
    {
        fuzz::Output o;
        o.u8(1); // local writes
        o.u8(A_SET);
        o.u8(0);
        o.u8(7);
        o.u8(1);
        o.u16(200);
        o.edgy(4);
        o.u8(8);
        o.bytes(QByteArray::fromHex("0100000002000000"));
        o.u8(0xFF);
        o.edgy(RTUPLC_KIND_WRITE);
        o.u8(A_GET);
        o.u8(0);
        o.u8(7);
        o.u8(1);
        o.u16(200);
        o.edgy(4);
        o.u8(0xFF);
        c.save(QStringLiteral("local-write-32C"), o.data);
    }
}

} // namespace

int main(int argc, char **argv)
{
    const struct {
        const char *name;
        Target fn;
        void (*seeds)(Corpus &);
    } targets[] = {{"fuzz_cycle", replay_fuzz_cycle, cycleSeeds},
                   {"fuzz_properties", replay_fuzz_properties, propertySeeds},
                   {"fuzz_editor", replay_fuzz_editor, editorSeeds},
                   {"fuzz_api", replay_fuzz_api, apiSeeds}};
    if (argc == 2) {
        for (const auto &t : targets) {
            Corpus c;
            c.dir = QDir(QString::fromLocal8Bit(argv[1]));
            if (!c.dir.mkpath(QLatin1String(t.name)) || !c.dir.cd(QLatin1String(t.name)))
                return 1;
            t.seeds(c);
            std::printf("%s: %d seeds\n", t.name, c.files);
        }
        return 0;
    }
    if (argc >= 3) {
        for (const auto &t : targets) {
            if (std::strcmp(argv[1], t.name) != 0)
                continue;
            for (int i = 2; i < argc; ++i) {
                QFile f(QString::fromLocal8Bit(argv[i]));
                if (!f.open(QIODevice::ReadOnly))
                    return 1;
                run(t.fn, f.readAll());
                std::printf("%s: ok\n", argv[i]);
            }
            return 0;
        }
    }
    std::fprintf(stderr, "usage: %s <corpus dir> | <target> <input>...\n", argv[0]);
    return 2;
}
