// A strict reader of YAML configuration files, for any section of them: every key is
// checked against the keys its section takes, every value against its kind and range,
// and a mistake is refused with the file, the line, the dotted key and the reason
// ("line1.yaml:12: mqtt.qos: must be 0 or 1, not "2""), so a typo stops the program at
// start instead of leaving a setting silently at its default.
//
// The readers leave their `out` alone when the key is absent, so it keeps its default.
#ifndef RTUPLC_GATEWAY_YAML_READER_H
#define RTUPLC_GATEWAY_YAML_READER_H

#include <yaml-cpp/yaml.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace rtugw {

using Keys = std::vector<std::string>;

// Reads `path`, at most `limit` bytes, as one YAML document; an empty file gives a null
// root. False with `error` saying why: the file cannot be read, a tab in an indentation,
// not valid YAML, a second document.
bool loadYaml(const std::string &path, size_t limit, YAML::Node *root, std::string *error);

// Reads the file, or says why not in the C library's words. A path that names a device
// or a pipe by mistake must not hang the start: the read is bounded and never waits.
bool readFile(const std::string &path, size_t limit, std::string *text, std::string *why);

// The state of one load: the file messages point to, its folder (relative paths are
// taken from there), and where the error goes.
struct Reader {
    std::string file;
    std::string folder;
    std::string *error;

    // "FILE:LINE: KEY: WHY" (LINE left out when 0, KEY when empty); always false.
    bool fail(int line, const std::string &key, const std::string &why);
};

// One mapping of the file, every key checked against the ones the section takes.
class Section {
public:
    struct Entry {
        YAML::Node key, value;
    };

    // `path` is the dotted key of the section, empty for the whole file; `what` names it in
    // messages about unknown keys ("mqtt takes: ..."). A null node is an empty section.
    bool open(Reader &r, const YAML::Node &node, int line, const std::string &path, const std::string &what,
              const Keys &known);

    const Entry *find(const std::string &key) const;
    std::string path(const std::string &key) const { return path_.empty() ? key : path_ + "." + key; }
    int line() const { return line_; }
    // The key's line, or the section's when the key is not given.
    int line(const std::string &key) const;

private:
    std::string path_;
    int line_ = 0;
    std::map<std::string, Entry> entries_;
};

// Lines in messages count from 1; 0 for a node the file does not have.
int lineOf(const YAML::Node &node);
std::string joined(const Keys &keys, const char *separator = ", ");
// A value quoted back in a message, cut when long.
std::string inQuotes(const std::string &text);
// What a value is, for "must be ..., not X". Only ever used on values that are not secret.
std::string describe(const YAML::Node &node);

// A whole number, optionally negative, without sign or spaces around it.
bool parseNumber(const std::string &text, long long *out);

// A whole number from lo to hi; `unit` ("seconds", or "") is named in the message.
bool readNumberIn(Reader &r, const Section &s, const char *key, long long lo, long long hi, const char *unit,
                  long long *out);
template <typename T>
bool readNumber(Reader &r, const Section &s, const char *key, long long lo, long long hi, const char *unit, T *out)
{
    long long n = 0;
    if (!s.find(key))
        return true;
    if (!readNumberIn(r, s, key, lo, hi, unit, &n))
        return false;
    *out = T(n);
    return true;
}
// A decimal number, whole or not, e.g. 0.1, -40, 1e-3.
bool readReal(Reader &r, const Section &s, const char *key, double *out);
// true or false, and nothing else: YAML's older yes, no, on and off read as booleans to
// some tools and as text to others.
bool readBool(Reader &r, const Section &s, const char *key, bool *out);
// Text that is there and not empty. The value itself is never quoted back, so this serves
// secrets too.
bool readText(Reader &r, const Section &s, const char *key, std::string *out);
// One of `choices`, given as text.
bool readChoice(Reader &r, const Section &s, const char *key, const Keys &choices, std::string *out);
// A path, made absolute against the file's folder, so the program finds its files
// whatever directory it is started from.
bool readPath(Reader &r, const Section &s, const char *key, std::string *out);
// A path to a file that must be readable now, not when it is first used; its content
// in `content` when asked for.
bool readFilePath(Reader &r, const Section &s, const char *key, std::string *out, std::string *content = nullptr);
// A secret kept in a file of its own: its first line, without the line end an editor adds.
bool readSecretFile(Reader &r, const Section &s, const char *key, std::string *path, std::string *secret);
// HOST:PORT with a port; `text` gets the value as given, when asked for.
bool readHostPort(Reader &r, const Section &s, const char *key, std::string *host, int *port, std::string *text);

} // namespace rtugw

#endif
