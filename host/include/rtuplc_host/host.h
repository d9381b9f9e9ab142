// The host's communication loop around the driver, shared by rtuplc-poll and
// rtuplc-gateway. It hands the driver its properties and what to poll, then serves
// intf_getSendFrame / transmit / intf_dealRcvFrame, settling writes and driving recipe
// transfers. It prints nothing: what happens (a value read, a request failed after its
// retries, a write settled, a frame exchanged) is reported to HostEvents.
//
// The line's time is shared out here. A station whose request went unanswered after
// its retries is offline: its items leave the driver's rotation and it is tried with a
// one-register one-shot read, once, now and then, until it answers. An item with an
// interval (Item::every) is kept out of the rotation too and read by itself, one-shot,
// each time it is due.
//
// The driver keeps its state in one global object, so a process has one Host.
#ifndef RTUPLC_HOST_HOST_H
#define RTUPLC_HOST_HOST_H

#include <QMutex>
#include <QString>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "driver_location.h"
#include "items.h"
#include "line_limits.h"
#include "line_share.h"
#include "link.h"
#include "recipe.h"

namespace rtuhost {

// The host memory block the driver reads its recipe commands from: a whole page of it,
// more than the RTUPLC_HOST_MEMORY_BYTES the driver needs.
constexpr size_t kHostMemoryBytes = 65536;
static_assert(kHostMemoryBytes >= size_t(RTUPLC_HOST_MEMORY_BYTES), "the driver's command bytes must fit");

struct HostSettings {
    int driverId = 1;
    int localWriteMode = 0;
    int retries = kDefaultRetries;
    int gap = kDefaultGap;
    rtusupport::SerialLine line; // for the timing of every exchange
    bool serial = false;         // keeps the silent interval
    std::chrono::milliseconds margin{kDefaultTimeoutMs};
    std::chrono::milliseconds pause{kDefaultPauseMs}; // between the end of one exchange and the next frame
    bool once = false;
    long count = 0; // passes over every block; 0: no bound
    std::chrono::milliseconds duration{0};
    // A write is done when the controller acknowledged it, or only once a later read
    // shows the value (rtuplc-poll's confirmation).
    bool confirmWrites = true;
    // A station whose request failed for want of an answer is offline: from then on it
    // gets one attempt every probeInterval, the pause doubling up to probeMax while it
    // stays silent, instead of costing the line its time-outs on every pass.
    std::chrono::milliseconds probeInterval{5000};
    std::chrono::milliseconds probeMax{60000};

    QString propertyText() const; // driverId#localWriteMode#0#retries#gap
};

struct Stats {
    uint64_t framesSent = 0;
    uint64_t accepted = 0;
    uint64_t retries = 0;
    uint64_t failures = 0;
    uint64_t finished = 0; // requests done, accepted or failed
    uint64_t polls = 0;    // poll reads done, accepted or failed
    std::chrono::microseconds cycleTotal{0};
    std::chrono::microseconds elapsed{0};
    uint64_t probes = 0;                     // single attempts sent to offline stations
    std::chrono::microseconds silentTime{0}; // line time spent on requests nobody answered
    LineStats line;                          // what the link dropped

