// A log of value changes to open in a spreadsheet: one row per change,
// "time,station,item,address,value,raw,quality", times in ISO 8601 UTC with
// milliseconds; raw, the words as read, only where a type made the value something else.
//
// Each row goes to the file with one write() on a file opened for appending, so a
// process that dies (even by kill -9) leaves every row it wrote whole: the kernel holds
// them. Rows are not flushed to the disk one by one: that would cost a disk flush per
// change on a line with hundreds of values moving; only a power cut can lose the last
// seconds, and a row cut short by one is ended on the next start, never the file.
#ifndef RTUPLC_HOST_CSV_LOG_H
#define RTUPLC_HOST_CSV_LOG_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace rtuhost {

using WallTime = std::chrono::system_clock::time_point;
using WallClock = std::function<WallTime()>;

struct CsvRow {
    WallTime time;
    int station = 1;
    std::string item;    // as the user named it
    std::string address; // in the area's notation, "D_W:100"
    std::string value;   // as published; empty: no value was ever read
    std::string raw;     // the words as read, where they differ from the value; else empty
    bool good = true;
};

struct CsvLogSettings {
    // Single file: the file itself. Daily: DIR/STEM, the files being DIR/STEM-YYYY-MM-DD.csv,
    // a new one each day at midnight UTC.
    std::string path;
    bool daily = false;
    // Daily: all the dated files together; the oldest are removed past it, never the
    // file being written. 0: no limit.
    uint64_t maxBytes = 0;
};

extern const char kCsvHeader[];

class CsvLog {
public:
    explicit CsvLog(CsvLogSettings settings, WallClock clock = &std::chrono::system_clock::now);
    ~CsvLog();
    CsvLog(const CsvLog &) = delete;
    CsvLog &operator=(const CsvLog &) = delete;

    // Opens (or creates, with the header) the file for now; false with a message.
    bool open(std::string *error);
    // One row; opens the next day's file first when the day changed.
    bool append(const CsvRow &row, std::string *error);
    std::string currentFile() const { return current_; }

private:
    void setAsideOtherColumns(const std::string &file);
    bool openFile(const std::string &file, std::string *error);
    bool writeAll(const std::string &text, std::string *error);
    std::string fileFor(WallTime t) const;
    void enforceCap();

    CsvLogSettings settings_;
    WallClock clock_;
    int fd_ = -1;
    std::string current_;
    uint64_t total_ = 0; // bytes of all the log's files, as last counted plus written
    bool onlyCurrentLeft_ = false;
};

// 2026-11-24T14:02:11.204Z
std::string isoUtc(WallTime t);
// A field as CSV needs it: quoted when it holds a comma, a quote or a line break.
std::string csvField(const std::string &text);
std::string csvLine(const CsvRow &row);

} // namespace rtuhost

#endif
