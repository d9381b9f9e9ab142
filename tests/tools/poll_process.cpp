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

using Clock = std::chrono::steady_clock;

Child::Child(const std::vector<std::string> &args)
{
    int p[2][2];
    if (pipe(p[0]) != 0 || pipe(p[1]) != 0)
        throw std::runtime_error("pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int i = 0; i < 2; ++i) {
        posix_spawn_file_actions_adddup2(&actions, p[i][1], STDOUT_FILENO + i);
        posix_spawn_file_actions_addclose(&actions, p[i][0]);
    }
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    std::vector<char *> argv;
    for (const std::string &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    const int r = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    for (int i = 0; i < 2; ++i) {
        close(p[i][1]);
        fd_[i] = p[i][0];
        fcntl(fd_[i], F_SETFL, O_NONBLOCK);
    }
    if (r != 0)
        throw std::runtime_error("cannot start " + args[0]);
}

Child::~Child()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    for (int fd : fd_)
        if (fd >= 0)
            close(fd);
}

bool Child::pump(int ms)
{
    pollfd fds[2] = {{fd_[0], POLLIN, 0}, {fd_[1], POLLIN, 0}};
    if (fd_[0] < 0 && fd_[1] < 0)
        return false;
    ::poll(fds, 2, ms);
    for (int i = 0; i < 2; ++i) {
        char buf[4096];
        const ssize_t n = fd_[i] >= 0 && (fds[i].revents & (POLLIN | POLLHUP)) ? read(fd_[i], buf, sizeof buf) : -1;
        if (n > 0)
            text_[i].append(buf, size_t(n));
        else if (n == 0)
            close(fd_[i]), fd_[i] = -1;
    }
    return fd_[0] >= 0 || fd_[1] >= 0;
}

std::string Child::lineContaining(const std::string &text, std::chrono::seconds limit)
{
    const auto until = Clock::now() + limit;
    for (;;) {
        for (size_t start = 0, nl; (nl = text_[0].find('\n', start)) != std::string::npos; start = nl + 1) {
            const std::string line = text_[0].substr(start, nl - start);
            if (line.find(text) != std::string::npos) {
                text_[0].erase(0, nl + 1);
                return line;
            }
        }
        if (Clock::now() >= until || !pump(20))
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
    while (Clock::now() < until && pump(20)) {
    }
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) == 0 && Clock::now() < until)
        usleep(2000);
    Run r;
    if (Clock::now() >= until && waitpid(pid_, &status, WNOHANG) == 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
    } else if (WIFEXITED(status)) {
        r.exitCode = WEXITSTATUS(status);
    }
    pid_ = -1;
    pump(0);
    r.out = text_[0];
    r.err = text_[1];
    return r;
}

Run poll(const std::vector<std::string> &args, std::chrono::seconds limit)
{
    std::vector<std::string> all{RTUPLC_POLL};
    all.insert(all.end(), args.begin(), args.end());
    return Child(all).wait(limit);
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
    std::stringstream s;
    s << std::ifstream(path).rdbuf();
    return s.str();
}

} // namespace tooltest
