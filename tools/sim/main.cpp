// rtuplc-sim: the controller simulator on the command line.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "rtuplc_host/line_limits.h"
#include "rtuplc_host/log.h"
#include "rtuplc_host/program.h"
#include "rtuplc_support/simulator.h"

namespace {

using rtuhost::kHighestStation;
using rtuhost::kLowestStation;

const char kProgram[] = "rtuplc-sim";
// The simulator's own status for an endpoint it cannot open; 0 and 2 are the hosts'.
constexpr int kExitEndpoint = 1;

const char kUsage[] = R"(Usage: rtuplc-sim [OPTIONS]

Simulates the controller: a Modbus RTU slave with its coils and holding registers at
the addresses the driver uses (functions 01, 03, 05, 06, 0F, 10; reads of up to 128
registers). It prints where it serves, one line per endpoint, and runs until
interrupted (Ctrl-C or SIGTERM), then prints its counters.

Endpoints (any number; with none, --tcp 127.0.0.1:8000):
  --tcp [HOST:]PORT     RTU frames over TCP (no MBAP header); port 0 takes a free one
  --pty                 create a pseudo-terminal and serve on it
  --pty-link PATH       also make PATH a symbolic link to that pseudo-terminal
  --serial DEVICE       serve on a serial device
  --line BAUD,BITS,PARITY,STOP   line of --serial (default 9600,8,EVEN,1)
  --pace                answer TCP and pty requests no faster than --line carries them

Controller:
  --station N[,N...]    stations answered (default 1); others and broadcasts get no
                        reply, but broadcast writes are applied
  --fill pattern|zero   initial memory (default pattern: a register holds its own
                        address, a coil the parity of its address)
  --animate             D 0 counts every 250 ms, M 0 toggles every second, the
                        32-bit counter 200 ramps (registers 9700, 9701)
  --churn               every value a read returns has changed by the next read
                        (coils toggle, registers count up): a host's heaviest load
  --max-read N          largest register read accepted (default 128; 125 acts like a
                        standard slave)

Faults (probabilities 0..1, drawn per request):
  --drop P              no reply (request lost, or reply lost after executing it)
  --corrupt P           one bit of the reply flipped
  --exception P         refused with exception 06, slave device busy
  --delay MS            every reply delayed
  --late P              the reply sent --late-by MS late (default 1000), past the
                        master's time-out
  --late-by MS          how late a --late reply comes
  --double P            the reply sent twice
  --foreign P           another station's reply (its data, valid CRC) instead of its
                        own; the request is not executed
  --noise P             random bytes before the reply
  --split P             the reply written in pieces, 1..5 ms apart
  --wrong-function P    the reply with another function code and a valid CRC
  --seed N              random seed, for repeatable faults

Control:
  --control             take commands on standard input, one a line, each answered
                        with one line on standard output ("ok", "error: WHY" or the
                        value asked for); the end of the input stops the simulator:
                          stations N[,N...]      stations answered (others go silent)
                          set STATION REGISTER VALUE...
                                                 registers from REGISTER, all at once
                          coil STATION COIL 0|1
                          get STATION REGISTER   prints the register
                          get-coil STATION COIL  prints the coil, 0 or 1
                          refuse STATION coils|registers FIRST COUNT CODE
                                                 requests touching those units get
                                                 exception CODE; CODE 0 lifts it
                          accept STATION         lifts every refusal of STATION
                          counters               requests, replies, exceptions, writes
                        (addresses are Modbus ones: D 100 is register 100, M 0 coil 2000)

Output:
  --dump                print the memory that differs from the fill when stopping
                        (SIGUSR1 prints it at any time)
  --verbose             print every frame received and sent
  --reply-times FILE    write a line to FILE for every read answered, as its last
                        byte goes: the time (seconds since the epoch, to the
                        nanosecond), station, function, first address, count and
                        the first value read; for benchmarks that time what a host
                        does with a reply
  --version             print the version and exit
  --help

Examples:
  rtuplc-sim --tcp 8000 --animate
  rtuplc-sim --pty --pty-link /tmp/controller --station 1,2
  rtuplc-sim --tcp 0 --drop 0.3 --corrupt 0.1 --dump
)";

int usageError(const std::string &message)
{
    rtuhost::logError("%s", message.c_str());
    rtuhost::logError("(%s --help lists the options)", kProgram);
    return rtuhost::kExitUsage;
}

