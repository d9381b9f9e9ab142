// Speed of the driver's hot paths, each measured side by side with a plain baseline of
// the same operation (a linear scan of the data areas, a bubble sort, a bitwise CRC).
//
//   build/bench/rtuplc_bench                    all benchmarks
//   build/bench/rtuplc_bench --memory           resident bytes per data area at 1M areas
#include <benchmark/benchmark.h>

#include <QRandomGenerator>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <unistd.h>

#include "serviceForProtocol.h"

namespace {

constexpr int kBlock = 125; // registers of the polled block: what a standard slave serves
constexpr int kStation = 1;

void noReport(int, int, QString &, int) {}

QByteArray withCrc(QByteArray b)
{
    const uint16_t crc = computate_check(reinterpret_cast<const unsigned char *>(b.constData()), static_cast<unsigned short>(b.size()));
    b.append(char(crc & 0xFF));
    b.append(char(crc >> 8));
    return b;
}

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
        benchmark::DoNotOptimize(computate_check(reinterpret_cast<const unsigned char *>(reply.constData()), static_cast<unsigned short>(reply.size())));
}
BENCHMARK(BM_Crc);

void BM_CrcBitwiseBaseline(benchmark::State &state)
{
    const QByteArray reply = blockReply(1);
    for (auto _ : state)
        benchmark::DoNotOptimize(crcBitwise(reinterpret_cast<const unsigned char *>(reply.constData()), size_t(reply.size())));
}
BENCHMARK(BM_CrcBitwiseBaseline);

int memoryReport()
{
    constexpr int kAreas = 1000000;
    const long before = residentBytes();
    fillAreas(kAreas);
    // Polling once touches every path a live panel touches.
    FRAME_PRO f;
    intf_getSendFrame(f);
    QString what;
    intf_dealRcvFrame(blockReply(5), what);
    const long after = residentBytes();
    std::printf("data areas: %d\nresident bytes added: %ld\nbytes per data area: %.1f\n", int(driver.dataAreas.size()),
                after - before, double(after - before) / kAreas);
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
