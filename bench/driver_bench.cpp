// Speed of the driver's hot paths, each measured side by side with a plain baseline of
// the same operation (a linear scan of the data areas, a hashed cache, a bubble sort,
// registration with text keys, a bitwise CRC).
//
//   build/bench/rtuplc_bench                    all benchmarks
//   build/bench/rtuplc_bench --memory           resident bytes per data area at 1M areas:
//                                               one block polled, and every block polled
#include <benchmark/benchmark.h>

#include <QHash>
#include <QRandomGenerator>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <unordered_map>

#include "rtuplc_support/frames.h"
#include <sys/wait.h>
#include <unistd.h>

#include "serviceForProtocol.h"

namespace {

constexpr int kBlock = 125; // registers of the polled block: what a standard slave serves
constexpr int kStation = 1;

void noReport(int, int, QString &, int) {}

using rtusupport::withCrc;

// A register-read reply whose every register differs from the previous reply's.
QByteArray blockReply(uint16_t seed)
{
    QByteArray b;
    b.append(char(kStation));
    b.append(char(0x03));
    b.append(char(2 * kBlock));
    for (int i = 0; i < kBlock; ++i) {
        const uint16_t w = uint16_t(seed + i);
        b.append(char(w >> 8));
        b.append(char(w & 0xFF));
    }
    return withCrc(b);
}

// Fills the cache with `areas` data areas: registers of other stations that nothing
// polls, then the monitored block of station 1, last, where a scan finds it latest.
void fillAreas(int areas)
{
    intf_setAddrValueChangeCallBack(noReport);
    intf_initProperty(nullptr, 0, nullptr, nullptr, "1#0#0#3#64", nullptr);
    const int pid = driver.areaIndex.prefixId("D");
    for (int i = kBlock; i < areas; ++i)
        getIndexOfDataArea(2 + i / 8000, pid, i % 8000);
    QList<KEY_ADDRESS> keys;
    KEY_ADDRESS k;
    k.station = kStation;
    k.regName = "D_W";
    k.startAddr = 0;
    k.len = kBlock;
    keys << k;
    intf_addrMerge(keys);
}

long residentBytes()
{
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = 0;
    statm >> pages >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

// --- One poll cycle: the frame of a 125-register block out, its reply in. ---

void BM_PollCycle(benchmark::State &state)
{
    fillAreas(int(state.range(0)));
    const QByteArray replies[2] = {blockReply(1000), blockReply(2000)};
    int turn = 0;
    for (auto _ : state) {
        FRAME_PRO f;
        intf_getSendFrame(f);
        QString what;
        benchmark::DoNotOptimize(intf_dealRcvFrame(replies[turn ^= 1], what));
    }
    state.counters["areas"] = double(driver.dataAreas.size());
}
BENCHMARK(BM_PollCycle)->Arg(1000)->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMicrosecond);

// The same cycle with each unit found by scanning the list, as a plain cache would.
void decodeByScan(QList<_DATA_> &areas, const QByteArray &reply, const VARIABLE &var)
{
    const unsigned char *r = reinterpret_cast<const unsigned char *>(reply.constData());
    for (int i = 0; i < var.len; ++i) {
        const int k = getIndexOfDataArea(var.station, "D", var.startAddr + i, areas);
        _DATA_ &a = areas[k];
        const int p = 3 + 2 * i;
        int newValue = uchar2int16(r[p + 1], r[p]);
        int oldValue = uchar2int16(a.value[0], a.value[1]);
        if (oldValue != newValue) {
            a.value[0] = r[p + 1];
            a.value[1] = r[p];
            a.writePending = 0;
            if (a.monitorFlags & MON_UNIT) {
                QString item = QStringLiteral("D_W");
                noReport(1, a.station, item, a.addr);
            }
        }
    }
}

void BM_PollCycleLinearBaseline(benchmark::State &state)
{
    fillAreas(int(state.range(0)));
    QList<_DATA_> areas = driver.dataAreas; // a plain list with the same areas, no index
    areas.detach();
    intf_initProperty(nullptr, 0, nullptr, nullptr, "1#0#0#3#64", nullptr);
    const QByteArray replies[2] = {blockReply(1000), blockReply(2000)};
    VARIABLE var;
    var.station = kStation;
    var.regName = "D_W";
    var.len = kBlock;
    int turn = 0;
    for (auto _ : state) {
        getReadFrame(QList<VARIABLE>{var}, driver.frameList);
        const QByteArray &reply = replies[turn ^= 1];
        benchmark::DoNotOptimize(check_rcv_data(reinterpret_cast<const unsigned char *>(reply.constData()), {},
                                                reply.size(), driver.frameList.first()));
        decodeByScan(areas, reply, var);
        driver.frameList.clear();
    }
    state.counters["areas"] = double(areas.size());
}
BENCHMARK(BM_PollCycleLinearBaseline)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(1000000)
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(0.5);

// --- A panel that monitors everything it caches: every block polled in turn. ---
//
// `units` registers of D_W, one 125-register item per block, registered in random
// order over as many stations as they need (64 blocks a station). Each benchmark
// iteration is one whole rotation over every block; every register changes in every
// reply. "cycle" is the time of one getSendFrame + dealRcvFrame, averaged over the
// rotations, so the caches are as cold as a real panel leaves them.

constexpr int kBlocksPerStation = 8000 / kBlock;

QList<KEY_ADDRESS> panelItems(int units)
{
    QList<KEY_ADDRESS> keys;
    for (int b = 0; b < units / kBlock; ++b) {
        KEY_ADDRESS k;
        k.station = 1 + b / kBlocksPerStation;
        k.regName = QStringLiteral("D_W");
        k.startAddr = (b % kBlocksPerStation) * kBlock;
        k.len = kBlock;
        keys << k;
    }
    std::mt19937 rng(11);
    std::shuffle(keys.begin(), keys.end(), rng);
    return keys;
}

// A reply to the register read in `f` whose every register differs between seeds.
QByteArray replyFor(const FRAME_PRO &f, uint16_t seed)
{
    const int registers = (f.frame[4] << 8) | f.frame[5];
    QByteArray b;
    b.append(char(f.frame[0]));
    b.append(char(0x03));
    b.append(char(2 * registers));
    for (int i = 0; i < registers; ++i) {
        const uint16_t w = uint16_t(seed + 3 * i + f.frame[3]);
        b.append(char(w >> 8));
        b.append(char(w & 0xFF));
    }
    return withCrc(b);
}

// Registers the panel and answers one rotation, so that every area exists and the
// replies of both parities are ready in the order the blocks are polled.
struct Panel {
    int blocks = 0;
    std::vector<QByteArray> replies[2];
    std::vector<VARIABLE> reads; // the blocks in the order they are polled