int endpointError(const std::string &message)
{
    rtuhost::logError("%s", message.c_str());
    return kExitEndpoint;
}

bool parseProbability(const std::string &text, double *out)
{
    char *end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(v >= 0.0 && v <= 1.0))
        return false;
    *out = v;
    return true;
}

bool parseInt(const std::string &text, long lo, long hi, long *out)
{
    char *end = nullptr;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || v < lo || v > hi)
        return false;
    *out = v;
    return true;
}

struct TcpEndpoint {
    std::string host = "127.0.0.1";
    int port = rtusupport::kDefaultTcpPort;
};

struct Options {
    std::vector<TcpEndpoint> tcp;
    bool pty = false;
    std::string ptyLink;
    std::string serial;
    rtusupport::SerialLine line;
    std::vector<int> stations{1};
    rtusupport::Fill fill = rtusupport::Fill::Pattern;
    bool animate = false;
    bool churn = false;
    bool pace = false;
    int maxRead = rtusupport::kControllerMaxReadRegisters;
    rtusupport::Faults faults = [] {
        rtusupport::Faults f;
        f.lateByMs = 1000;
        return f;
    }();
    bool seeded = false;
    unsigned long long seed = 0;
    bool dump = false;
    bool verbose = false;
    bool control = false;
    std::string replyTimes;
};

// Returns -1 when parsing went through, else the exit code.
int parse(int argc, char **argv, Options &o)
{
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const auto value = [&](std::string *v) {
            if (i + 1 >= argc)
                return false;
            *v = argv[++i];
            return true;
        };
        std::string v;
        long n = 0;
        if (a == "--help" || a == "-h") {
            std::cout << kUsage;
            return rtuhost::kExitOk;
        } else if (a == "--version") {
            std::cout << rtuhost::versionLine(kProgram) << '\n';
            return rtuhost::kExitOk;
        } else if (a == "--tcp") {
            // The listening side: [HOST:]PORT, a bare number being the port and 0 a free
            // one, on IPv4 only; the hosts' HOST[:PORT] (rtuplc_host/address.h) is where
            // they connect to.
            if (!value(&v))
                return usageError("--tcp needs [HOST:]PORT");
            TcpEndpoint t;
            const size_t colon = v.rfind(':');
            if (colon != std::string::npos) {
                t.host = v.substr(0, colon);
                v = v.substr(colon + 1);
            }
            if (!parseInt(v, 0, 65535, &n))
                return usageError("--tcp: port \"" + v + "\" is not 0..65535");
            t.port = int(n);
            o.tcp.push_back(t);
        } else if (a == "--pty") {
            o.pty = true;
        } else if (a == "--pty-link") {
            if (!value(&o.ptyLink))
                return usageError("--pty-link needs a path");
            o.pty = true;
        } else if (a == "--serial") {
            if (!value(&o.serial))
                return usageError("--serial needs a device");
        } else if (a == "--line") {
            std::string why;
            if (!value(&v) || !rtusupport::parseSerialLine(v, &o.line, &why))
                return usageError("--line: " + why);
        } else if (a == "--station") {
            if (!value(&v))
                return usageError("--station needs N[,N...]");
            o.stations.clear();
            std::stringstream in(v);
            for (std::string s; std::getline(in, s, ',');) {
                if (!parseInt(s, kLowestStation, kHighestStation, &n))
                    return usageError("--station: \"" + s + "\" is not a station " + std::to_string(kLowestStation) +
                                      ".." + std::to_string(kHighestStation));
                o.stations.push_back(int(n));
            }
        } else if (a == "--fill") {
            if (!value(&v) || (v != "pattern" && v != "zero"))
                return usageError("--fill takes pattern or zero");
            o.fill = v == "zero" ? rtusupport::Fill::Zero : rtusupport::Fill::Pattern;
        } else if (a == "--pace") {
            o.pace = true;
        } else if (a == "--animate") {
            o.animate = true;
        } else if (a == "--churn") {
            o.churn = true;
        } else if (a == "--max-read") {
            if (!value(&v) || !parseInt(v, 1, 255, &n))
                return usageError("--max-read takes 1..255 registers");
            o.maxRead = int(n);
        } else if (a == "--drop" || a == "--corrupt" || a == "--exception") {
            double *p = a == "--drop" ? &o.faults.drop : a == "--corrupt" ? &o.faults.corrupt : &o.faults.exception;
            if (!value(&v) || !parseProbability(v, p))
                return usageError(a + " takes a probability from 0 to 1");
        } else if (a == "--late" || a == "--double" || a == "--foreign" || a == "--noise" || a == "--split" ||
                   a == "--wrong-function") {
            rtusupport::Faults &f = o.faults;
            double *p = a == "--late"      ? &f.late
                        : a == "--double"  ? &f.doubled
                        : a == "--foreign" ? &f.foreign
                        : a == "--noise"   ? &f.noise
                        : a == "--split"   ? &f.split
                                           : &f.wrongFunction;
            if (!value(&v) || !parseProbability(v, p))
                return usageError(a + " takes a probability from 0 to 1");
        } else if (a == "--late-by") {
            if (!value(&v) || !parseInt(v, 0, 60000, &n))
                return usageError("--late-by takes 0..60000 milliseconds");
            o.faults.lateByMs = int(n);
        } else if (a == "--delay") {
            if (!value(&v) || !parseInt(v, 0, 60000, &n))
                return usageError("--delay takes 0..60000 milliseconds");
            o.faults.delayMs = int(n);
        } else if (a == "--seed") {
            if (!value(&v) || !parseInt(v, 0, 0x7FFFFFFF, &n))
                return usageError("--seed takes a number");
            o.seeded = true;
            o.seed = static_cast<unsigned long long>(n);
        } else if (a == "--control") {
            o.control = true;
        } else if (a == "--dump") {
            o.dump = true;
        } else if (a == "--verbose") {
            o.verbose = true;
        } else if (a == "--reply-times") {
            if (!value(&o.replyTimes))
                return usageError("--reply-times needs a file");
        } else {
            return usageError("unknown option \"" + a + "\"");
        }
    }
    if (o.tcp.empty() && !o.pty && o.serial.empty())
        o.tcp.push_back(TcpEndpoint());
    return -1;
}

