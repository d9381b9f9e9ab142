// What rtuplc-poll prints: a line per value change, JSON objects, or a live table.
#ifndef RTUPLC_POLL_OUTPUT_H
#define RTUPLC_POLL_OUTPUT_H

#include <QString>

#include <chrono>
#include <cstdint>
#include <deque>
#include <vector>

#include "rtuplc_host/items.h"

namespace rtupoll {

using rtuhost::Point;

// One value as rtuplc-poll shows it: a point's, or a typed one's over several.
struct Shown {
    Point point;   // where it starts
    QString label; // "D_W:100", "D_W:100.3", "D_D:200:float32"
    QString type;  // empty for a plain value
    int bit = -1;  // of a word
    QString text;  // for people
    QString json;  // the value in JSON
    QString raw;   // the registers, in JSON, where they differ; else empty
};

class Output {
public:
    enum class Mode { Lines, Json, Watch };

    Output(Mode mode, bool hex);

    Mode mode() const { return mode_; }
    // The values of the live table, in the order given: their labels.
    void setValues(const std::vector<QString> &labels, const std::vector<int> &stations);

    // The value `row` of the table shown for the first time or changed.
    void value(size_t row, const Shown &shown);
    // A request that failed: the block as items are written ("D_W:100..109@1") for
    // people, the driver's description ("1#D_W100(10)") for JSON, and why.
    void failed(const QString &block, const QString &driverText, const QString &why);
    // Anything else worth a line: writes, recipes.
    void note(const QString &text);
    // Lines without a time stamp: settings at start, the summary at the end.
    void plain(const QString &text);
    // Redraws the live table (at most every few hundred milliseconds unless forced).
    void refresh(const QString &status, bool force = false);

    QString formatValue(const Point &point, uint32_t v) const;

private:
    struct Row {
        int station = 1;
        QString label;
        bool known = false;
        QString text;
        QString changedAt;
        int changes = 0;
    };

    Mode mode_;
    bool hex_;
    std::vector<Row> rows_;
    std::deque<QString> messages_;
    std::vector<QString> header_;
    std::chrono::steady_clock::time_point lastDraw_{};
    bool dirty_ = true;
    bool terminal_ = false;
};

QString timeStamp();
// A JSON string literal.
QString jsonString(const QString &s);

} // namespace rtupoll

#endif
