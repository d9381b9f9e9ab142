#include "poll_process.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

extern char **environ;

namespace tooltest {

namespace {

using Clock = std::chrono::steady_clock;

pid_t spawn(const std::vector<std::string> &args, int *out, int *err)
{
    int o[2], e[2];
    if (pipe(o) != 0 || pipe(e) != 0)
        throw std::runtime_error("pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, o[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, e[1], STDERR_FILENO);
    posix_spawn_file_actions_addclose(&actions, o[0]);
    posix_spawn_file_actions_addclose(&actions, e[0]);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    std::vector<char *> argv;
    for (const std::string &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int r = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(o[1]);
    close(e[1]);
    if (r != 0)
        throw std::runtime_error("cannot start " + args[0]);
    fcntl(o[0], F_SETFL, O_NONBLOCK);
    fcntl(e[0], F_SETFL, O_NONBLOCK);
    *out = o[0];
    *err = e[0];
    return pid;
}

// Reads what is there from both pipes, waiting up to `ms`; false once both are closed.
bool pump(int &out, int &err, std::string &outText, std::string &errText, int ms)
{
    pollfd fds[2] = {{out, POLLIN, 0}, {err, POLLIN, 0}};
    if (out < 0 && err < 0)
        return false;
    poll(fds, 2, ms);
    for (int i = 0; i < 2; ++i) {
        int &fd = i == 0 ? out : err;
        if (fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP)))
            continue;
        char buf[4096];
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n > 0) {
            (i == 0 ? outText : errText).append(buf, size_t(n));
        } else if (n == 0) {
            close(fd);
            fd = -1;
        }
    }
    return out >= 0 || err >= 0;
}

int reap(pid_t pid, Clock::time_point until)
{
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (Clock::now() >= until) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        usleep(2000);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

Run run(const std::vector<std::string> &args, std::chrono::seconds limit)
{
    Child child(args);
    return child.wait(limit);
}

Run poll(const std::vector<std::string> &args, std::chrono::seconds limit)
{
    std::vector<std::string> all{RTUPLC_POLL};
    all.insert(all.end(), args.begin(), args.end());
    return run(all, limit);
}

Child::Child(const std::vector<std::string> &args)
{
    pid_ = spawn(args, &out_, &err_);
}

Child::~Child()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0)
        close(out_);
    if (err_ >= 0)
        close(err_);
}

std::string Child::lineContaining(const std::string &text, std::chrono::seconds limit)
{
    const auto until = Clock::now() + limit;
    for (;;) {
        size_t start = 0;
        for (size_t nl; (nl = outBuffer_.find('\n', start)) != std::string::npos; start = nl + 1) {
            const std::string line = outBuffer_.substr(start, nl - start);
            if (line.find(text) != std::string::npos) {
                outBuffer_.erase(0, nl + 1);
                return line;
            }
        }
        if (Clock::now() >= until || !pump(out_, err_, outBuffer_, errBuffer_, 20))
            return "";
    }
}

void Child::signal(int sig)
{
    if (pid_ > 0)
        kill(pid_, sig);
}

Run Child::wait(std::chrono::seconds limit)
{
    const auto until = Clock::now() + limit;
    Run r;
    while (Clock::now() < until && pump(out_, err_, outBuffer_, errBuffer_, 20)) {
    }
    r.exitCode = reap(pid_, until);
    pid_ = -1;
    pump(out_, err_, outBuffer_, errBuffer_, 0);
    r.out = outBuffer_;
    r.err = errBuffer_;
    return r;
}

JsonOutput parseJson(const std::string &out)
{
    static const std::regex value(R"re(^\{"station":(\d+),"item":"([^"]+)","address":(\d+),"value":(\d+)\}$)re");
    static const std::regex error(R"re(^\{"error":"([^"]*)","result":2\}$)re");
    JsonOutput j;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        std::smatch m;
        if (std::regex_match(line, m, value)) {
            j.values[{std::stoi(m[1]), m[2], std::stoi(m[3])}] = std::stoull(m[4]);
            ++j.valueLines;
        } else if (std::regex_match(line, m, error)) {
            j.errors.push_back(m[1]);
        } else {
            j.other.push_back(line);
        }
    }
    return j;
}

std::string writeFile(const std::string &name, const std::string &text)
{
    // Unique per test process: ctest runs the tests side by side.
    const std::string path = ::testing::TempDir() + "rtuplc-tools-" + std::to_string(getpid()) + "-" + name;
    std::ofstream(path) << text;
    return path;
}

std::string readFile(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

} // namespace tooltest
