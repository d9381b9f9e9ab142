// The CSV log: rows a spreadsheet reads back as written, a file per day, the oldest
// days removed past the size limit, and a file found at start appended to when it is
// ours, even after a row cut short, and set aside when it is not.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "rtuplc_host/csv_log.h"

using namespace rtuhost;
namespace fs = std::filesystem;
using std::chrono::hours;
using std::chrono::milliseconds;

namespace {

// 2026-11-24T23:59:59.250Z
const WallTime kLateEvening = WallTime(std::chrono::seconds(1795564799)) + milliseconds(250);

std::string slurp(const fs::path &p)
{
    std::ifstream in(p);
    return {std::istreambuf_iterator<char>(in), {}};
}

struct TempDir {
    fs::path path = fs::temp_directory_path() / ("csv_log_test_" + std::to_string(::getpid()) + '_' +
                                                 ::testing::UnitTest::GetInstance()->current_test_info()->name());
    TempDir() { fs::create_directories(path); }
    ~TempDir() { fs::remove_all(path); }
};

CsvRow row(WallTime t, uint32_t value)
{
    return CsvRow{t, 2, "D_W:100..109@2", "D_W:100", std::to_string(value), "", true};
}

} // namespace

TEST(CsvLog, LinesReadBackAsWritten)
{
    struct Case {
        const char *what;
        CsvRow row;
        const char *line; // after the time, 2026-11-24T23:59:59.250Z (ms kept)
    };
    const WallTime t = kLateEvening;
    const Case cases[] = {
        // clang-format off
        {"a good value", row(t, 1234), "2,D_W:100..109@2,D_W:100,1234,,good\n"},
        {"a bad value keeps its last reading", CsvRow{t, 1, "pump", "X:17", "1", "", false}, "1,pump,X:17,1,,bad\n"},
        {"never read: empty value", CsvRow{t, 1, "t", "D_W:0", "", "", false}, "1,t,D_W:0,,,bad\n"},
        {"a name with a comma and quotes is quoted", CsvRow{t, 1, "tank \"A\", level", "D_W:0", "7", "", true},
         "1,\"tank \"\"A\"\", level\",D_W:0,7,,good\n"},
        {"a typed value beside its words; a string quoted", CsvRow{t, 3, "n", "D_W:300", "a,b", "24876 11362", true},
         "3,n,D_W:300,\"a,b\",24876 11362,good\n"},
        // clang-format on
    };
    for (const Case &c : cases)
        EXPECT_EQ(csvLine(c.row), std::string("2026-11-24T23:59:59.250Z,") + c.line) << c.what;
}

TEST(CsvLog, ADayPerFileWithOneHeaderEach)
{
    TempDir dir;
    WallTime now = kLateEvening;
    CsvLog log(CsvLogSettings{(dir.path / "rtuplc-line1").string(), true, 0}, [&] { return now; });
    std::string error;
    ASSERT_TRUE(log.open(&error)) << error;
    ASSERT_TRUE(log.append(row(now, 1), &error)) << error;
    now += milliseconds(800); // past midnight UTC
    ASSERT_TRUE(log.append(row(now, 2), &error)) << error;
    ASSERT_TRUE(log.append(row(now, 3), &error)) << error;

    const std::string first = slurp(dir.path / "rtuplc-line1-2026-11-24.csv");
    const std::string second = slurp(dir.path / "rtuplc-line1-2026-11-25.csv");
    EXPECT_EQ(first, std::string(kCsvHeader) + csvLine(row(kLateEvening, 1)));
    EXPECT_EQ(second, std::string(kCsvHeader) + csvLine(row(now, 2)) + csvLine(row(now, 3)));
    EXPECT_EQ(log.currentFile(), (dir.path / "rtuplc-line1-2026-11-25.csv").string());
}

// A file found at start: ours is appended to without a second header, the start of a
// row a power cut left ended first; one begun with other columns (an older version's)
// is set aside as FILE.1, not given rows under a heading they do not fit.
TEST(CsvLog, AFileFoundAtStartIsAppendedToOrSetAside)
{
    const std::string ours = std::string(kCsvHeader) + csvLine(row(kLateEvening, 1)), cut = "2026-11-24T23:5";
    const std::string older = "time,station,item,address,value,quality\n"
                              "2026-11-24T23:00:00.000Z,2,D_W:100,D_W:100,7,good\n";
    const std::string added = csvLine(row(kLateEvening, 2));
    const struct {
        const char *what;
        std::string found, after, setAside;
    } cases[] = {
        {"ours, cut short", ours + cut, ours + cut + "\n" + added, ""},
        {"begun with other columns", older, std::string(kCsvHeader) + added, older},
    };
    for (const auto &c : cases) {
        TempDir dir;
        const fs::path file = dir.path / "poll.csv";
        std::ofstream(file) << c.found;
        CsvLog log(CsvLogSettings{file.string(), false, 0}, [] { return kLateEvening; });
        std::string error;
        ASSERT_TRUE(log.append(row(kLateEvening, 2), &error)) << error;
        EXPECT_EQ(slurp(file), c.after) << c.what;
        EXPECT_EQ(slurp(file.string() + ".1"), c.setAside) << c.what;
    }
}

TEST(CsvLog, SizeCapRemovesOldestDaysNeverToday)
{
    struct Case {
        const char *what;
        uint64_t maxBytes;
        std::vector<std::string> kept; // dates, oldest first
    };
    // Five days of ten rows each; a day's file is about 600 bytes.
    const Case cases[] = {
        // clang-format off
        {"no limit keeps all", 0, {"2026-11-20", "2026-11-21", "2026-11-22", "2026-11-23", "2026-11-24"}},
        {"room for three days", 2000, {"2026-11-22", "2026-11-23", "2026-11-24"}},
        {"a limit under one day keeps today", 10, {"2026-11-24"}},
        // clang-format on
    };
    for (const Case &c : cases) {
        TempDir dir;
        // Another log's file in the same folder is not ours to remove.
        std::ofstream(dir.path / "rtuplc-other-2026-11-01.csv") << "x\n";
        WallTime now = kLateEvening - hours(24 * 4);
        CsvLog log(CsvLogSettings{(dir.path / "rtuplc-line1").string(), true, c.maxBytes}, [&] { return now; });
        std::string error;
        for (int day = 0; day < 5; ++day, now += hours(24))
            for (uint32_t v = 0; v < 10; ++v)
                ASSERT_TRUE(log.append(row(now, v), &error)) << error;
        std::vector<std::string> kept;
        for (const char *date : {"2026-11-20", "2026-11-21", "2026-11-22", "2026-11-23", "2026-11-24"})
            if (fs::exists(dir.path / (std::string("rtuplc-line1-") + date + ".csv")))
                kept.push_back(date);
        EXPECT_EQ(kept, c.kept) << c.what;
        EXPECT_TRUE(fs::exists(dir.path / "rtuplc-other-2026-11-01.csv")) << c.what;
    }
}

TEST(CsvLog, UnwritableFolderIsAnErrorNotACrash)
{
    CsvLog log(CsvLogSettings{"/proc/no-such/poll.csv", false, 0});
    std::string error;
    EXPECT_FALSE(log.append(row(kLateEvening, 1), &error));
    EXPECT_NE(error.find("/proc/no-such/poll.csv"), std::string::npos) << error;
}
