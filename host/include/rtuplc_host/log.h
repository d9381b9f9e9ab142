// The programs' one way to say something: a priority on every message, so that the
// journal tells a warning from a note (`journalctl -p warning` shows the warnings alone).
// When stderr is the journal (systemd sets JOURNAL_STREAM to its device and inode) each
// line carries the priority as "<N>" for the journal to read; on a terminal or in a file
// it reads "program: text". The host layer itself never logs: it reports events, and the
// programs decide what is worth saying.
#ifndef RTUPLC_HOST_LOG_H
#define RTUPLC_HOST_LOG_H

#include <string>

namespace rtuhost {

// The syslog priorities the journal filters on.
enum class LogPriority { Error = 3, Warning = 4, Notice = 5, Info = 6, Debug = 7 };

// The name put before each line off the journal ("rtuplc-gateway"); once, at start.
void setLogProgram(const char *name);
// Whether stderr is the journal; decided once, from the environment, at the first call.
bool logToJournal();

void logMessage(LogPriority priority, const std::string &text);

void logError(const char *format, ...) __attribute__((format(printf, 1, 2)));
void logWarning(const char *format, ...) __attribute__((format(printf, 1, 2)));
void logNotice(const char *format, ...) __attribute__((format(printf, 1, 2)));
void logInfo(const char *format, ...) __attribute__((format(printf, 1, 2)));
void logDebug(const char *format, ...) __attribute__((format(printf, 1, 2)));

} // namespace rtuhost

#endif
