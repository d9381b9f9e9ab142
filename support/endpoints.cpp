// Where the simulator listens: a TCP socket carrying plain RTU frames, a
// pseudo-terminal it creates, or a serial device. One thread serves each.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <list>

#include "rtuplc_support/fd_io.h"
#include "rtuplc_support/framer.h"
#include "simulator_impl.h"

namespace rtusupport {

namespace {

using Clock = std::chrono::steady_clock;

// Over TCP and a pty bytes come as the peer wrote them; a frame that stalls this long
// is abandoned. A master waits far longer than this for its reply before it retries.
constexpr std::chrono::milliseconds kStreamSilence{50};
constexpr std::chrono::milliseconds kSerialMinSilence{20};
constexpr std::chrono::milliseconds kWriteTimeout{1000};
constexpr std::chrono::milliseconds kIdleWait{1000};
constexpr int kListenBacklog = 8;
constexpr size_t kReadChunk = 512;

std::string errnoText(const std::string &what)
{
    return what + ": " + std::strerror(errno);
}

void setNonBlocking(int fd)
{
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
}

int msUntil(std::optional<Clock::time_point> deadline)
{
    if (!deadline)
        return int(kIdleWait.count());
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - Clock::now()).count() + 1;
    return int(std::max<int64_t>(0, std::min<int64_t>(left, kIdleWait.count())));
}

// Serves the frames the framer holds; false when the peer can no longer be written.
bool answerFrames(Simulator::Impl &sim, RtuFramer &framer, int fd)
{
    while (auto frame = framer.next(Clock::now())) {
        auto answer = sim.serve(*frame);
        if (!answer)
            continue;
        for (const auto &piece : answer->pieces) {
            if (piece.after.count() > 0 && sim.stop.waitFor(piece.after))
                return true; // stopping: the reply no longer matters
            sim.logFrame("tx", piece.bytes);
            if (!writeAll(fd, piece.bytes.data(), piece.bytes.size(), kWriteTimeout))
                return false;
        }
        if (!answer->pieces.empty()) {
            std::lock_guard<std::mutex> lock(sim.logMutex);
            if (sim.replySent)
                sim.replySent(*frame, answer->pieces.back().bytes);
        }
        ++sim.counters.replies;
    }
    return true;
}

struct Connection {
    int fd;
    RtuFramer framer{kStreamSilence};
    uint64_t discardedSeen = 0;
};

void countDiscards(Simulator::Impl &sim, RtuFramer &framer, uint64_t &seen)
{
    sim.counters.discarded += framer.discardedFrames() - seen;
    seen = framer.discardedFrames();
}

} // namespace