    QString summary() const;
    // How late replies came and the time-out that would have taken them; empty if none.
    QString lateAdvice(std::chrono::milliseconds margin) const;
};

// The pace of the polling since the last look, for a status line or a statistics message
// told now and then: polls done since the previous call over the time since (since the
// meter was made, at the first call).
class PollRate {
public:
    explicit PollRate(Clock::time_point start = Clock::now()) : since_(start) {}
    double perSecond(const Stats &stats, Clock::time_point now = Clock::now());
    // When perSecond() was last asked: a caller that measures over a window waits from here.
    Clock::time_point since() const { return since_; }

private:
    uint64_t polls_ = 0;
    Clock::time_point since_;
};

// Why a request failed after its retries.
struct Failure {
    enum class Kind {
        NoReply,   // silence, or only bytes that did not answer it
        Exception, // the station answered, refusing it: it is alive
        BadReply,  // a reply came that failed the driver's check
        LinkDown,  // the frame could not be sent
    };
    Kind kind = Kind::NoReply;
    uint8_t exception = 0; // the exception code, for Exception
    QString driverText;    // the driver's description of the request: "9#D_W0(4)"
    QString block;         // the block as the user writes items: "D_W:0..3@9"
    QString why;           // for people: what happened, after how many attempts
};

enum class WriteOutcome {
    Refused,      // the driver took nothing: nothing is sent
    Local,        // local write mode: kept in the driver's cache, never sent
    Replaced,     // a later write to the same target replaced it before it was sent
    QueueFull,    // the driver's write queue was full and recycled its last entry
    Failed,       // the controller did not acknowledge it after the retries
    Broadcast,    // sent to every station; nobody answers a broadcast
    Acknowledged, // the controller acknowledged it (final unless confirmWrites)
    Confirmed,    // a later read shows the value written
    NotConfirmed, // a later read shows another value
    Unfinished,   // the run ended before it was settled
};
// A settled write is final: no other outcome follows for its id.
bool isFinal(WriteOutcome o, bool confirmWrites);

struct RecipeJob {
    const Recipe *recipe = nullptr;
    bool download = false;
    RecipeValues values; // to download
    QString uploadPath;  // empty: no upload
};

// What the loop reports. Every call comes from the thread that runs the loop.
class HostEvents {
public:
    virtual ~HostEvents();
    // A value read for the first time, or read different from the value reported last.
    virtual void valueRead(const Point &point, uint32_t value);
    // A poll read was accepted: every point it covers (Host::pointsIn) is current.
    virtual void blockRead(const FRAME_PRO &frame);
    // A request failed after its retries.
    virtual void requestFailed(const FRAME_PRO &frame, const Failure &failure);
    // A write moved on; detail is the value read for Confirmed and NotConfirmed, the
    // reason for Failed.
    virtual void writeSettled(uint64_t id, const WriteRequest &write, WriteOutcome outcome, const QString &detail);
    // Progress of a recipe transfer and anything else worth a line.
    virtual void note(const QString &text);
    // A frame was exchanged (for tracing): what was sent, what came, what was dropped.
    virtual void exchanged(const FRAME_PRO &frame, const Exchange &exchange);
    // After every turn of the loop.
    virtual void progress(const Stats &stats);
};

class Host {
public:
    Host(const DriverApi &api, Link &link, HostEvents &events, const HostSettings &settings);
    ~Host();

    // What to poll and the recipe to move; before start().
    void monitor(const std::vector<Item> &items);
    void recipe(const RecipeJob &job);
    // Queues a write: before start() it is handed to the driver when polling starts,
    // after it at once. Returns the id its outcomes are reported under.
    uint64_t write(const WriteRequest &write);
    // The id the next write() will return.
    uint64_t nextWriteId() const { return nextWriteId_; }
    // Other masters' requests, put on the line between this host's own: with requests
    // always waiting, this host's own polling keeps at least `pollShare` (0 to 1) of the
    // line's time. Before start(); null: the line is this host's alone.
    void share(LineShare *share, double pollShare = 0.5);

    // Serves the loop until the run is over or `stop` is set. Returns false when a
    // request failed, a write was not confirmed or a recipe transfer failed.
    bool run(const std::atomic<bool> &stop);

    // The same in steps, for a host with work of its own between exchanges:
    // start(); while (!stop) { ...; step(stop); } finish();
    void start();
    void step(const std::atomic<bool> &stop);
    bool finished() const;
    bool finish();

    const Stats &stats() const { return stats_; }
    // A station held offline and when it is tried next; none for a station answering.
    struct Silence {
        Clock::time_point nextProbe;
        std::chrono::milliseconds interval;
        QString why;          // the failure that took it offline
        bool probing = false; // a try is queued or on the line
    };
    const std::map<int, Silence> &offline() const { return offline_; }
    int blockCount() const { return plannedBlocks_; }
    std::chrono::microseconds timeoutFor(size_t frameBytes, size_t replyBytes) const;

