// rtuplc-poll: the reference host. Loads the driver, polls the controller through it
// and prints what the driver reports.

#include <atomic>
#include <cstdio>
#include <iostream>

#include "options.h"
#include "output.h"
#include "report.h"
#include "rtuplc_host/csv_log.h"
#include "rtuplc_host/host.h"
#include "rtuplc_host/log.h"
#include "rtuplc_host/program.h"
#include "rtuplc_host/stop_signals.h"
#include "rtuplc_support/simulator.h"

using namespace rtupoll;
using namespace rtuhost;

namespace {

const char kProgram[] = "rtuplc-poll";

int fail(int code, const QString &message)
{
    logError("%s", qPrintable(message));
    if (code == kExitUsage)
        logError("(%s --help explains the options)", kProgram);
    return code;
}

} // namespace

int main(int argc, char **argv)
{
    setLogProgram(kProgram);
    Options o;
    std::string why;
    if (!parseOptions(argc, argv, &o, &why))
        return fail(kExitUsage, QString::fromStdString(why));
    if (o.help) {
        std::cout << kUsage;
        return kExitOk;
    }
    if (o.version) {
        std::cout << versionLine(kProgram) << '\n';
        return kExitOk;
    }

    DriverApi api;
    const std::string driverPath = o.driverPath.empty() ? defaultDriver() : o.driverPath;
    if (!loadDriver(driverPath, &api, &why, o.driverPath.empty()))
        return fail(kExitDriver, QString::fromStdString(why));
    const DriverDefaults defaults = driverDefaults(api);

    rtusupport::SerialLine line;
    const std::string lineText = o.lineText.empty() ? defaults.line : o.lineText;
    if (!rtusupport::parseSerialLine(lineText, &line, &why))
        return fail(o.lineText.empty() ? kExitDriver : kExitUsage, QString::fromStdString(why));

    // Everything the user typed is checked by the driver before anything is sent.
    const Catalogue catalogue(api);
    QString error;
    std::vector<Item> items;
    for (const QString &text : o.items) {
        Item item;
        if (!parseTimedItem(text, o.station, catalogue, api, &item, &error))
            return fail(kExitUsage, error);
        items.push_back(item);
    }
    std::vector<WriteRequest> writes;
    for (const QString &text : o.writes) {
        WriteRequest w;
        if (!parseWrite(text, o.station, catalogue, api, &w, &error))
            return fail(kExitUsage, error);
        writes.push_back(w);
    }
    Recipe recipe;
    RecipeJob job;
    if (!o.recipe.isEmpty()) {
        if (!recipe.load(o.recipe, o.station, catalogue, api, &error))
            return fail(kExitUsage, error);
        job.recipe = &recipe;
        job.uploadPath = o.recipeUpload;
        job.download = !o.recipeDownload.isEmpty();
        if (job.download && !loadRecipeValues(o.recipeDownload, recipe, o.station, catalogue, api, &job.values, &error))
            return fail(kExitUsage, error);
    }

    // The line: the built-in simulator unless the user named one.
    rtusupport::Simulator simulator;
    std::unique_ptr<Link> link;
    QString linkNote;
    if (o.link == Options::Link::Serial) {
        link = makeSerialLink(o.device, line);
    } else if (o.link == Options::Link::Tcp) {
        link = makeTcpLink(o.host, o.port > 0 ? o.port : defaults.port);
    } else {
        simulator.fill(rtusupport::Fill::Pattern);
        simulator.setAnimate(true);
        simulator.setPacing(line);
        if (!simulator.startTcp("127.0.0.1", 0, &why))
            return fail(kExitLink, QStringLiteral("cannot start the built-in simulator: %1").arg(why.c_str()));
        link = makeTcpLink("127.0.0.1", simulator.tcpPort());
        linkNote = QStringLiteral(" (the built-in simulator at the pace of the line; animated: D 0 counts, "
                                  "M 0 toggles, 32C 200 ramps)");
    }
    if (!link->open(&why))
        return fail(kExitLink, QString::fromStdString(why));

    Output out(o.json ? Output::Mode::Json : o.watch ? Output::Mode::Watch : Output::Mode::Lines, o.hex);
    HostSettings settings;
    settings.localWriteMode = o.localWrite ? 1 : 0;
    settings.retries = o.retries;
    settings.gap = o.gap;
    settings.line = line;
    settings.serial = o.link == Options::Link::Serial;
    settings.margin = std::chrono::milliseconds(o.timeoutMs);
    settings.pause = std::chrono::milliseconds(o.pauseMs);
    settings.probeInterval = std::chrono::milliseconds(o.probeIntervalMs);
    settings.probeMax = std::chrono::milliseconds(std::max(o.probeMaxMs, o.probeIntervalMs));
    settings.once = o.once;
    settings.count = o.count;
    settings.duration = std::chrono::milliseconds(static_cast<long long>(o.durationSeconds * 1000));

    Report report(out, o.verbose);
    Host host(api, *link, report, settings);
    // A single file for a run at the cabinet; the gateway keeps a file per day.
    CsvLog csv(CsvLogSettings{o.csvFile, false, 0});
    if (!o.csvFile.empty()) {
        if (!csv.open(&why))
            return fail(kExitUsage, QStringLiteral("--csv: %1").arg(QString::fromStdString(why)));
        report.logTo(&csv);
    }
    host.monitor(items);
    for (const WriteRequest &w : writes)
        host.write(w);
    host.recipe(job);
    report.track(host, items);
    out.setValues(report.labels(), report.stations());

    // What is in force, since our defaults (9600 baud, even parity, port 8000) are
    // not what other Modbus tools assume.
    out.plain(QStringLiteral("%1: driver %2 (%3 %4)")
                  .arg(QLatin1String(kProgram), QString::fromStdString(api.path), QString::fromStdString(defaults.name),
                       api.getVersion()));
    out.plain(QStringLiteral("link: %1%2").arg(QString::fromStdString(link->describe()), linkNote));
    out.plain(QStringLiteral("line: %1, %2 bits a character%3; reply timeout: transmission time + %4 ms")
                  .arg(QString::fromStdString(rtusupport::formatSerialLine(line)))
                  .arg(rtusupport::bitsPerCharacter(line))
                  .arg(settings.serial ? QStringLiteral(", silent interval %1 ms")
                                             .arg(rtusupport::silentInterval(line).count() / 1000.0, 0, 'f', 2)
                                       : QString())
                  .arg(o.timeoutMs));
    out.plain(QStringLiteral("pause between exchanges: %1 ms; after a time-out the line is kept quiet for up to %2 ms "
                             "(twice the longest response seen once answers are timed, growing with the slave's "
                             "response time, at most %3 s) before the next frame; a silent station is tried once "
                             "every %4 s, then less often, down to every %5 s")
                  .arg(o.pauseMs)
                  .arg(link->guard().count() / 1000.0, 0, 'f', 1)
                  .arg(Link::kMaxGuard.count())
                  .arg(settings.probeInterval.count() / 1000.0)
                  .arg(settings.probeMax.count() / 1000.0));
    out.plain(QStringLiteral("station %1, property text %2").arg(o.station).arg(settings.propertyText()));

    const std::atomic<bool> &stop = stopOnSignals();
    const bool ok = host.run(stop);
    out.refresh(Report::status(host.stats()), true);
    out.plain(host.stats().summary());
    if (const QString late = host.stats().lateAdvice(settings.margin); !late.isEmpty())
        out.plain(late);
    return ok ? kExitOk : kExitFailed;
}