void serveListeningSocket(Simulator::Impl &sim, int listenFd)
{
    std::list<Connection> connections;
    for (;;) {
        std::vector<pollfd> fds{{sim.stop.fd(), POLLIN, 0}, {listenFd, POLLIN, 0}};
        std::optional<Clock::time_point> deadline;
        for (Connection &c : connections) {
            fds.push_back({c.fd, POLLIN, 0});
            if (auto d = c.framer.deadline(); d && (!deadline || *d < *deadline))
                deadline = d;
        }
        if (::poll(fds.data(), fds.size(), msUntil(deadline)) < 0 && errno != EINTR)
            break;
        if (fds[0].revents)
            break;
        if (fds[1].revents & POLLIN) {
            const int fd = ::accept(listenFd, nullptr, nullptr);
            if (fd >= 0) {
                setNonBlocking(fd);
                const int one = 1;
                setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
                connections.push_back(Connection{fd});
            }
        }
        size_t i = 2;
        for (auto it = connections.begin(); it != connections.end(); ++i) {
            bool open = true;
            if (fds.size() > i && fds[i].fd == it->fd && (fds[i].revents & (POLLIN | POLLHUP | POLLERR))) {
                uint8_t buf[kReadChunk];
                const ssize_t n = ::read(it->fd, buf, sizeof buf);
                if (n > 0)
                    it->framer.feed(buf, size_t(n), Clock::now());
                else if (n == 0 || (errno != EAGAIN && errno != EINTR))
                    open = false;
            }
            if (open)
                open = answerFrames(sim, it->framer, it->fd);
            countDiscards(sim, it->framer, it->discardedSeen);
            if (!open) {
                ::close(it->fd);
                it = connections.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (Connection &c : connections)
        ::close(c.fd);
}

void serveStream(Simulator::Impl &sim, int fd, std::chrono::microseconds silence)
{
    RtuFramer framer(silence);
    uint64_t seen = 0;
    for (;;) {
        pollfd fds[2] = {{sim.stop.fd(), POLLIN, 0}, {fd, POLLIN, 0}};
        if (::poll(fds, 2, msUntil(framer.deadline())) < 0 && errno != EINTR)
            break;
        if (fds[0].revents)
            break;
        ssize_t n = 0;
        if (fds[1].revents & POLLIN) {
            uint8_t buf[kReadChunk];
            n = ::read(fd, buf, sizeof buf);
            if (n > 0)
                framer.feed(buf, size_t(n), Clock::now());
        }
        // A pty whose other side closed reports POLLIN too, and its read fails (EIO) at
        // once: without this wait the loop would take a core until a master comes.
        if (n <= 0 && (fds[1].revents & (POLLHUP | POLLERR | POLLIN))) {
            if (sim.stop.waitFor(std::chrono::milliseconds(20)))
                break;
        }
        answerFrames(sim, framer, fd);
        countDiscards(sim, framer, seen);
    }
}

// ---------------------------------------------------------------------------------
// Opening the endpoints.

namespace {

bool resolveIPv4(const std::string &host, in_addr *out, std::string *error)
{
    if (inet_pton(AF_INET, host.c_str(), out) == 1)
        return true;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo *found = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || found == nullptr) {
        if (error)
            *error = "unknown host " + host;
        return false;
    }
    *out = reinterpret_cast<sockaddr_in *>(found->ai_addr)->sin_addr;
    freeaddrinfo(found);
    return true;
}

bool startEndpoint(Simulator::Impl &impl, std::string *error)
{
    if (impl.stop.fd() < 0 && !impl.stop.open()) {
        if (error)
            *error = errnoText("cannot create a pipe");
        return false;
    }
    impl.ensureThreadsStarted();
    return true;
}

} // namespace

bool Simulator::startTcp(const std::string &host, int port, std::string *error)
{
    std::lock_guard<std::mutex> lock(impl_->endpointMutex);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    if (port < 0 || port > 65535) {
        if (error)
            *error = "port " + std::to_string(port) + " is not 0..65535";
        return false;
    }
    if (!resolveIPv4(host, &address.sin_addr, error))
        return false;
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        if (error)
            *error = errnoText("cannot create a socket");
        return false;
    }
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || ::listen(fd, kListenBacklog) != 0) {
        if (error)
            *error = errnoText("cannot listen on " + host + ":" + std::to_string(port));
        ::close(fd);
        return false;
    }
    socklen_t len = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &len);
    if (!startEndpoint(*impl_, error)) {
        ::close(fd);
        return false;
    }
    impl_->tcpPort = ntohs(address.sin_port);
    impl_->ownedFds.push_back(fd);
    Impl &sim = *impl_;
    impl_->startThread([&sim, fd] { serveListeningSocket(sim, fd); });
    return true;
}

bool Simulator::startPty(std::string *error)
{
    std::lock_guard<std::mutex> lock(impl_->endpointMutex);
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) {
        if (error)
            *error = errnoText("cannot create a pseudo-terminal");
        if (master >= 0)
            ::close(master);
        return false;
    }
    char name[PATH_MAX] = {};
    ptsname_r(master, name, sizeof name);
    // Holding the terminal side open keeps the pty alive between masters, and sets
    // it raw before any master arrives: a cooked terminal would mangle frames.
    const int keep = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (keep < 0 || !configureTerminal(keep, SerialLine(), error)) {
        if (error && keep < 0)
            *error = errnoText(std::string("cannot open ") + name);
        ::close(master);
        if (keep >= 0)
            ::close(keep);
        return false;
    }
    setNonBlocking(master);
    if (!startEndpoint(*impl_, error)) {
        ::close(master);
        ::close(keep);
        return false;
    }
    impl_->ptyPath = name;
    impl_->ownedFds.push_back(master);
    impl_->ownedFds.push_back(keep);
    Impl &sim = *impl_;
    impl_->startThread([&sim, master] {
        serveStream(sim, master, std::chrono::duration_cast<std::chrono::microseconds>(kStreamSilence));
    });
    return true;
}

bool Simulator::startSerial(const std::string &device, const SerialLine &line, std::string *error)
{
    std::lock_guard<std::mutex> lock(impl_->endpointMutex);
    const int fd = ::open(device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        if (error)
            *error = errnoText("cannot open " + device);
        return false;
    }
    std::string why;
    if (!configureTerminal(fd, line, &why)) {
        if (error)
            *error = device + ": " + why;
        ::close(fd);
        return false;
    }
    if (!startEndpoint(*impl_, error)) {
        ::close(fd);
        return false;
    }
    impl_->ownedFds.push_back(fd);
    const auto silence = std::max<std::chrono::microseconds>(silentInterval(line), kSerialMinSilence);
    Impl &sim = *impl_;
    impl_->startThread([&sim, fd, silence] { serveStream(sim, fd, silence); });
    return true;
}

} // namespace rtusupport