    const std::vector<Point> &points() const { return points_; }
    // The points a request covers, by index into points().
    const std::vector<size_t> &pointsIn(const FRAME_PRO &f);
    // The point of a station, area and address, or -1.
    long pointIndex(int station, const QString &area, int address) const;
    // The index of a point that an event passed (one of points() itself), or -1: no
    // lookup, for a host that sees every value of a churning line.
    long indexOf(const Point &p) const
    {
        const std::less<const Point *> before;
        const Point *first = points_.data();
        return !before(&p, first) && before(&p, first + points_.size()) ? long(&p - first) : -1;
    }

private:
    struct PendingWrite {
        uint64_t id = 0;
        WriteRequest request;
        // Local: kept in the driver's cache only (local write mode), never sent.
        enum class State { Queued, Acknowledged, Confirmed, Failed, Local } state = State::Queued;
    };
    // The driver's write queue as this host filled it: a write waiting for the same
    // target is replaced and the last entry recycled when it is full, so the host
    // knows which of its writes a write frame carries.
    struct QueuedWrite {
        int station;
        QString area;
        int address;
        int count;
        uint64_t id; // the write it carries now
    };
    enum class RecipeStage { None, Waiting, Downloading, Uploading, Done };
    using UnitKey = std::tuple<int, QString, int>;       // station, cache prefix, unit
    using PointKey = std::tuple<int, QString, int>;      // station, item text, address
    using BlockKey = std::tuple<int, QString, int, int>; // station, area, start, length

    static void onChange(int driverId, int station, QString &item, int addr);
    void changed(int station, const QString &item, int addr);

    void issue(PendingWrite &w);
    void settle(uint64_t id, WriteOutcome outcome, const QString &detail = QString());
    PendingWrite *pending(uint64_t id);
    void serveOne(const std::atomic<bool> &stop);
    void afterRead(const FRAME_PRO &f);
    void afterWrite(const FRAME_PRO &f, bool ok, const QString &why);
    void showDirty();
    bool complete(const Point &p) const;
    bool covers(const FRAME_PRO &f, const Point &p) const;
    Failure whyFailed(const FRAME_PRO &f, const Exchange &x, std::chrono::microseconds timeout,
                      const QString &driverText, int attempts) const;
    QString blockOf(const FRAME_PRO &f, const QString &driverText) const;

    bool writesSettled() const;
    void countPass(const FRAME_PRO &f);
    void advanceRecipe();
    void setCommand(size_t byte);
    bool commandPending(size_t byte);
    void finishUpload();

    const DriverApi &api_;
    const Catalogue catalogue_; // to name a failed block in the areas' notation
    Link &link_;
    HostEvents &events_;
    HostSettings settings_;

    std::vector<unsigned char> memory_;
    std::vector<unsigned short> recipeBuffer_;
    QMutex memoryLock_;

