#include "yaml_reader.h"

#include "rtuplc_host/address.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace rtugw {

namespace {

namespace fs = std::filesystem;

constexpr size_t kKiB = 1024;
constexpr size_t kMaxNamedFileBytes = 4 * kKiB * kKiB; // a CA bundle, with room to spare
constexpr size_t kMaxEchoed = 40;                      // a value quoted back in a message is cut here
constexpr size_t kMaxDigits = 18;                      // fits a long long, far beyond every range here

// The first line, up to `last` (0: any), indented with a tab; 0 when none. YAML takes
// only spaces there, and its parser's complaint about it does not say "tab".
int tabIndentedLine(const std::string &text, int last)
{
    int line = 1;
    for (size_t at = 0; at < text.size() && (last == 0 || line <= last); ++line) {
        const size_t end = std::min(text.find('\n', at), text.size());
        const size_t content = text.find_first_not_of(" \t", at);
        if (text.find('\t', at) < std::min(content, end))
            return line;
        at = end + 1;
    }
    return 0;
}

} // namespace

bool loadYaml(const std::string &path, size_t limit, YAML::Node *root, std::string *error)
{
    std::string text, why;
    if (!readFile(path, limit, &text, &why)) {
        *error = path + ": cannot read: " + why;
        return false;
    }
    Reader r{path, {}, error};
    try {
        const std::vector<YAML::Node> docs = YAML::LoadAll(text);
        if (docs.size() > 1)
            return r.fail(lineOf(docs[1]), "", "a second document (after ---): one configuration per file");
        *root = docs.empty() ? YAML::Node() : docs[0];
        return true;
    } catch (const YAML::ParserException &e) {
        const int tab = tabIndentedLine(text, e.mark.is_null() ? 0 : e.mark.line + 1);
        if (tab > 0)
            return r.fail(tab, "", "a tab: indent with spaces");
        *error =
            path +
            (e.mark.is_null() ? "" : ":" + std::to_string(e.mark.line + 1) + ":" + std::to_string(e.mark.column + 1)) +
            ": not valid YAML: " + e.msg;
    } catch (const std::exception &e) {
        *error = path + ": cannot be read as a configuration: " + e.what();
    }
    return false;
}

bool readFile(const std::string &path, size_t limit, std::string *text, std::string *why)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        *why = std::strerror(errno);
        return false;
    }
    char buf[4096];
    ssize_t n = 0;
    text->clear();
    why->clear();
    while (text->size() <= limit && (n = ::read(fd, buf, sizeof buf)) > 0)
        text->append(buf, size_t(n));
    const int readError = n < 0 ? errno : 0;
    ::close(fd);
    if (readError)
        *why = std::strerror(readError);
    else if (text->size() > limit)
        *why = "larger than " + std::to_string(limit / kKiB) + " KiB";
    return why->empty();
}

bool Reader::fail(int line, const std::string &key, const std::string &why)
{
    *error = file + (line > 0 ? ":" + std::to_string(line) : "") + ": " + (key.empty() ? "" : key + ": ") + why;
    return false;
}

bool Section::open(Reader &r, const YAML::Node &node, int line, const std::string &path, const std::string &what,
                   const Keys &known)
{
    path_ = path;
    line_ = line;
    if (node.IsNull())
        return true;
    if (!node.IsMap())
        return r.fail(line, path, "must be a mapping of keys (" + joined(known) + "), not " + describe(node));
    for (auto it = node.begin(); it != node.end(); ++it) {
        const int at = lineOf(it->first);
        if (!it->first.IsScalar())
            return r.fail(at, path, "a key must be text, not " + describe(it->first));
        const std::string key = it->first.Scalar();
        if (std::find(known.begin(), known.end(), key) == known.end())
            return r.fail(at, this->path(key), "unknown key (" + what + " takes: " + joined(known) + ")");
        const auto seen = entries_.find(key);
        if (seen != entries_.end())
            return r.fail(at, this->path(key),
                          "given twice (first on line " + std::to_string(lineOf(seen->second.key)) + ")");
        entries_[key] = Entry{it->first, it->second};
    }
    return true;
}

const Section::Entry *Section::find(const std::string &key) const
{
    const auto it = entries_.find(key);
    return it == entries_.end() ? nullptr : &it->second;
}

int Section::line(const std::string &key) const
{
    return find(key) ? lineOf(find(key)->key) : line_;
}

int lineOf(const YAML::Node &node)
{
    // yaml-cpp counts from 0, and a node the file does not have carries no mark at all.
    return node.Mark().is_null() ? 0 : node.Mark().line + 1;
}

std::string joined(const Keys &keys, const char *separator)
{
    std::string out;
    for (const std::string &k : keys)
        out += (out.empty() ? "" : separator) + k;
    return out;
}

std::string inQuotes(const std::string &text)
{
    return "\"" + (text.size() > kMaxEchoed ? text.substr(0, kMaxEchoed) + "..." : text) + "\"";
}

std::string describe(const YAML::Node &node)
{
    if (node.IsNull())
        return "nothing";
    if (node.IsSequence())
        return "a list";
    if (node.IsMap())
        return "a mapping";
    return inQuotes(node.Scalar());
}

