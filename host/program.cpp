#include "rtuplc_host/program.h"

namespace rtuhost {

const char *projectVersion()
{
    return RTUPLC_VERSION;
}

std::string versionLine(const char *program)
{
    return std::string(program) + " " + RTUPLC_VERSION;
}

} // namespace rtuhost
