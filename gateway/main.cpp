// rtuplc-gateway: polls one line through the driver and publishes its values on an
// MQTT broker, takes writes from it with an answer for each, and keeps running through
// line faults, broker restarts and bad input.
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <iostream>
#include <string>

#include "config.h"
#include "gateway.h"
#include "plan.h"
#include "rtuplc_host/host.h"
#include "rtuplc_host/log.h"
#include "rtuplc_host/stop_signals.h"
#include "web_server.h"

using namespace rtugw;
using namespace rtuhost;

namespace {

constexpr int kExitOk = 0;
constexpr int kExitUsage = 2;  // bad configuration or command line
constexpr int kExitDriver = 3; // the driver cannot be loaded

const char kUsage[] = R"(Usage: rtuplc-gateway --config FILE [--check] [--verbose] [--driver PATH]

Polls one Modbus RTU line through the driver and publishes every value on an MQTT
broker, retained, with its quality; takes writes to items configured writable from
P/STATION/AREA/ADDRESS/set and answers each on .../result. One process serves one line.

  --config FILE   the line's configuration (YAML; see rtuplc-gateway(1) and the example)
  --check         check the configuration, print the plan (blocks, topics, writable
                  items) and exit; nothing is opened
  --verbose       log every frame exchanged and every reply dropped
  --driver PATH   the driver library (default: beside the program, else librtuplc.so.2)
  --help          this text

Exit status: 0 stopped by SIGTERM or SIGINT (after publishing offline), 2 bad
configuration or command line, 3 the driver cannot be loaded.
)";

int fail(int code, const std::string &message)
{
    logError("%s", message.c_str());
    if (code == kExitUsage && message.find(".yaml") == std::string::npos)
        std::cerr << "(rtuplc-gateway --help explains the options)\n";
    return code;
}

struct Args {
    std::string config, driver;
    bool check = false, verbose = false, help = false;
};

bool parseArgs(int argc, char **argv, Args *a, std::string *error)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const auto value = [&](std::string *out) {
            if (i + 1 >= argc) {
                *error = arg + " needs a value";
                return false;
            }
            *out = argv[++i];
            return true;
        };
        if (arg == "--config") {
            if (!value(&a->config))
                return false;
        } else if (arg == "--driver") {
            if (!value(&a->driver))
                return false;
        } else if (arg == "--check") {
            a->check = true;
        } else if (arg == "--verbose") {
            a->verbose = true;
        } else if (arg == "--help" || arg == "-h") {
            a->help = true;
        } else {
            *error = "unknown option " + arg;
            return false;
        }
    }
    if (!a->help && a->config.empty()) {
        *error = "--config FILE is required";
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    setLogProgram("rtuplc-gateway");
    Args args;
    std::string why;
    if (!parseArgs(argc, argv, &args, &why))
        return fail(kExitUsage, why);
    if (args.help) {
        std::cout << kUsage;
        return kExitOk;
    }

    Config config;
    if (!loadConfig(args.config, &config, &why) || !WebPage::checkConfig(config, &why))
        return fail(kExitUsage, why);

    DriverApi api;
    const std::string driverPath = args.driver.empty() ? defaultDriver() : args.driver;
    if (!loadDriver(driverPath, &api, &why, args.driver.empty()))
        return fail(kExitDriver, why);

    // Everything in the file is checked by the driver before anything is opened.
    const Catalogue catalogue(api);
    LinePlan plan;
    if (!makePlan(config, api, catalogue, &plan, &why))
        return fail(kExitUsage, why);
    if (args.check) {
        printPlan(config, api, catalogue, plan);
        std::printf("configuration %s: ok\n", config.file.c_str());
        return kExitOk;
    }

    const std::atomic<bool> &stop = stopOnSignals();
    // A broker or a browser that hangs up is an error to handle, not the service's death.
    signal(SIGPIPE, SIG_IGN);
    Gateway gateway(config, api, catalogue, plan, args.verbose);
    if (!gateway.start(&why))
        return fail(kExitUsage, why);
    gateway.run(stop);
    gateway.finish();
    return kExitOk;
}
