#include "options.h"

#include <cstdlib>

#include "rtuplc_host/address.h"
#include "rtuplc_host/items.h"

namespace rtupoll {

const char kUsage[] = R"USAGE(Usage: rtuplc-poll [OPTIONS] ITEM...

Polls the controller through the rtuplc driver, as an operator panel does: the driver
plans and builds the frames, rtuplc-poll carries them over the line and prints the
values the driver reports. With no connection option it starts its built-in
controller simulator on a free loopback port and polls that.

Items, in each area's own notation (X and Y are octal), optionally @STATION, and
optionally /INTERVAL to read them only that often (D_W:100..109/10s; without it, as
fast as the line goes):
  D_W:100..109   ten 16-bit registers        X:0..17     sixteen inputs (octal)
  D_D:200        a 32-bit value over D200,201  D_D:200..203  the values at 200 and 202
  32C:200..203   four 32-bit counters        M:0..15     sixteen relays
  Areas: X Y M SM S T C (bits), 32C CV TV Z SD D_D D_W (registers).
A type may follow the address, before @STATION: uint16 int16 uint32 int32 float32
bool string, then low-first for a 32-bit value whose low half comes first:
  D_W:100:int16  a signed register          D_D:200:float32  a float
  D_W:100.3      bit 3 of D100              D_W:300..307:string  16 characters

Connection:
  --tcp HOST[:PORT]      RTU frames over TCP, e.g. to a serial gateway (port: 8000);
                         an IPv6 address in brackets, e.g. [::1]:1502
  --serial DEVICE        a serial line or pseudo-terminal
  --line B,D,P,S         line settings, default 9600,8,EVEN,1 (from the driver); over
                         TCP they only set the reply timeout
  --driver PATH          the driver library (default: librtuplc.so beside
                         rtuplc-poll, else the installed librtuplc.so.2)

Driver properties (property text id#localWrite#0#retries#gap, default 1#0#0#3#64):
  --station N            station of items without @N (default 1)
  --retries N            attempts per frame before a request fails, 1..100 (default 3)
  --gap N                largest gap read across between items, and largest write in
                         registers (default 64, at most 123)
  --local-write          writes change only what the driver shows; nothing is sent

Timing:
  --timeout MS           turnaround margin added to the transmission time of request
                         and reply at the line speed, 1..600000 (default 500); after a
                         time-out the line is kept quiet this long (plus twice the longest
                         response seen) before another request, so a late reply is
                         never taken for another request's
  --pause MS             pause between the end of one exchange and the next frame,
                         for devices that need a rest between requests, 0..600000
                         (default 0)
  --probe-interval T     a station whose request went unanswered after its retries is
                         offline: it is then tried once every T (e.g. 500ms, 5s, 1m;
                         default 5s), not polled, so it never slows the stations that
                         answer; its first good reply brings it back
  --probe-max T          the pause between tries doubles up to T while the station
                         stays silent (default 60s)

Output (a line per value when first read and when it changes):
  --hex                  values in hexadecimal
  --json                 one JSON object per line: values
                         {"station":1,"item":"D_W","address":100,"value":1234}
                         (a typed one with "type" and its registers as "raw")
                         and failed requests {"error":"1#D_W100(10)","result":2};
                         other messages go to standard error
  --watch                a live table, redrawn in place
  --verbose              every frame sent and received, in hex, on standard error,
                         and every reply dropped (late, doubled, foreign, malformed)
                         with the reason
  --csv FILE             also a row per value change and per change of quality to
                         FILE (appended; header time,station,item,address,value,
                         raw,quality; times ISO 8601 UTC), for a spreadsheet

Run (default: until Ctrl-C, then summary lines: frames and replies, and the replies
dropped because they did not answer the request in flight):
  --once                 poll every block once, print every value, exit
  --count N              stop after N rounds over every block
  --duration S           stop after S seconds

Writes and recipes:
  --write ITEM=VALUE     write through the driver and confirm by the next poll;
                         negative values are written as two's complement, a typed
                         value as its registers (repeatable), e.g.
                         --write D_D:200=-5 --write D_W:100:float32=21.5
  --recipe FILE          recipe variables, lines AREA:ADDRESS,LENGTH,OFFSET: length in
                         bits, or in 16-bit registers (a 32-bit value takes two);
                         offset in 16-bit words of the recipe buffer
  --recipe-download VALUES.csv   write the recipe to the controller; lines
                         AREA:ADDRESS,VALUE, one per value of the recipe
  --recipe-upload OUT.csv        read the recipe back into OUT.csv (same form);
                         after a download in the same run it is a round trip

Other:
  --version              print the version and exit
  --help                 this text

Exit codes:
  0  every request went through, every write was confirmed
  1  a request failed, a write was not confirmed, or a recipe transfer failed
  2  bad command line, item, value or file
  3  the driver library cannot be loaded or lacks an intf_* function
  4  the serial line or the TCP connection cannot be opened

Examples:
  rtuplc-poll D_W:0..4 X:0..7 --duration 5          the built-in simulator
  rtuplc-poll --serial /dev/ttyUSB0 --line 19200,8,EVEN,1 --station 3 D_W:100..109
  rtuplc-poll --tcp 192.168.0.20:8000 --once --json D_D:200 32C:200..203
  rtuplc-poll --tcp gateway --watch M:0..15 D_W:0..9
  rtuplc-poll --serial /dev/ttyUSB0 --write D_W:100=1234 --write 32C:201=70000 --once
  rtuplc-poll --recipe r.csv --recipe-download values.csv --recipe-upload back.csv
)USAGE";

namespace {

using namespace rtuhost;

std::string range(long lo, long hi)
{
    return std::to_string(lo) + ".." + std::to_string(hi);
}

bool toLong(const std::string &s, long lo, long hi, long *out)
{
    char *end = nullptr;
    const long v = std::strtol(s.c_str(), &end, 10);
    if (s.empty() || *end != '\0' || v < lo || v > hi)
        return false;
    *out = v;
    return true;
}

} // namespace

bool parseOptions(int argc, char **argv, Options *o, std::string *error)
{
    const auto fail = [&](const std::string &why) {
        *error = why;
        return false;
    };
    bool linkGiven = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        std::string v;
        const auto value = [&]() {
            if (i + 1 >= argc)
                return false;
            v = argv[++i];
            return true;
        };
        long n = 0;
        if (a == "--help" || a == "-h") {
            o->help = true;
        } else if (a == "--version") {
            o->version = true;
        } else if (a == "--tcp" || a == "--serial") {
            if (linkGiven)
                return fail("give one connection: --tcp or --serial");
            linkGiven = true;
            if (!value())
                return fail(a + " needs " + (a == "--tcp" ? "HOST[:PORT]" : "a device"));
            if (a == "--serial") {
                o->link = Options::Link::Serial;
                o->device = v;
                continue;
            }
            o->link = Options::Link::Tcp;
            if (!parseHostPort(v, &o->host, &o->port, -1)) // -1: the driver's port, once it is loaded
                return fail("--tcp: \"" + v + "\" is not HOST[:PORT] with a port " + range(kLowestPort, kHighestPort) +
                            ", e.g. 127.0.0.1:8000 or [::1]:8000");
        } else if (a == "--line") {
            if (!value())
                return fail("--line needs e.g. 9600,8,EVEN,1");
            o->lineText = v;
        } else if (a == "--driver") {
            if (!value())
                return fail("--driver needs a path");
            o->driverPath = v;
        } else if (a == "--station") {
            if (!value() || !toLong(v, kLowestStation, kHighestStation, &n))
                return fail("--station takes a station " + range(kLowestStation, kHighestStation));
            o->station = int(n);
        } else if (a == "--retries") {
            if (!value() || !toLong(v, kMinRetries, kMaxRetries, &n))
                return fail("--retries takes " + range(kMinRetries, kMaxRetries) + " attempts");
            o->retries = int(n);
        } else if (a == "--gap") {
            if (!value() || !toLong(v, kMinGap, kMaxGap, &n))
                return fail("--gap takes " + range(kMinGap, kMaxGap) +
                            ": it is also the largest write, and a write frame carries at most " +
                            std::to_string(kMaxGap) + " registers");
            o->gap = int(n);
        } else if (a == "--local-write") {
            o->localWrite = true;
        } else if (a == "--timeout") {
            if (!value() || !toLong(v, kMinTimeoutMs, kMaxTimeoutMs, &n))
                return fail("--timeout takes " + range(kMinTimeoutMs, kMaxTimeoutMs) + " milliseconds");
            o->timeoutMs = int(n);
        } else if (a == "--pause") {
            if (!value() || !toLong(v, kMinPauseMs, kMaxPauseMs, &n))
                return fail("--pause takes " + range(kMinPauseMs, kMaxPauseMs) + " milliseconds");
            o->pauseMs = int(n);
        } else if (a == "--probe-interval" || a == "--probe-max") {
            std::chrono::milliseconds t{0};
            QString why;
            if (!value() || !rtuhost::parseInterval(QString::fromStdString(v), &t, &why))
                return fail(a + " takes a time, e.g. 5s or 500ms");
            (a == "--probe-interval" ? o->probeIntervalMs : o->probeMaxMs) = t.count();
        } else if (a == "--hex") {
            o->hex = true;
        } else if (a == "--json") {
            o->json = true;
        } else if (a == "--watch") {
            o->watch = true;
        } else if (a == "--csv") {
            if (!value() || v.empty())
                return fail("--csv needs a file, e.g. --csv line.csv");
            o->csvFile = v;
        } else if (a == "--verbose") {
            o->verbose = true;
        } else if (a == "--once") {
            o->once = true;
        } else if (a == "--count") {
            if (!value() || !toLong(v, 1, 1000000000, &n))
                return fail("--count takes a number of rounds, 1 or more");
            o->count = n;
        } else if (a == "--duration") {
            char *end = nullptr;
            if (!value() || (o->durationSeconds = std::strtod(v.c_str(), &end), *end != '\0') ||
                !(o->durationSeconds > 0 && o->durationSeconds <= 1e7))
                return fail("--duration takes a number of seconds above 0");
        } else if (a == "--write") {
            if (!value())
                return fail("--write needs ITEM=VALUE, e.g. --write D_W:100=1234");
            o->writes << QString::fromStdString(v);
        } else if (a == "--recipe" || a == "--recipe-download" || a == "--recipe-upload") {
            if (!value())
                return fail(a + " needs a file");
            QString &target = a == "--recipe"            ? o->recipe
                              : a == "--recipe-download" ? o->recipeDownload
                                                         : o->recipeUpload;
            target = QString::fromStdString(v);
        } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
            return fail("unknown option " + a);
        } else {
            o->items << QString::fromStdString(a);
        }
    }
    if (o->help || o->version)
        return true;
    if (o->json && o->watch)
        return fail("--json and --watch exclude each other");
    if (o->once && o->count > 0)
        return fail("--once and --count exclude each other: --once is --count 1, printing every value");
    if (!o->recipe.isEmpty() && o->recipeDownload.isEmpty() && o->recipeUpload.isEmpty())
        return fail("--recipe needs --recipe-download VALUES.csv or --recipe-upload OUT.csv");
    if (o->recipe.isEmpty() && (!o->recipeDownload.isEmpty() || !o->recipeUpload.isEmpty()))
        return fail("--recipe-download and --recipe-upload need --recipe FILE");
    if (o->items.isEmpty() && o->writes.isEmpty() && o->recipe.isEmpty())
        return fail("nothing to do: give items to poll, e.g. D_W:100..109 X:0..17");
    return true;
}

} // namespace rtupoll
