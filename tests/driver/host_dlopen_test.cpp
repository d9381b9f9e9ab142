// Loads the built driver with dlopen, as a host does, and calls it only through the
// names it exports. (What the library exports besides is checked with nm by CTest.)
#include <gtest/gtest.h>

#include <dlfcn.h>

#include "rtuplc_support/driver_api.h"

namespace {

TEST(HostLoad, ExportsResolveInternalsStayHiddenAndCallsWork)
{
    rtusupport::DriverApi lib;
    std::string error;
    ASSERT_TRUE(rtusupport::loadDriver(RTUPLC_LIBRARY, &lib, &error)) << error;
    for (const char *name : {"intf_getProtocolType", "intf_getVersion", "intf_getDriverParameter",
                             "intf_getDriverPropertyPage", "intf_SetDriverPropertyPage", "intf_getRegListByType",
                             "intf_getRegDiscription", "intf_checkAddrValidity", "intf_checkAddr", "intf_multiCopy",
                             "driver"})
        EXPECT_NE(dlsym(lib.handle, name), nullptr) << name;
    for (const char *hidden : {"getReadFrame", "addrMerge", "_Z19getIndexFromRegNameRK7QString", "_ZL8REG_LIST"})
        EXPECT_EQ(dlsym(lib.handle, hidden), nullptr) << hidden;
    // Qt types cross the boundary both ways.
    EXPECT_EQ(lib.getVersion(), "2.0.0.0");
    int addr = -1;
    EXPECT_EQ(lib.checkAddrValidity("X", "377", &addr, 1, 0), 0);
    EXPECT_EQ(addr, 255);
    int err = 3;
    EXPECT_EQ(lib.initProperty(nullptr, 0, nullptr, &err, "1#0#0#3#64", nullptr), 1);
    EXPECT_EQ(err, 0);
}

} // namespace
