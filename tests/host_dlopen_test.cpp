// Loads the built driver with dlopen, as a host does, and calls it only through the
// names it exports.
#include <gtest/gtest.h>

#include "host_library.h"

namespace {

TEST(HostLoad, EveryExportResolvesAndInternalsStayHidden)
{
    HostLibrary lib;
    ASSERT_TRUE(lib.ok()) << lib.error();
    for (const char *name : {"intf_getProtocolType", "intf_getVersion", "intf_getDriverParameter",
                             "intf_getDriverPropertyPage", "intf_SetDriverPropertyPage", "intf_getRegListByType",
                             "intf_getRegDiscription", "intf_checkAddrValidity", "intf_checkAddr", "intf_multiCopy",
                             "driver"})
        EXPECT_NE(dlsym(lib.handle(), name), nullptr) << name;
    for (const char *hidden : {"getReadFrame", "addrMerge", "analyzeFrameOfVal", "_Z12getReadFrame5QListI8VARIABLEE",
                               "_Z19getIndexFromRegNameRK7QString", "REG_LIST", "_ZL8REG_LIST"})
        EXPECT_EQ(dlsym(lib.handle(), hidden), nullptr) << hidden;
}

TEST(HostLoad, IdentityAndEditorAnswers)
{
    HostLibrary lib;
    ASSERT_TRUE(lib.ok()) << lib.error();
    auto version = reinterpret_cast<decltype(&intf_getVersion)>(dlsym(lib.handle(), "intf_getVersion"));
    auto parameter = reinterpret_cast<decltype(&intf_getDriverParameter)>(dlsym(lib.handle(), "intf_getDriverParameter"));
    auto validity = reinterpret_cast<decltype(&intf_checkAddrValidity)>(dlsym(lib.handle(), "intf_checkAddrValidity"));
    auto multiCopy = reinterpret_cast<decltype(&intf_multiCopy)>(dlsym(lib.handle(), "intf_multiCopy"));
    EXPECT_EQ(version(), "2.0.0.0");
    QString param;
    parameter(param);
    EXPECT_EQ(param.toStdString(), "0,9600,8,EVEN,1,0,1,127.0.0.1,8000,rtu_plc,X,Y,M,SM,S,T,C,32C,CV,TV,Z,SD,D_D,D_W");
    int addr = -1;
    EXPECT_EQ(validity("X", "377", &addr, 1, 0), 0);
    EXPECT_EQ(addr, 255);
    QVector<QString> texts;
    QVector<int> values;
    EXPECT_EQ(multiCopy("X", 8, 3, 8, &texts, &values), 1);
    EXPECT_EQ(texts, (QVector<QString>{"10", "20", "30"}));
    int err = 3;
    EXPECT_EQ(lib.initProperty(nullptr, 0, nullptr, &err, "1#0#0#3#64", nullptr), 1);
    EXPECT_EQ(err, 0);
}

} // namespace
