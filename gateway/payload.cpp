#include "payload.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

#include <cmath>
#include <cstdio>
#include <ctime>

namespace rtugw {

namespace {

// A JSON number is a double: integers beyond 2^53 are not exact, so they are refused.
constexpr double kLargestExactInteger = 9007199254740992.0;

bool exactInteger(double d)
{
    return std::floor(d) == d && std::fabs(d) <= kLargestExactInteger;
}

} // namespace

int64_t msSinceEpoch(SystemTime t)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
}

std::string isoTime(int64_t ms)
{
    constexpr int kMsPerSecond = 1000;
    const std::time_t seconds = std::time_t(ms / kMsPerSecond);
    // A churning line stamps tens of thousands of values a second, all with the same date
    // and time of day: formatting them once a second instead of once a value took an
    // eighth of the poll loop's time off. Per thread, so any thread may ask.
    thread_local std::time_t cachedSecond = -1;
    thread_local char secondText[64]; // "YYYY-MM-DDTHH:MM:SS", room for any int the compiler fears
    if (seconds != cachedSecond) {
        std::tm utc{};
        gmtime_r(&seconds, &utc);
        std::snprintf(secondText, sizeof secondText, "%04d-%02d-%02dT%02d:%02d:%02d", utc.tm_year + 1900,
                      utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
        cachedSecond = seconds;
    }
    const int milli = int(ms % kMsPerSecond);
    std::string text = secondText;
    text += '.';
    text += char('0' + milli / 100);
    text += char('0' + milli / 10 % 10);
    text += char('0' + milli % 10);
    text += 'Z';
    return text;
}

std::string jsonString(const std::string &s)
{
    std::string out = "\"";
    for (const char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\u%04x", c);
            out += esc;
        } else {
            out += c;
        }
    }
    return out + '"';
}

namespace {

// The registers an update carries, as many as the type spans.
int wordsOf(const ValueUpdate &v, const ValueType &t, uint16_t *words)
{
    if (t.kind != rtuhost::ValueKind::String) {
        rtuhost::unpackWords(v.value, t.registers, words);
        return t.registers;
    }
    for (int i = 0; i < t.registers; ++i) {
        const auto byte = [&](size_t at) { return at < v.error.size() ? static_cast<unsigned char>(v.error[at]) : 0u; };
        words[i] = uint16_t(byte(size_t(2 * i)) << 8 | byte(size_t(2 * i + 1)));
    }
    return t.registers;
}

std::string rawText(const uint16_t *words, const ValueType &t, bool json)
{
    const std::string raw = rtuhost::rawText(t, words, json ? ',' : ' ');
    return json && t.kind == rtuhost::ValueKind::String ? '[' + raw + ']' : raw;
}

// Why a value is bad: a string's error comes after its registers.
std::string errorOf(const ValueUpdate &v, const ValueType &t)
{
    if (t.kind != rtuhost::ValueKind::String)
        return v.error;
    const size_t bytes = size_t(2 * t.registers);
    return v.error.size() > bytes ? v.error.substr(bytes) : std::string();
}

} // namespace

std::string readingJson(const rtuhost::Reading &r, const ValueType &t)
{
    if (r.invalid != nullptr)
        return "null";
    switch (r.form) {
    case rtuhost::Reading::Form::Boolean:
        return r.number != 0 ? "true" : "false";
    case rtuhost::Reading::Form::Text:
        return jsonString(r.text);
    default:
        return rtuhost::formatNumber(r.number, t);
    }
}

std::string valueJson(const ValueUpdate &v, const ValueType &t)
{
    std::string p;
    p.reserve(96);
    p += "{\"value\":";
    if (t.plain) {
        p += v.known ? std::to_string(v.value) : std::string("null");
    } else if (!v.known) {
        p += "null";
    } else {
        uint16_t words[rtuhost::kMaxStringRegisters];
        wordsOf(v, t, words);
        const std::string value = readingJson(rtuhost::decode(t, words), t);
        const std::string raw = rawText(words, t, true);
        p += value;
        if (raw != value) {
            p += ",\"raw\":";
            p += raw;
        }
    }
    p += v.good ? ",\"quality\":\"good\",\"ts\":\"" : ",\"quality\":\"bad\",\"ts\":\"";
    p += isoTime(v.ms);
    p += '"';
    if (!v.good) {
        p += ",\"error\":";
        p += jsonString(t.kind == rtuhost::ValueKind::String ? errorOf(v, t) : v.error);
    }
    p += '}';
    return p;
}

