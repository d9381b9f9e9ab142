// The driver as a host sees it: loaded with dlopen and called through the names it
// exports, nothing else.
#ifndef RTUPLC_TESTS_HOST_LIBRARY_H
#define RTUPLC_TESTS_HOST_LIBRARY_H

#include <dlfcn.h>

#include <string>

#include "rtuplc.h"

class HostLibrary {
public:
    explicit HostLibrary(const char *path = RTUPLC_LIBRARY) : handle_(dlopen(path, RTLD_NOW | RTLD_LOCAL))
    {
        if (!handle_) {
            error_ = dlerror();
            return;
        }
        resolve(initProperty, "intf_initProperty");
        resolve(addrMerge, "intf_addrMerge");
        resolve(getSendFrame, "intf_getSendFrame");
        resolve(dealRcvFrame, "intf_dealRcvFrame");
        resolve(getData, "intf_getData");
        resolve(setData, "intf_setData");
    }
    ~HostLibrary()
    {
        if (handle_)
            dlclose(handle_);
    }
    HostLibrary(const HostLibrary &) = delete;
    HostLibrary &operator=(const HostLibrary &) = delete;

    bool ok() const { return handle_ != nullptr && error_.empty(); }
    const std::string &error() const { return error_; }
    void *handle() const { return handle_; }

    decltype(&intf_initProperty) initProperty = nullptr;
    decltype(&intf_addrMerge) addrMerge = nullptr;
    decltype(&intf_getSendFrame) getSendFrame = nullptr;
    decltype(&intf_dealRcvFrame) dealRcvFrame = nullptr;
    decltype(&intf_getData) getData = nullptr;
    decltype(&intf_setData) setData = nullptr;

private:
    template <typename F>
    void resolve(F &fn, const char *name)
    {
        fn = reinterpret_cast<F>(dlsym(handle_, name));
        if (!fn)
            error_ += std::string(" missing ") + name;
    }

    void *handle_;
    std::string error_;
};

#endif
