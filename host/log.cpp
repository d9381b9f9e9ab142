#include "rtuplc_host/log.h"

#include <sys/stat.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace rtuhost {
namespace {

const char *program = "rtuplc";

// JOURNAL_STREAM is "DEVICE:INODE" of the stream systemd connected; stderr is the journal
// only if it is still that stream (a shell redirect inside the unit replaces it).
bool stderrIsJournal()
{
    const char *stream = std::getenv("JOURNAL_STREAM");
    unsigned long long device = 0, inode = 0;
    if (!stream || std::sscanf(stream, "%llu:%llu", &device, &inode) != 2)
        return false;
    struct stat st;
    return fstat(2, &st) == 0 && st.st_dev == device && st.st_ino == inode;
}

void logv(LogPriority priority, const char *format, va_list args)
{
    char text[1024];
    std::vsnprintf(text, sizeof text, format, args);
    logMessage(priority, text);
}

} // namespace

void setLogProgram(const char *name)
{
    program = name;
}

bool logToJournal()
{
    static const bool journal = stderrIsJournal();
    return journal;
}

void logMessage(LogPriority priority, const std::string &text)
{
    // Threads (the web server's, the broker client's) log too: one line stays one line.
    static std::mutex lock;
    const std::lock_guard<std::mutex> hold(lock);
    if (logToJournal())
        std::fprintf(stderr, "<%d>%s\n", int(priority), text.c_str());
    else
        std::fprintf(stderr, "%s: %s\n", program, text.c_str());
    std::fflush(stderr);
}

#define RTUPLC_LOG_FUNCTION(name, priority)                                                                            \
    void name(const char *format, ...)                                                                                 \
    {                                                                                                                  \
        va_list args;                                                                                                  \
        va_start(args, format);                                                                                        \
        logv(priority, format, args);                                                                                  \
        va_end(args);                                                                                                  \
    }
RTUPLC_LOG_FUNCTION(logError, LogPriority::Error)
RTUPLC_LOG_FUNCTION(logWarning, LogPriority::Warning)
RTUPLC_LOG_FUNCTION(logNotice, LogPriority::Notice)
RTUPLC_LOG_FUNCTION(logInfo, LogPriority::Info)
RTUPLC_LOG_FUNCTION(logDebug, LogPriority::Debug)
#undef RTUPLC_LOG_FUNCTION

} // namespace rtuhost
