// Loads the built driver with dlopen, as a host does, and drives it only through the
// names it exports.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include "rtuplc.h"

namespace {

class Library {
public:
    Library() : handle_(dlopen(RTUPLC_LIBRARY, RTLD_NOW | RTLD_LOCAL)) {}
    ~Library()
    {
        if (handle_)
            dlclose(handle_);
    }
    void *handle() const { return handle_; }
    template <typename F>
    F *fn(const char *name) const
    {
        return reinterpret_cast<F *>(dlsym(handle_, name));
    }

private:
    void *handle_;
};

const char *const kExports[] = {
    "intf_getProtocolType", "intf_getVersion",        "intf_getDriverParameter", "intf_getDriverPropertyPage",
    "intf_SetDriverPropertyPage", "intf_setAddrValueChangeCallBack", "intf_initProperty",
    "intf_getRegListByType", "intf_getRegDiscription", "intf_checkAddrValidity", "intf_checkAddr",
    "intf_multiCopy",       "intf_getSendFrame",      "intf_dealRcvFrame",       "intf_addrMerge",
    "intf_addConditionRead", "intf_setRcpAddress",    "intf_getData",            "intf_setData",
    "driver",
};

TEST(HostLoad, EveryExportResolvesAndInternalsStayHidden)
{
    Library lib;
    ASSERT_NE(lib.handle(), nullptr) << dlerror();
    for (const char *name : kExports)
        EXPECT_NE(dlsym(lib.handle(), name), nullptr) << name;
    for (const char *hidden : {"getReadFrame", "addrMerge", "analyzeFrameOfVal", "_Z12getReadFrame5QListI8VARIABLEE",
                               "_Z19getIndexFromRegNameRK7QString"})
        EXPECT_EQ(dlsym(lib.handle(), hidden), nullptr) << hidden;
}

TEST(HostLoad, IdentityAndEditorAnswers)
{
    Library lib;
    ASSERT_NE(lib.handle(), nullptr) << dlerror();
    auto version = lib.fn<decltype(intf_getVersion)>("intf_getVersion");
    auto parameter = lib.fn<decltype(intf_getDriverParameter)>("intf_getDriverParameter");
    auto validity = lib.fn<decltype(intf_checkAddrValidity)>("intf_checkAddrValidity");
    auto multiCopy = lib.fn<decltype(intf_multiCopy)>("intf_multiCopy");
    auto init = lib.fn<decltype(intf_initProperty)>("intf_initProperty");
    ASSERT_TRUE(version && parameter && validity && multiCopy && init);

    EXPECT_EQ(version(), "2.0.0.0");
    QString param;
    parameter(param);
    EXPECT_TRUE(param.startsWith("0,9600,8,EVEN,1,0,1,")) << param.toStdString();
    EXPECT_TRUE(param.endsWith(",D_D,D_W")) << param.toStdString();

    int addr = -1;
    EXPECT_EQ(validity("X", "377", &addr, 1, 0), 0);
    EXPECT_EQ(addr, 255);
    QVector<QString> texts;
    QVector<int> values;
    EXPECT_EQ(multiCopy("X", 8, 3, 8, &texts, &values), 1);
    EXPECT_EQ(texts, (QVector<QString>{"10", "20", "30"}));

    int err = 3;
    EXPECT_EQ(init(nullptr, 0, nullptr, &err, "1#0#0#3#64", nullptr), 1);
    EXPECT_EQ(err, 0);
}

TEST(HostLoad, OnePollThroughTheExportedCycle)
{
    Library lib;
    ASSERT_NE(lib.handle(), nullptr) << dlerror();
    auto init = lib.fn<decltype(intf_initProperty)>("intf_initProperty");
    auto merge = lib.fn<decltype(intf_addrMerge)>("intf_addrMerge");
    auto send = lib.fn<decltype(intf_getSendFrame)>("intf_getSendFrame");
    auto deal = lib.fn<decltype(intf_dealRcvFrame)>("intf_dealRcvFrame");
    auto get = lib.fn<decltype(intf_getData)>("intf_getData");
    auto setCallback = lib.fn<decltype(intf_setAddrValueChangeCallBack)>("intf_setAddrValueChangeCallBack");
    ASSERT_TRUE(init && merge && send && deal && get && setCallback);

    static QStringList reports;
    reports.clear();
    setCallback([](int id, int station, QString &item, int addr) {
        reports << QString("%1/%2/%3/%4").arg(id).arg(station).arg(item).arg(addr);
    });
    init(nullptr, 0, nullptr, nullptr, "7#0#0#3#64", nullptr);
    QList<KEY_ADDRESS> keys;
    KEY_ADDRESS k;
    k.station = 1;
    k.regName = "D_W";
    k.startAddr = 100;
    k.len = 2;
    keys << k;
    EXPECT_EQ(merge(keys), 1);

    FRAME_PRO f;
    ASSERT_EQ(send(f), 1);
    const QByteArray request(reinterpret_cast<const char *>(f.frame), f.frameLen);
    EXPECT_EQ(request.toHex(), QByteArray("010300640002"
                                          "85d4"));
    EXPECT_EQ(f.replyLen, 9);
    // 01 03 04 12 34 00 05 + CRC
    const QByteArray reply = QByteArray::fromHex("01030412340005") + QByteArray::fromHex("7e86");
    QString what;
    EXPECT_EQ(deal(reply, what), 1) << what.toStdString();
    EXPECT_EQ(what, "1#D_W100(2)");
    EXPECT_EQ(reports, (QStringList{"7/1/D_W/100", "7/1/D_W/101"}));
    unsigned char out[4] = {};
    EXPECT_EQ(get(1, "D_W", 100, 2, out), 1);
    EXPECT_EQ(QByteArray(reinterpret_cast<char *>(out), 4).toHex(), QByteArray("34120500"));
    setCallback(nullptr);
}

} // namespace
