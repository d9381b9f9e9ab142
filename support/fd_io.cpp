#include "rtuplc_support/fd_io.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace rtusupport {

bool writeAll(int fd, const uint8_t *bytes, size_t n, std::chrono::milliseconds timeout)
{
    using Clock = std::chrono::steady_clock;
    const auto until = Clock::now() + timeout;
    size_t done = 0;
    while (done < n) {
        ssize_t w = ::send(fd, bytes + done, n - done, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (w < 0 && errno == ENOTSOCK) // a pty or a serial device
            w = ::write(fd, bytes + done, n - done);
        if (w > 0) {
            done += size_t(w);
            continue;
        }
        if (w < 0 && errno != EAGAIN && errno != EINTR)
            return false;
        if (Clock::now() >= until) {
            errno = ETIMEDOUT;
            return false;
        }
        pollfd p{fd, POLLOUT, 0};
        ::poll(&p, 1, 10);
    }
    return true;
}

} // namespace rtusupport
