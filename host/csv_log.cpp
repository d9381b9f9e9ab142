#include "rtuplc_host/csv_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <vector>

namespace rtuhost {

const char kCsvHeader[] = "time,station,item,address,value,raw,quality\n";

namespace {

constexpr mode_t kFileMode = 0644;
constexpr const char kSuffix[] = ".csv";
constexpr size_t kDateLength = 10; // YYYY-MM-DD

std::tm utc(WallTime t)
{
    const std::time_t seconds = std::chrono::system_clock::to_time_t(t);
    std::tm tm{};
    gmtime_r(&seconds, &tm);
    return tm;
}

std::string systemError(const std::string &what, const std::string &file)
{
    return what + ' ' + file + ": " + std::strerror(errno);
}

} // namespace

std::string isoUtc(WallTime t)
{
    const std::tm tm = utc(t);
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count() % 1000;
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, int(ms < 0 ? ms + 1000 : ms));
    return text;
}

std::string csvField(const std::string &text)
{
    if (text.find_first_of(",\"\r\n") == std::string::npos)
        return text;
    std::string quoted = "\"";
    for (char c : text) {
        if (c == '"')
            quoted += '"';
        quoted += c;
    }
    return quoted + '"';
}

std::string csvLine(const CsvRow &row)
{
    std::string line = isoUtc(row.time);
    line += ',';
    line += std::to_string(row.station);
    line += ',';
    line += csvField(row.item);
    line += ',';
    line += csvField(row.address);
    line += ',';
    line += csvField(row.value);
    line += ',';
    line += csvField(row.raw);
    line += row.good ? ",good\n" : ",bad\n";
    return line;
}

CsvLog::CsvLog(CsvLogSettings settings, WallClock clock) : settings_(std::move(settings)), clock_(std::move(clock)) {}

CsvLog::~CsvLog()
{
    if (fd_ >= 0) {
        fsync(fd_); // a clean stop leaves everything on the disk
        close(fd_);
    }
}

std::string CsvLog::fileFor(WallTime t) const
{
    if (!settings_.daily)
        return settings_.path;
    const std::tm tm = utc(t);
    char date[32];
    std::snprintf(date, sizeof date, "%04d-%02d-%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday);
    return settings_.path + '-' + date + kSuffix;
}

bool CsvLog::open(std::string *error)
{
    return openFile(fileFor(clock_()), error);
}

bool CsvLog::writeAll(const std::string &text, std::string *error)
{
    // One call per row: with O_APPEND the row lands whole at the end, or not at all
    // when the process dies before the call.
    const ssize_t n = ::write(fd_, text.data(), text.size());
    if (n != ssize_t(text.size())) {
        if (n >= 0)
            errno = ENOSPC;
        *error = systemError("cannot write to", current_);
        return false;
    }
    total_ += text.size();
    return true;
}

bool CsvLog::openFile(const std::string &file, std::string *error)
{
    if (fd_ >= 0) {
        fsync(fd_); // the day's file is finished: it goes to the disk before the next starts
        close(fd_);
        fd_ = -1;
    }
    current_ = file;
    onlyCurrentLeft_ = false;
    const std::filesystem::path parent = std::filesystem::path(file).parent_path();
    std::error_code ec;
    if (!parent.empty())
        std::filesystem::create_directories(parent, ec);
    setAsideOtherColumns(file);
    fd_ = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kFileMode);
    if (fd_ < 0) {
        *error = systemError("cannot open", file);
        return false;
    }
    struct stat st {};
    fstat(fd_, &st);
    if (settings_.daily)
        enforceCap(); // counts the files, with this one
    if (st.st_size == 0)
        return writeAll(kCsvHeader, error);
    // A row cut short by a power cut is ended, so that the next row starts a line.
    char last = '\n';
    const int reader = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (reader >= 0) {
        if (pread(reader, &last, 1, st.st_size - 1) != 1)
            last = '\n';
        close(reader);
    }
    return last == '\n' || writeAll("\n", error);
}

void CsvLog::setAsideOtherColumns(const std::string &file)
{
    // A file begun by a version that wrote other columns keeps them: rows of ours under
    // its header would be read into the wrong columns. It is renamed FILE.1 (or the
    // next number free) and a new file begins.
    const int reader = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (reader < 0)
        return;
    char head[sizeof kCsvHeader] = {};
    const ssize_t n = ::read(reader, head, sizeof head - 1);
    close(reader);
    if (n <= 0 || std::string(head, size_t(n)) == kCsvHeader)
        return;
    for (int i = 1; i < 1000; ++i) {
        const std::string aside = file + '.' + std::to_string(i);
        struct stat st {};
        if (::stat(aside.c_str(), &st) != 0) {
            ::rename(file.c_str(), aside.c_str());
            return;
        }
    }
}

bool CsvLog::append(const CsvRow &row, std::string *error)
{
    const std::string file = fileFor(row.time);
    if (fd_ < 0 || file != current_) {
        if (!openFile(file, error))
            return false;
    }
    if (!writeAll(csvLine(row), error))
        return false;
    if (settings_.daily && settings_.maxBytes > 0 && total_ > settings_.maxBytes && !onlyCurrentLeft_)
        enforceCap();
    return true;
}

void CsvLog::enforceCap()
{
    namespace fs = std::filesystem;
    const fs::path stem(settings_.path);
    const std::string prefix = stem.filename().string() + '-';
    const fs::path dir = stem.parent_path().empty() ? fs::path(".") : stem.parent_path();
    std::vector<std::pair<std::string, uint64_t>> files; // the log's own dated files
    std::error_code ec;
    for (const fs::directory_entry &e : fs::directory_iterator(dir, ec)) {
        const std::string name = e.path().filename().string();
        if (name.size() == prefix.size() + kDateLength + sizeof kSuffix - 1 &&
            name.compare(0, prefix.size(), prefix) == 0 &&
            name.compare(name.size() - (sizeof kSuffix - 1), sizeof kSuffix - 1, kSuffix) == 0 && e.is_regular_file(ec))
            files.emplace_back(e.path().string(), e.file_size(ec));
    }
    // The date in the name sorts them oldest first.
    std::sort(files.begin(), files.end());
    total_ = 0;
    for (const auto &f : files)
        total_ += f.second;
    if (settings_.maxBytes == 0)
        return;
    for (const auto &f : files) {
        if (total_ <= settings_.maxBytes)
            break;
        if (fs::path(f.first) == fs::path(current_))
            continue;
        if (fs::remove(f.first, ec))
            total_ -= f.second;
    }
    // Today's file alone is over the limit: nothing more to remove until the next day.
    onlyCurrentLeft_ = total_ > settings_.maxBytes;
}

} // namespace rtuhost