    explicit Panel(int units)
    {
        intf_setAddrValueChangeCallBack(noReport);
        intf_initProperty(nullptr, 0, nullptr, nullptr, "1#0#0#3#64", nullptr);
        QList<KEY_ADDRESS> keys = panelItems(units);
        blocks = intf_addrMerge(keys);
        for (int b = 0; b < blocks; ++b) {
            FRAME_PRO f;
            intf_getSendFrame(f);
            reads.push_back(driver.curVar);
            replies[0].push_back(replyFor(f, 1000));
            replies[1].push_back(replyFor(f, 2000));
            QString what;
            intf_dealRcvFrame(replies[1].back(), what);
        }
    }
};

void BM_PollRoundRobin(benchmark::State &state)
{
    Panel panel(int(state.range(0)));
    int parity = 0;
    for (auto _ : state) {
        const std::vector<QByteArray> &replies = panel.replies[parity ^= 1];
        for (int b = 0; b < panel.blocks; ++b) {
            FRAME_PRO f;
            intf_getSendFrame(f);
            QString what;
            benchmark::DoNotOptimize(intf_dealRcvFrame(replies[size_t(b)], what));
        }
    }
    state.counters["units"] = double(driver.dataAreas.size());
    state.counters["cycle"] = benchmark::Counter(double(panel.blocks), benchmark::Counter::kIsIterationInvariantRate |
                                                                           benchmark::Counter::kInvert);
}
BENCHMARK(BM_PollRoundRobin)->Arg(1000)->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

// The same rotation with every unit of every reply found by a std::unordered_map
// lookup, as a plain hashed cache does: the driver's own request work (the frame, the
// reply check, the error text, turning the list), the decode and a callback per
// changed unit, with the host's text copied for it as the driver does.
void BM_PollRoundRobinHashBaseline(benchmark::State &state)
{
    Panel panel(int(state.range(0)));
    QList<_DATA_> areas = driver.dataAreas; // the same areas in the same order
    areas.detach();
    std::unordered_map<uint64_t, int> index;
    index.reserve(size_t(areas.size()));
    for (int i = 0; i < areas.size(); ++i)
        index.emplace(uint64_t(uint32_t(areas.at(i).station)) << 32 | uint32_t(areas.at(i).addr), i);
    const QString itemText = QString::fromLatin1("D_W");
    void (*volatile report)(int, int, QString &, int) = noReport;
    int parity = 0;
    for (auto _ : state) {
        const std::vector<QByteArray> &replies = panel.replies[parity ^= 1];
        for (int b = 0; b < panel.blocks; ++b) {
            FRAME_PRO f;
            intf_getSendFrame(f);
            const QByteArray &reply = replies[size_t(b)];
            const unsigned char *r = reinterpret_cast<const unsigned char *>(reply.constData());
            benchmark::DoNotOptimize(getErrorInfo(reply));
            benchmark::DoNotOptimize(check_rcv_data(r, driver.curVarList, reply.size(), driver.frameList.first()));
            const VARIABLE &var = driver.curVar;
            for (int i = 0; i < var.len; ++i) {
                _DATA_ &a = areas[index[uint64_t(uint32_t(var.station)) << 32 | uint32_t(var.startAddr + i)]];
                const int p = 3 + 2 * i;
                if (uchar2int16(a.value[0], a.value[1]) != uchar2int16(r[p + 1], r[p])) {
                    a.value[0] = r[p + 1];
                    a.value[1] = r[p];
                    a.writePending = 0;
                    if (a.monitorFlags & MON_UNIT) {
                        QString item = itemText;
                        report(1, a.station, item, a.addr);
                    }
                }
            }
            driver.frameList.clear();
            driver.monitorList.append(driver.monitorList.takeFirst());
        }
    }
    state.counters["units"] = double(areas.size());
    state.counters["cycle"] = benchmark::Counter(double(panel.blocks), benchmark::Counter::kIsIterationInvariantRate |
                                                                           benchmark::Counter::kInvert);
}
BENCHMARK(BM_PollRoundRobinHashBaseline)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(1000000)
    ->Unit(benchmark::kMillisecond);

// --- Registration as screens do it: 100k items of one to four units of D_W or M,
// scattered over 200 stations, in random order; first into an empty cache, then the
// same list again (every area already there). ---

QList<KEY_ADDRESS> screenItems(int n)
{
    std::mt19937 rng(5);
    QList<KEY_ADDRESS> items;
    items.reserve(n);
    for (int i = 0; i < n; ++i) {
        KEY_ADDRESS k;
        const bool word = rng() % 2 == 0;
        k.station = 1 + int(rng() % 200);
        k.regName = word ? QStringLiteral("D_W") : QStringLiteral("M");
        k.len = 1 + int(rng() % 4);
        k.startAddr = int(rng() % uint32_t((word ? 8000 : 2000) - k.len));
        k.bitPos = word ? 0 : -1;
        items << k;
    }
    return items;
}

void BM_RegisterFirst(benchmark::State &state)
{
    QList<KEY_ADDRESS> items = screenItems(int(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        intf_initProperty(nullptr, 0, nullptr, nullptr, "1#0#0#3#64", nullptr);
        state.ResumeTiming();
        benchmark::DoNotOptimize(intf_addrMerge(items));
    }
    state.counters["units"] = double(driver.dataAreas.size());
    state.counters["blocks"] = double(driver.monitorList.size());
}
BENCHMARK(BM_RegisterFirst)->Arg(100000)->Unit(benchmark::kMillisecond);

void BM_RegisterAgain(benchmark::State &state)
{
    QList<KEY_ADDRESS> items = screenItems(int(state.range(0)));
    intf_initProperty(nullptr, 0, nullptr, nullptr, "1#0#0#3#64", nullptr);
    intf_addrMerge(items);
    for (auto _ : state)
        benchmark::DoNotOptimize(intf_addrMerge(items));
}
BENCHMARK(BM_RegisterAgain)->Arg(100000)->Unit(benchmark::kMillisecond);

// The same registration done plainly: a std::unordered_map for the areas, the item's
// texts compared and rebuilt per item, and a stable sort on the resulting weights.
void BM_RegisterPlainBaseline(benchmark::State &state)
{
    const QList<KEY_ADDRESS> items = screenItems(int(state.range(0)));
    for (auto _ : state) {
        QList<_DATA_> areas;
        QHash<QString, int> index;
        std::vector<std::pair<uint32_t, int>> order;
        for (int i = 0; i < items.size(); ++i) {
            const KEY_ADDRESS &k = items.at(i);
            const QString prefix = regPrefixOf(k.regName);
            for (int a = k.startAddr; a < k.startAddr + k.len; ++a) {
                const QString key = QStringLiteral("%1/%2/%3").arg(k.station).arg(prefix).arg(a);
                auto it = index.find(key);
                if (it == index.end()) {
                    _DATA_ d;
                    d.station = k.station;
                    d.regPrefix = prefix;
                    d.addr = a;
                    areas.append(d);
                    it = index.insert(key, areas.size() - 1);
                }
                areas[it.value()].monitorFlags |= MON_UNIT;
            }
            const QString name = k.regName.contains('_') ? k.regName.section('_', 0, 0) + "_W" : k.regName;
            order.emplace_back(getRegAddressWeight(k.station, name, k.startAddr, k.len), i);
        }
        std::stable_sort(order.begin(), order.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
        benchmark::DoNotOptimize(order.data());
        benchmark::DoNotOptimize(areas.size());
    }
}
BENCHMARK(BM_RegisterPlainBaseline)->Arg(100000)->Unit(benchmark::kMillisecond);

// --- Merging the monitored addresses into read blocks. ---

QList<KEY_ADDRESS> randomItems(int n)
{
    QRandomGenerator rng(7);
    static const char *const regs[] = {"X", "M", "D_W", "D_D", "CV", "32C"};
    QList<KEY_ADDRESS> items;
    items.reserve(n);
    for (int i = 0; i < n; ++i) {
        KEY_ADDRESS k;
        k.station = 1 + int(rng.bounded(8));
        k.regName = regs[rng.bounded(6)];
        k.startAddr = k.regName == "32C" ? 200 + int(rng.bounded(56)) : int(rng.bounded(2000));
        k.len = 1 + int(rng.bounded(4));
        items << k;
    }
    return items;
}

void BM_AddrMerge(benchmark::State &state)
{
    intf_initProperty(nullptr, 0, nullptr, nullptr, "1#0#0#3#64", nullptr);
    QList<KEY_ADDRESS> items = randomItems(int(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(intf_addrMerge(items));
    state.counters["blocks"] = double(driver.monitorList.size());
}
BENCHMARK(BM_AddrMerge)->Arg(100)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// The same registration with the bubble sort a plain implementation would use.
void BM_AddrMergeBubbleBaseline(benchmark::State &state)
{
    intf_initProperty(nullptr, 0, nullptr, nullptr, "1#0#0#3#64", nullptr);
    const QList<KEY_ADDRESS> items = randomItems(int(state.range(0)));
    for (auto _ : state) {
        for (int i = 0; i < driver.dataAreas.size(); ++i)
            driver.dataAreas[i].monitorFlags = 0;
        std::vector<MergeItem> work;
        std::vector<uint32_t> weights;
        for (int i = 0; i < items.size(); ++i) {
            const KEY_ADDRESS &k = items.at(i);
            _setDataAreaMonitorFlag(k.station, k.regName, k.startAddr, k.len);
            work.push_back(MergeItem{k.station, k.regName, k.startAddr, k.len, i, 0});
            const QString name = k.regName.contains('_') ? k.regName.section('_', 0, 0) + "_W" : k.regName;
            weights.push_back(getRegAddressWeight(k.station, name, k.startAddr, k.len));
        }
        for (size_t pass = 0; pass + 1 < work.size(); ++pass) {
            for (size_t j = 0; j + 1 < work.size() - pass; ++j) {
                if (weights[j] > weights[j + 1]) {
                    std::swap(weights[j], weights[j + 1]);
                    std::swap(work[j], work[j + 1]);
                }
            }
        }
        benchmark::DoNotOptimize(addrMerge(std::move(work), MERGE_MONITOR, nullptr).size());
    }
}
BENCHMARK(BM_AddrMergeBubbleBaseline)->Arg(100)->Arg(10000)->Unit(benchmark::kMillisecond)->Iterations(3);

// --- A screen reading one word. ---

void BM_GetDataOneWord(benchmark::State &state)
{
    fillAreas(int(state.range(0)));
    unsigned char out[2];
    int addr = 0;
    const QString reg = QStringLiteral("D_W");
    for (auto _ : state) {
        benchmark::DoNotOptimize(intf_getData(kStation, reg, addr, 1, out));
        addr = (addr + 1) % kBlock;
    }
}
BENCHMARK(BM_GetDataOneWord)->Arg(1000)->Arg(1000000)->Unit(benchmark::kNanosecond);

void BM_GetDataOneWordLinearBaseline(benchmark::State &state)
{
    fillAreas(int(state.range(0)));
    QList<_DATA_> areas = driver.dataAreas;
    areas.detach();
    intf_initProperty(nullptr, 0, nullptr, nullptr, "1#0#0#3#64", nullptr);
    unsigned char out[2];
    int addr = 0;
    for (auto _ : state) {
        const _DATA_ &a = areas.at(getIndexOfDataArea(kStation, regPrefixOf("D_W"), addr, areas));
        out[0] = a.value[0];
        out[1] = a.value[1];
        benchmark::DoNotOptimize(out);
        addr = (addr + 1) % kBlock;
    }
}
BENCHMARK(BM_GetDataOneWordLinearBaseline)->Arg(1000)->Arg(1000000)->Unit(benchmark::kNanosecond);

// --- The CRC of a full read reply. ---

uint16_t crcBitwise(const unsigned char *p, size_t n)
{
    uint16_t crc = 0xFFFF;
    for (size_t i = 0; i < n; ++i) {
        crc ^= p[i];
        for (int k = 0; k < 8; ++k)
            crc = (crc & 1) ? uint16_t((crc >> 1) ^ 0xA001) : uint16_t(crc >> 1);
    }
    return crc;
}

void BM_Crc(benchmark::State &state)
{
    const QByteArray reply = blockReply(1);
    for (auto _ : state)
        benchmark::DoNotOptimize(computate_check(reinterpret_cast<const unsigned char *>(reply.constData()),
                                                 static_cast<unsigned short>(reply.size())));
}
BENCHMARK(BM_Crc);

void BM_CrcBitwiseBaseline(benchmark::State &state)
{
    const QByteArray reply = blockReply(1);
    for (auto _ : state)
        benchmark::DoNotOptimize(
            crcBitwise(reinterpret_cast<const unsigned char *>(reply.constData()), size_t(reply.size())));
}
BENCHMARK(BM_CrcBitwiseBaseline);

// Resident bytes the driver adds, over the units it caches, in a process of its own
// so that one measurement's freed memory does not hide the next one's.
template <typename F>
void measure(const char *what, F &&fill)
{
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        const long before = residentBytes();
        fill();
        const long after = residentBytes();
        std::printf("%s: %d data areas, resident bytes added %ld, %.1f bytes per data area\n", what,
                    int(driver.dataAreas.size()), after - before, double(after - before) / driver.dataAreas.size());
        std::fflush(stdout);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
}

int memoryReport()
{
    constexpr int kUnits = 1000000;
    measure("1M areas, one block polled", [] {
        fillAreas(kUnits);
        // Polling once touches every path a live panel touches.
        FRAME_PRO f;
        intf_getSendFrame(f);
        QString what;
        intf_dealRcvFrame(blockReply(5), what);
    });
    // The host's list of items is the host's memory: made before the measurement.
    static QList<KEY_ADDRESS> keys = panelItems(kUnits);
    measure("1M units monitored, every block polled once", [] {
        intf_setAddrValueChangeCallBack(noReport);
        intf_initProperty(nullptr, 0, nullptr, nullptr, "1#0#0#3#64", nullptr);
        const int blocks = intf_addrMerge(keys);
        for (int b = 0; b < blocks; ++b) {
            FRAME_PRO f;
            intf_getSendFrame(f);
            QString what;
            intf_dealRcvFrame(replyFor(f, 7), what);
        }
    });
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--memory") == 0)
            return memoryReport();
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
