#include "rtuplc_support/driver_api.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <utility>
#include <vector>

namespace rtusupport {

namespace {

template <typename F>
std::pair<const char *, void **> slot(const char *name, F *&fn)
{
    return {name, reinterpret_cast<void **>(&fn)};
}

} // namespace

bool loadDriver(const std::string &path, DriverApi *api, std::string *error, bool search)
{
    // A path without a slash sends dlopen searching the system's libraries: wanted for
    // the installed driver's SONAME, not for a file the user named.
    const std::string where = !search && path.find('/') == std::string::npos ? "./" + path : path;
    void *lib = dlopen(where.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) {
        *error = std::string("cannot load the driver: ") + dlerror();
        return false;
    }
    DriverApi a;
    const std::vector<std::pair<const char *, void **>> slots = {
        slot("intf_getProtocolType", a.getProtocolType),
        slot("intf_getVersion", a.getVersion),
        slot("intf_getDriverParameter", a.getDriverParameter),
        slot("intf_getDriverPropertyPage", a.getDriverPropertyPage),
        slot("intf_SetDriverPropertyPage", a.setDriverPropertyPage),
        slot("intf_setAddrValueChangeCallBack", a.setAddrValueChangeCallBack),
        slot("intf_initProperty", a.initProperty),
        slot("intf_getRegListByType", a.getRegListByType),
        slot("intf_getRegDiscription", a.getRegDiscription),
        slot("intf_checkAddrValidity", a.checkAddrValidity),
        slot("intf_checkAddr", a.checkAddr),
        slot("intf_multiCopy", a.multiCopy),
        slot("intf_getSendFrame", a.getSendFrame),
        slot("intf_dealRcvFrame", a.dealRcvFrame),
        slot("intf_addrMerge", a.addrMerge),
        slot("intf_addConditionRead", a.addConditionRead),
        slot("intf_setRcpAddress", a.setRcpAddress),
        slot("intf_getData", a.getData),
        slot("intf_setData", a.setData),
    };
    std::string missing;
    for (const auto &s : slots) {
        *s.second = dlsym(lib, s.first);
        if (*s.second == nullptr)
            missing += (missing.empty() ? "" : ", ") + std::string(s.first);
    }
    if (!missing.empty()) {
        *error = path + " is not a complete driver: it does not export " + missing;
        dlclose(lib);
        return false;
    }
    a.path = where;
    a.handle = lib;
    *api = a;
    return true; // the library stays loaded for the life of the program
}

} // namespace rtusupport