    std::vector<Item> items_;
    std::vector<Point> points_;
    std::map<PointKey, size_t> pointIndex_;
    // The points of each station's area by address, for the driver's report of every
    // unit changed: tens of thousands a second on a churning line, mostly from the area
    // reported just before. Made from pointIndex_ when first asked after monitor().
    struct AreaPoints {
        int first = 0;                          // the lowest address
        std::vector<int32_t> dense;             // by address - first, -1 for none: when the addresses are close
        std::unordered_map<int, size_t> sparse; // when they are far apart
        long find(int address) const;
    };
    std::map<std::pair<int, QString>, AreaPoints> areaPoints_;
    const std::pair<const std::pair<int, QString>, AreaPoints> *lastArea_ = nullptr;
    bool areaPointsStale_ = true;
    // Points to report after the exchange, each once: dirtyMark_ says which are listed.
    std::vector<size_t> dirty_, reporting_;
    std::vector<uint32_t> values_; // of reporting_
    std::vector<bool> dirtyMark_;
    void markDirty(size_t point);
    void indexAreas();            // areaPoints_ from pointIndex_
    std::set<size_t> written_;    // changed by our own writes: shown once a read has them
    std::vector<uint32_t> shown_; // by point: the value reported last
    std::vector<bool> reported_;  // by point: reported at least once
    std::vector<bool> complete_;  // by point: every unit of it was read
    std::set<UnitKey> read_;      // units of the blocks read so far
    struct Block {
        std::vector<size_t> in;       // points it covers whole
        std::vector<size_t> touching; // points with a unit in it
        bool read = false;
    };
    // An item read at a pace of its own: not in the driver's rotation, but read once
    // (a one-shot read) each time it is due.
    struct SlowItem {
        size_t item;             // into items_
        QString prefix;          // of its area's cache
        int first = 0, end = 0;  // the units it covers
        Clock::time_point due{}; // the next read; never read: at once
        bool queued = false;     // with the driver, not yet settled
        bool seen = false;       // read or failed at least once
    };
    // How the request in progress is served: on the line with its retries; or once on
    // the line, its retries answered at once (a probe, or any request to an offline
    // station).
    enum class Way { Line, Once };
    Way chooseWay(const FRAME_PRO &f, bool poll);
    void goOffline(const FRAME_PRO &f, Clock::time_point now, const QString &why);
    void comeBack(int station);
    void remerge();
    void queueProbes();
    void queueSlowReads();
    void settleSlowReads(const FRAME_PRO &f, bool allOfStation);
    std::map<BlockKey, Block> blockIndex_;
    Block &block(const FRAME_PRO &f);
    // Each station's area's points (by cache prefix) in the order of their first unit,
    // and the most units a point takes: block() finds a block's points by a search.
    std::map<std::pair<int, QString>, std::vector<size_t>> unitOrder_;
    int widest_ = 1;
    bool unitOrderStale_ = true;
    int blocks_ = 0;        // monitored now: the stations online
    int plannedBlocks_ = 0; // monitored with every station

    std::deque<PendingWrite> writes_;
    std::deque<QueuedWrite> driverQueue_;
    uint64_t nextWriteId_ = 1;
    bool started_ = false;
    bool inWrite_ = false;

    RecipeJob job_;
    RecipeStage recipeStage_ = RecipeStage::None;
    bool recipeFailed_ = false;
    std::set<int> filledWords_;

    std::set<std::tuple<int, QString, int, int>> passBlocks_;
    long passes_ = 0;
    bool problems_ = false;

    Stats stats_;
    Clock::time_point startedAt_{};
    Clock::time_point requestStarted_{};
    bool requestOpen_ = false;
    bool retryPending_ = false;

    std::vector<SlowItem> slow_;
    std::map<int, Silence> offline_;
    Way way_ = Way::Line;
    bool probing_ = false; // the request in progress is an offline station's probe
    int attempt_ = 0;      // of the request in progress
    Exchange first_;       // what its one attempt on the line got (Way::Once)

    // Serves one of the other masters' requests when one waits and their turn has come;
    // false when the line went to this host's own.
    bool serveShared(const std::atomic<bool> &stop);
    void ageLineTimes();
    LineShare *share_ = nullptr;
    double pollShare_ = 0.5;
    // Line time spent lately on this host's own requests and on the others': the
    // others wait while theirs is above their share of the sum.
    std::chrono::microseconds ownTime_{0}, sharedTime_{0};
    bool ownIdle_ = false; // nothing of this host's own was due at the last turn
};

// Text for people.
const char *dropReasonText(DropReason r);
QString hexBytes(const uint8_t *b, size_t n);

// The frame trace both hosts print under --verbose (HostEvents::exchanged), a line
// each: "dropped HEX (why)" for every reply set aside, then "tx HEX" for the frame
// (noting when it was not sent again because a late answer to it came first) and
// "rx HEX" for the reply taken, empty after "rx" when none came. The simulator traces
// its side in the same words.
std::vector<std::string> traceLines(const FRAME_PRO &frame, const Exchange &exchange);

} // namespace rtuhost

#endif