bool parseStations(const std::string &text, std::vector<int> *out)
{
    out->clear();
    std::stringstream in(text);
    long n = 0;
    for (std::string s; std::getline(in, s, ',');) {
        if (!parseInt(s, kLowestStation, kHighestStation, &n))
            return false;
        out->push_back(int(n));
    }
    return !out->empty();
}

// One command of --control, answered with one line.
std::string control(rtusupport::Simulator &sim, const std::string &line)
{
    constexpr long kHighestUnit = long(rtusupport::kAddressSpace) - 1;
    constexpr long kHighestValue = 0xFFFF;
    constexpr long kHighestExceptionCode = 0xFF;
    std::istringstream in(line);
    std::vector<std::string> w;
    for (std::string word; in >> word;)
        w.push_back(word);
    if (w.empty())
        return "error: empty command";
    const std::string &c = w[0];
    long n[4] = {0, 0, 0, 0};
    // Checks the argument count and reads the numbers from argument `from` on.
    const auto numbers = [&](size_t count, size_t from, const std::vector<long> &highest) {
        if (w.size() != count + 1)
            return false;
        for (size_t i = from; i <= count; ++i) {
            if (!parseInt(w[i], i == 1 ? 1 : 0, highest[i - 1], &n[i - from]))
                return false;
        }
        return true;
    };
    const long station = kHighestStation;
    try {
        if (c == "stations") {
            std::vector<int> stations;
            if (w.size() != 2 || !parseStations(w[1], &stations))
                return "error: stations takes N[,N...] of 1..247";
            sim.setStations(stations);
        } else if (c == "set") {
            // Several values fill consecutive registers at once, as a 32-bit value needs.
            std::vector<uint16_t> values;
            for (size_t i = 3; i < w.size() && parseInt(w[i], 0, kHighestValue, &n[2]); ++i)
                values.push_back(uint16_t(n[2]));
            if (w.size() < 4 || values.size() != w.size() - 3 || !parseInt(w[1], 1, station, &n[0]) ||
                !parseInt(w[2], 0, kHighestUnit, &n[1]))
                return "error: set takes STATION REGISTER VALUE... (0..65535)";
            sim.setRegs(int(n[0]), uint32_t(n[1]), values);
        } else if (c == "coil") {
            if (!numbers(3, 1, {station, kHighestUnit, 1}))
                return "error: coil takes STATION COIL 0|1";
            sim.setCoil(int(n[0]), uint32_t(n[1]), n[2] != 0);
        } else if (c == "get") {
            if (!numbers(2, 1, {station, kHighestUnit}))
                return "error: get takes STATION REGISTER";
            return std::to_string(sim.reg(int(n[0]), uint32_t(n[1])));
        } else if (c == "get-coil") {
            if (!numbers(2, 1, {station, kHighestUnit}))
                return "error: get-coil takes STATION COIL";
            return sim.coil(int(n[0]), uint32_t(n[1])) ? "1" : "0";
        } else if (c == "refuse") {
            const bool named = w.size() == 6 && (w[2] == "coils" || w[2] == "registers");
            const auto space = named && w[2] == "coils" ? rtusupport::Space::Coils : rtusupport::Space::Registers;
            if (named)
                w.erase(w.begin() + 2);
            if (!named || !numbers(4, 1, {station, kHighestUnit, kHighestUnit + 1, kHighestExceptionCode}))
                return "error: refuse takes STATION coils|registers FIRST COUNT CODE";
            sim.refuse(int(n[0]), space, uint32_t(n[1]), uint32_t(n[2]), uint8_t(n[3]));
        } else if (c == "accept") {
            if (!numbers(1, 1, {station}))
                return "error: accept takes STATION";
            sim.accept(int(n[0]));
        } else if (c == "counters") {
            const rtusupport::Counters k = sim.counters();
            return "requests " + std::to_string(k.requests) + " replies " + std::to_string(k.replies) + " exceptions " +
                   std::to_string(k.exceptions) + " writes " + std::to_string(k.writes);
        } else {
            return "error: unknown command \"" + c + "\"";
        }
    } catch (const std::exception &e) {
        return std::string("error: ") + e.what(); // a station not simulated, for one
    }
    return "ok";
}