void valueTexts(const ValueUpdate &v, const ValueType &t, std::string *value, std::string *raw)
{
    value->clear();
    raw->clear();
    if (!v.known)
        return;
    if (t.plain) {
        *value = std::to_string(v.value);
        return;
    }
    uint16_t words[rtuhost::kMaxStringRegisters];
    wordsOf(v, t, words);
    const rtuhost::Reading r = rtuhost::decode(t, words);
    *raw = rawText(words, t, false);
    if (r.invalid == nullptr)
        *value = rtuhost::readingText(r, t);
    if (*raw == *value)
        raw->clear();
}

bool valueNumber(const ValueUpdate &v, const ValueType &t, double *number)
{
    if (!v.known || t.kind == rtuhost::ValueKind::String)
        return false;
    if (t.plain) {
        *number = v.value;
        return true;
    }
    uint16_t words[2];
    wordsOf(v, t, words);
    const rtuhost::Reading r = rtuhost::decode(t, words);
    *number = r.number;
    return r.invalid == nullptr;
}

ValueUpdate valueUpdate(size_t index, const ValueState &s)
{
    if (s.type.kind == rtuhost::ValueKind::String)
        return ValueUpdate{uint32_t(index), 0,      msSinceEpoch(s.ts),
                           s.known,         s.good, s.good ? s.words : s.words + s.error};
    return ValueUpdate{uint32_t(index), s.raw, msSinceEpoch(s.ts), s.known, s.good, s.good ? std::string() : s.error};
}

WriteRequestPayload parseWriteRequest(const std::string &payload)
{
    WriteRequestPayload r;
    const QByteArray body = QByteArray::fromStdString(payload);
    QJsonParseError parseError{};
    const QJsonDocument doc = QJsonDocument::fromJson(body, &parseError);
    if (!doc.isObject()) {
        // A bare value, as text: the value's type judges it.
        r.value = QString::fromUtf8(body).trimmed().toStdString();
        if (r.value.empty())
            r.error = "the payload is empty: send a number, or {\"value\":1234,\"id\":\"...\"}";
        return r;
    }
    const QJsonObject o = doc.object();
    const QJsonValue id = o.value(QLatin1String("id"));
    if (id.isString())
        r.idJson = jsonString(id.toString().toStdString());
    else if (id.isDouble())
        r.idJson = exactInteger(id.toDouble()) ? std::to_string(int64_t(id.toDouble()))
                                               : QString::number(id.toDouble(), 'g', 17).toStdString();
    else if (id.isBool())
        r.idJson = id.toBool() ? "true" : "false";
    const QJsonValue v = o.value(QLatin1String("value"));
    if (v.isDouble())
        r.value = exactInteger(v.toDouble()) ? std::to_string(int64_t(v.toDouble()))
                                             : QString::number(v.toDouble(), 'g', 17).toStdString();
    else if (v.isBool())
        r.value = v.toBool() ? "1" : "0";
    else if (v.isString()) {
        r.value = v.toString().toStdString();
        r.isText = true;
    } else
        r.error = "the payload has no value: send {\"value\":1234,\"id\":\"...\"}";
    return r;
}

std::string answerJson(const std::string &idJson, const WriteAnswer &a)
{
    if (a.ok)
        return "{\"id\":" + idJson + ",\"ok\":true,\"value\":" + a.valueJson + '}';
    return "{\"id\":" + idJson + ",\"ok\":false,\"error\":" + jsonString(a.error) + '}';
}

std::string statsJson(const rtuhost::Stats &h, const MqttStats &m, const WriteCounters &w, double pollsPerSecond,
                      long long uptimeSeconds)
{
    const uint64_t *d = h.line.dropped;
    char text[768];
    std::snprintf(text, sizeof text,
                  "{\"polls\":%llu,\"accepted\":%llu,\"retries\":%llu,\"failures\":%llu,"
                  "\"dropped\":{\"late\":%llu,\"doubled\":%llu,\"foreign\":%llu,\"malformed\":%llu},"
                  "\"polls_per_second\":%.1f,\"published\":%llu,\"held\":%llu,\"buffer_dropped\":%llu,"
                  "\"writes_ok\":%llu,\"writes_failed\":%llu,\"writes_refused\":%llu,\"uptime\":%lld}",
                  (unsigned long long)h.polls, (unsigned long long)h.accepted, (unsigned long long)h.retries,
                  (unsigned long long)h.failures, (unsigned long long)d[int(rtuhost::DropReason::Late)],
                  (unsigned long long)d[int(rtuhost::DropReason::Doubled)],
                  (unsigned long long)d[int(rtuhost::DropReason::Foreign)],
                  (unsigned long long)d[int(rtuhost::DropReason::Malformed)], pollsPerSecond,
                  (unsigned long long)m.published, (unsigned long long)m.held, (unsigned long long)m.dropped,
                  (unsigned long long)w.ok, (unsigned long long)w.failed, (unsigned long long)w.refused, uptimeSeconds);
    return text;
}

} // namespace rtugw
