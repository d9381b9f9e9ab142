#include "rtuplc_host/driver_location.h"

#include <unistd.h>

#include <climits>

namespace rtuhost {

std::string defaultDriver()
{
    char self[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n > 0) {
        std::string beside(self, size_t(n));
        beside.erase(beside.rfind('/') + 1);
        beside += RTUPLC_DRIVER_FILE;
        if (access(beside.c_str(), F_OK) == 0)
            return beside;
    }
    return RTUPLC_DRIVER_SONAME;
}

} // namespace rtuhost
