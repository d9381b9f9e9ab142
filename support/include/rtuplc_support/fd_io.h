// Writing a whole frame to a socket, a pty or a serial device that may be non-blocking.
#ifndef RTUPLC_SIM_FD_IO_H
#define RTUPLC_SIM_FD_IO_H

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace rtusim {

// Writes all n bytes, waiting while the descriptor is full, for at most `timeout`.
// A socket whose peer hung up fails with EPIPE rather than raising SIGPIPE. False, with
// errno set, when the bytes could not all be written.
bool writeAll(int fd, const uint8_t *bytes, size_t n, std::chrono::milliseconds timeout);

} // namespace rtusim

#endif