// Lets main() stop the commands before the simulator goes away. The reading thread may
// still wait for input when the process ends, so the gate lives as long as the process.
struct ControlGate {
    std::mutex mutex;
    rtusupport::Simulator *sim = nullptr; // null once stopping
};
ControlGate gControl;

// Serves --control until the input ends, then stops the simulator as a signal would:
// a test that goes away takes its simulator with it.
void controlLoop(ControlGate *gate)
{
    for (std::string line; std::getline(std::cin, line);) {
        std::lock_guard<std::mutex> lock(gate->mutex);
        if (gate->sim == nullptr)
            return;
        std::cout << control(*gate->sim, line) << std::endl;
    }
    ::kill(::getpid(), SIGTERM);
}

// --reply-times: one line per read answered. Written in large pieces, but never more
// than a tenth of a second behind, so that a benchmark reads a run's replies soon after.
class ReplyTimes {
public:
    bool open(const std::string &path)
    {
        file_ = std::fopen(path.c_str(), "w");
        if (file_ != nullptr)
            std::setvbuf(file_, nullptr, _IOFBF, kBuffer);
        return file_ != nullptr;
    }
    ~ReplyTimes()
    {
        if (file_ != nullptr)
            std::fclose(file_);
    }
    // Under the simulator's lock: one endpoint at a time.
    void sent(const std::vector<uint8_t> &request, const std::vector<uint8_t> &reply)
    {
        constexpr size_t kReadReplyHeader = 3; // station, function, byte count
        constexpr long kNsPerSecond = 1000000000;
        const uint8_t function = reply.size() > 1 ? reply[1] : 0;
        if ((function != kReadCoils && function != kReadRegisters) || request.size() < 6 ||
            reply.size() < kReadReplyHeader + 2)
            return; // a write, or an exception
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        const unsigned first = unsigned(request[2] << 8 | request[3]), count = unsigned(request[4] << 8 | request[5]);
        const unsigned value = function == kReadCoils ? reply[kReadReplyHeader] & 1U
                                                      : unsigned(reply[kReadReplyHeader] << 8 | reply[4]);
        std::fprintf(file_, "%lld.%09ld %u %u %u %u %u\n", (long long)now.tv_sec, now.tv_nsec, unsigned(reply[0]),
                     unsigned(function), first, count, value);
        const long ns = now.tv_sec % 1000 * kNsPerSecond + now.tv_nsec;
        if (ns - flushed_ >= kFlushEveryNs || ns < flushed_) {
            std::fflush(file_);
            flushed_ = ns;
        }
    }

private:
    static constexpr uint8_t kReadCoils = 0x01, kReadRegisters = 0x03;
    static constexpr size_t kBuffer = 1 << 20;
    static constexpr long kFlushEveryNs = 100000000;
    std::FILE *file_ = nullptr;
    long flushed_ = 0;
};

