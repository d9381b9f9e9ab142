// The host's communication loop around the driver: what a panel runtime does, on the
// command line. It hands the driver its properties and what to poll, then serves
// intf_getSendFrame / transmit / intf_dealRcvFrame until the run is over, printing
// values as the driver reports them, settling writes and driving recipe transfers.
#ifndef RTUPLC_POLL_HOST_H
#define RTUPLC_POLL_HOST_H

#include <QMutex>
#include <QString>

#include <atomic>
#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <tuple>
#include <vector>

#include "driver_location.h"
#include "items.h"
#include "link.h"
#include "output.h"
#include "recipe.h"

namespace rtupoll {

// The host memory block the driver reads its recipe commands from: a whole page of it,
// more than the RTUPLC_HOST_MEMORY_BYTES the driver needs.
constexpr size_t kHostMemoryBytes = 65536;
static_assert(kHostMemoryBytes >= size_t(RTUPLC_HOST_MEMORY_BYTES), "the driver's command bytes must fit");

struct HostSettings {
    int driverId = 1;
    int localWriteMode = 0;
    int retries = 3;
    int gap = 64;
    rtusupport::SerialLine line;         // for the timing of every exchange
    bool serial = false;             // keeps the silent interval
    std::chrono::milliseconds margin{500};
    std::chrono::milliseconds pause{0}; // between the end of one exchange and the next frame
    bool once = false;
    long count = 0;                  // passes over every block; 0: no bound
    std::chrono::milliseconds duration{0};
    bool verbose = false;

    QString propertyText() const;    // driverId#localWriteMode#0#retries#gap
};

struct Stats {
    uint64_t framesSent = 0;
    uint64_t accepted = 0;
    uint64_t retries = 0;
    uint64_t failures = 0;
    uint64_t finished = 0;           // requests done, accepted or failed
    std::chrono::microseconds cycleTotal{0};
    std::chrono::microseconds elapsed{0};
    LineStats line;                  // what the link dropped

    QString summary() const;
    // How late replies came and the time-out that would have taken them; empty if none.
    QString lateAdvice(std::chrono::milliseconds margin) const;
};

struct RecipeJob {
    const Recipe *recipe = nullptr;
    bool download = false;
    RecipeValues values;             // to download
    QString uploadPath;              // empty: no upload
};

class Host {
public:
    Host(const DriverApi &api, Link &link, Output &output, const HostSettings &settings);
    ~Host();

    // What to poll, what to write, and the recipe to move; before run().
    void monitor(const std::vector<Item> &items);
    void write(const std::vector<WriteRequest> &writes);
    void recipe(const RecipeJob &job);

    // Serves the loop until the run is over or `stop` is set. Returns false when a
    // request failed, a write was not confirmed or a recipe transfer failed.
    bool run(const std::atomic<bool> &stop);
    const Stats &stats() const { return stats_; }
    int blockCount() const { return blocks_; }
    std::chrono::microseconds timeoutFor(size_t frameBytes, size_t replyBytes) const;

private:
    struct PendingWrite {
        WriteRequest request;
        // Local: kept in the driver's cache only (local write mode), never sent.
        enum class State { Queued, Acknowledged, Confirmed, Failed, Local } state = State::Queued;
    };
    enum class RecipeStage { None, Waiting, Downloading, Uploading, Done };
    using UnitKey = std::tuple<int, QString, int>; // station, cache prefix, unit
    using PointKey = std::tuple<int, QString, int>; // station, item text, address

    static void onChange(int driverId, int station, QString &item, int addr);
    void changed(int station, const QString &item, int addr);

    void serveOne(const std::atomic<bool> &stop);
    void afterRead(const FRAME_PRO &f);
    void afterWrite(const FRAME_PRO &f, bool ok);
    void showDirty();
    bool complete(const Point &p) const;
    bool covers(const FRAME_PRO &f, const Point &p) const;
    QString whyFailed(const FRAME_PRO &f, const Exchange &x, std::chrono::microseconds timeout) const;

    bool writesSettled() const;
    void countPass(const FRAME_PRO &f);
    void advanceRecipe();
    void setCommand(size_t byte);
    bool commandPending(size_t byte);
    void finishUpload();
    bool finished() const;
    QString status() const;

    const DriverApi &api_;
    Link &link_;
    Output &out_;
    HostSettings settings_;

    std::vector<unsigned char> memory_;
    std::vector<unsigned short> recipeBuffer_;
    QMutex memoryLock_;

    std::vector<Item> items_;
    std::vector<Point> points_;
    std::map<PointKey, size_t> pointIndex_;
    std::set<size_t> dirty_;
    std::map<size_t, uint32_t> shown_;
    std::set<UnitKey> read_;
    int blocks_ = 0;

    std::vector<PendingWrite> writes_;

    RecipeJob job_;
    RecipeStage recipeStage_ = RecipeStage::None;
    bool recipeFailed_ = false;
    std::set<int> filledWords_;

    std::set<std::tuple<int, QString, int, int>> passBlocks_;
    bool passOpen_ = false;
    long passes_ = 0;
    bool problems_ = false;

    Stats stats_;
    Clock::time_point started_{};
    Clock::time_point requestStarted_{};
    bool requestOpen_ = false;
    bool retryPending_ = false;
};

} // namespace rtupoll

#endif
