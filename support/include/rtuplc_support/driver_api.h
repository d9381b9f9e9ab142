// The driver as a host sees it: a shared library loaded at run time whose intf_*
// functions are looked up by name. Nothing of the driver is linked in. rtuplc-poll and
// the tests that load the built library use it.
#ifndef RTUPLC_SUPPORT_DRIVER_API_H
#define RTUPLC_SUPPORT_DRIVER_API_H

#include <string>

#include "rtuplc.h"

namespace rtusupport {

struct DriverApi {
    decltype(&intf_getProtocolType) getProtocolType = nullptr;
    decltype(&intf_getVersion) getVersion = nullptr;
    decltype(&intf_getDriverParameter) getDriverParameter = nullptr;
    decltype(&intf_getDriverPropertyPage) getDriverPropertyPage = nullptr;
    decltype(&intf_SetDriverPropertyPage) setDriverPropertyPage = nullptr;
    decltype(&intf_setAddrValueChangeCallBack) setAddrValueChangeCallBack = nullptr;
    decltype(&intf_initProperty) initProperty = nullptr;
    decltype(&intf_getRegListByType) getRegListByType = nullptr;
    decltype(&intf_getRegDiscription) getRegDiscription = nullptr;
    decltype(&intf_checkAddrValidity) checkAddrValidity = nullptr;
    decltype(&intf_checkAddr) checkAddr = nullptr;
    decltype(&intf_multiCopy) multiCopy = nullptr;
    decltype(&intf_getSendFrame) getSendFrame = nullptr;
    decltype(&intf_dealRcvFrame) dealRcvFrame = nullptr;
    decltype(&intf_addrMerge) addrMerge = nullptr;
    decltype(&intf_addConditionRead) addConditionRead = nullptr;
    decltype(&intf_setRcpAddress) setRcpAddress = nullptr;
    decltype(&intf_getData) getData = nullptr;
    decltype(&intf_setData) setData = nullptr;

    std::string path;       // as loaded
    void *handle = nullptr; // the loader's handle, to look up anything else by name
};

// Loads the library and resolves every function. On failure `error` says what went
// wrong: the loader's message, or the names the library does not export. With search
// false a bare file name is taken from the current directory.
bool loadDriver(const std::string &path, DriverApi *api, std::string *error, bool search = false);

} // namespace rtusupport

#endif