void printCounters(const rtusupport::Counters &c)
{
    std::ostringstream text;
    text << c.requests << " requests, " << c.replies << " replies, " << c.exceptions << " exceptions, " << c.writes
         << " writes, " << c.broadcasts << " broadcasts, " << c.otherStations << " for other stations, " << c.dropped
         << " dropped, " << c.corrupted << " corrupted, " << c.discarded << " bad frames, " << c.late << " late, "
         << c.doubled << " doubled, " << c.foreign << " foreign, " << c.noise << " with noise, " << c.split
         << " split, " << c.wrongFunction << " of another function";
    rtuhost::logNotice("%s", text.str().c_str());
}

} // namespace

int main(int argc, char **argv)
{
    rtuhost::setLogProgram(kProgram);
    Options o;
    if (const int code = parse(argc, argv, o); code >= 0)
        return code;

    // Signals are taken by sigwait below, not by handlers in whichever thread.
    sigset_t signals;
    sigemptyset(&signals);
    for (int s : {SIGINT, SIGTERM, SIGHUP, SIGUSR1})
        sigaddset(&signals, s);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    ReplyTimes replyTimes; // outlives the simulator's threads, which write to it
    rtusupport::Simulator sim;
    try {
        sim.setStations(o.stations);
    } catch (const std::exception &e) {
        return usageError(e.what());
    }
    sim.fill(o.fill);
    sim.setAnimate(o.animate);
    sim.setChurn(o.churn);
    rtusupport::Limits limits;
    limits.maxReadRegisters = o.maxRead;
    sim.setLimits(limits);
    sim.setFaults(o.faults);
    if (o.pace)
        sim.setPacing(o.line);
    if (o.seeded)
        sim.setSeed(o.seed);
    if (o.verbose)
        sim.setLog([](const std::string &line) { rtuhost::logMessage(rtuhost::LogPriority::Debug, line); });
    if (!o.replyTimes.empty()) {
        if (!replyTimes.open(o.replyTimes))
            return usageError("--reply-times: cannot write " + o.replyTimes + ": " + std::strerror(errno));
        sim.setReplySent([&replyTimes](const std::vector<uint8_t> &request, const std::vector<uint8_t> &reply) {
            replyTimes.sent(request, reply);
        });
    }

    std::string error;
    for (const TcpEndpoint &t : o.tcp) {
        if (!sim.startTcp(t.host, t.port, &error))
            return endpointError(error);
        std::cout << "rtuplc-sim: serving tcp " << t.host << ':' << sim.tcpPort() << std::endl;
    }
    if (o.pty) {
        if (!sim.startPty(&error))
            return endpointError(error);
        if (!o.ptyLink.empty()) {
            ::unlink(o.ptyLink.c_str());
            if (::symlink(sim.ptyPath().c_str(), o.ptyLink.c_str()) != 0)
                return endpointError("cannot link " + o.ptyLink + ": " + std::strerror(errno));
        }
        std::cout << "rtuplc-sim: serving pty " << sim.ptyPath()
                  << (o.ptyLink.empty() ? "" : " (linked from " + o.ptyLink + ")") << std::endl;
    }
    if (!o.serial.empty()) {
        if (!sim.startSerial(o.serial, o.line, &error))
            return endpointError(error);
        std::cout << "rtuplc-sim: serving serial " << o.serial << ' ' << rtusupport::formatSerialLine(o.line)
                  << std::endl;
    }
    std::string stationList;
    for (int s : o.stations)
        stationList += (stationList.empty() ? "" : ",") + std::to_string(s);
    std::cout << "rtuplc-sim: station " << stationList << (o.animate ? ", animated" : "") << std::endl;

    if (o.control) {
        gControl.sim = &sim;
        std::thread(controlLoop, &gControl).detach();
    }

    for (;;) {
        int s = 0;
        if (sigwait(&signals, &s) != 0)
            continue;
        if (s == SIGUSR1) {
            std::cout << sim.dump() << "-- end of dump" << std::endl;
            continue;
        }
        break;
    }
    {
        std::lock_guard<std::mutex> lock(gControl.mutex);
        gControl.sim = nullptr;
    }
    sim.stop();
    sim.setReplySent({});
    if (!o.ptyLink.empty())
        ::unlink(o.ptyLink.c_str());
    if (o.dump)
        std::cout << sim.dump() << "-- end of dump" << std::endl;
    printCounters(sim.counters());
    return rtuhost::kExitOk;
}