bool parseNumber(const std::string &text, long long *out)
{
    const size_t digits = text.size() - (text.rfind('-', 0) == 0 ? 1 : 0);
    if (digits == 0 || digits > kMaxDigits ||
        !std::all_of(text.end() - long(digits), text.end(), [](unsigned char c) { return std::isdigit(c); }))
        return false;
    *out = std::stoll(text);
    return true;
}

bool readNumberIn(Reader &r, const Section &s, const char *key, long long lo, long long hi, const char *unit,
                  long long *out)
{
    const Section::Entry *e = s.find(key);
    if (e->value.IsScalar() && parseNumber(e->value.Scalar(), out) && *out >= lo && *out <= hi)
        return true;
    const std::string range = hi == lo + 1 ? std::to_string(lo) + " or " + std::to_string(hi)
                                           : std::string("a whole number") + (*unit ? " of " : "") + unit + " from " +
                                                 std::to_string(lo) + " to " + std::to_string(hi);
    return r.fail(lineOf(e->key), s.path(key), "must be " + range + ", not " + describe(e->value));
}

bool readReal(Reader &r, const Section &s, const char *key, double *out)
{
    const Section::Entry *e = s.find(key);
    if (!e)
        return true;
    const std::string text = e->value.IsScalar() ? e->value.Scalar() : std::string();
    char *end = nullptr;
    errno = 0;
    const double x = text.empty() ? 0 : std::strtod(text.c_str(), &end);
    if (text.empty() || end != text.c_str() + text.size() || errno == ERANGE || !std::isfinite(x) ||
        std::isspace(static_cast<unsigned char>(text[0])))
        return r.fail(lineOf(e->key), s.path(key), "must be a number, e.g. 0.1, not " + describe(e->value));
    *out = x;
    return true;
}

bool readBool(Reader &r, const Section &s, const char *key, bool *out)
{
    const Section::Entry *e = s.find(key);
    if (!e)
        return true;
    const std::string text = e->value.IsScalar() ? e->value.Scalar() : std::string();
    const auto oneOf = [&text](std::initializer_list<const char *> words) {
        return std::find(words.begin(), words.end(), text) != words.end();
    };
    if (oneOf({"true", "True", "TRUE"}) || oneOf({"false", "False", "FALSE"})) {
        *out = text[0] != 'f' && text[0] != 'F';
        return true;
    }
    if (text.empty())
        return r.fail(lineOf(e->key), s.path(key), "must be true or false, not " + describe(e->value));
    return r.fail(lineOf(e->key), s.path(key),
                  (text.size() > kMaxEchoed ? text.substr(0, kMaxEchoed) + "..." : text) + " is not true or false");
}

bool readText(Reader &r, const Section &s, const char *key, std::string *out)
{
    const Section::Entry *e = s.find(key);
    if (!e)
        return true;
    if (e->value.IsNull())
        return r.fail(lineOf(e->key), s.path(key), "has no value");
    if (!e->value.IsScalar())
        return r.fail(lineOf(e->key), s.path(key), "must be text, not " + describe(e->value));
    if (e->value.Scalar().empty())
        return r.fail(lineOf(e->key), s.path(key), "is empty");
    *out = e->value.Scalar();
    return true;
}

bool readChoice(Reader &r, const Section &s, const char *key, const Keys &choices, std::string *out)
{
    std::string text;
    if (!readText(r, s, key, &text))
        return false;
    if (text.empty())
        return true;
    if (std::find(choices.begin(), choices.end(), text) == choices.end())
        return r.fail(s.line(key), s.path(key), "must be " + joined(choices, " or ") + ", not " + inQuotes(text));
    *out = text;
    return true;
}

bool readPath(Reader &r, const Section &s, const char *key, std::string *out)
{
    std::string text;
    if (!readText(r, s, key, &text))
        return false;
    if (!text.empty())
        *out = (fs::path(text).is_relative() ? fs::path(r.folder) / text : fs::path(text)).lexically_normal().string();
    return true;
}

bool readFilePath(Reader &r, const Section &s, const char *key, std::string *out, std::string *content)
{
    if (!readPath(r, s, key, out))
        return false;
    if (out->empty())
        return true;
    std::string text, why;
    if (!readFile(*out, kMaxNamedFileBytes, &text, &why))
        return r.fail(s.line(key), s.path(key), "cannot read " + *out + ": " + why);
    if (content)
        *content = text;
    return true;
}

bool readSecretFile(Reader &r, const Section &s, const char *key, std::string *path, std::string *secret)
{
    std::string text;
    if (!readFilePath(r, s, key, path, &text))
        return false;
    if (path->empty())
        return true;
    text = text.substr(0, text.find('\n'));
    while (!text.empty() && (text.back() == '\r' || text.back() == '\n'))
        text.pop_back();
    if (text.empty())
        return r.fail(s.line(key), s.path(key), *path + ": the first line is empty");
    *secret = text;
    return true;
}

bool readHostPort(Reader &r, const Section &s, const char *key, std::string *host, int *port, std::string *text)
{
    std::string given;
    if (!readText(r, s, key, &given))
        return false;
    if (given.empty())
        return true;
    if (!rtuhost::parseHostPort(given, host, port))
        return r.fail(s.line(key), s.path(key),
                      "must be HOST:PORT with a port from 1 to 65535, e.g. 192.168.0.20:8000, not " + inQuotes(given));
    if (text)
        *text = given;
    return true;
}

} // namespace rtugw
