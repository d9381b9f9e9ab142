// Register model, identity, properties and the editor functions.
#include "driver_fixture.h"

#include <climits>

using namespace testing_support;

namespace {

TEST(AddressText, A2iBases)
{
    struct Row {
        const char *text, *notation;
        int result, value;
    } rows[] = {
        {"377", "OOO", 1, 255}, {"18", "OOO", -1, 0}, {"1A", "DDDD", -1, 0}, {"1F", "HH", 1, 31},
        {"1f", "H", 1, 31},     {"12", "", 1, 12},    {"12", "X", 1, 12},    {"-1", "DDD", 1, -1},
    };
    for (const Row &r : rows) {
        int value = 12345;
        EXPECT_EQ(a2i(r.text, value, r.notation, "X"), r.result) << r.text << " " << r.notation;
        EXPECT_EQ(value, r.value) << r.text << " " << r.notation;
    }
}

TEST(Identity, ParameterTextAndPages)
{
    int type = 9;
    QString param = "old", page;
    intf_getProtocolType(type);
    intf_getDriverParameter(param);
    intf_SetDriverPropertyPage("something else");
    intf_getDriverPropertyPage(page);
    EXPECT_EQ(
        QStringList({QString::number(type), intf_getVersion(), param, driver.propertyPage, page}),
        QStringList({"0", "2.0.0.0", "0,9600,8,EVEN,1,0,1,127.0.0.1,8000,rtu_plc,X,Y,M,SM,S,T,C,32C,CV,TV,Z,SD,D_D,D_W",
                     "something else", "0_0"}));
}

// Each text is applied after a reset to 7#7#7#7#7; fields are driverId, localWriteMode,
// (unused), retryTimes, maxBlockLen, and word/bit limits follow maxBlockLen.
TEST(Properties, ParsingTable)
{
    struct Row {
        QByteArray text;
        const char *fields; // driverId localWriteMode retryTimes maxBlockLen maxWordLen maxBitLen
    } rows[] = {
        // clang-format off
        {"5#1#9#3#40", "5 1 3 40 40 320"},      {"5#1#9#3", "7 7 7 7 7 56"},
        {"5##9#3#40", "5 0 3 40 40 320"},       {"a#b#c#d#e", "0 0 0 0 0 0"},
        {"", "7 7 7 7 7 56"},                   {"1#0#0#3#64#extra#x", "1 0 3 64 64 512"},
        {"#####", "0 0 0 0 0 0"},               {" 2#1#0#4#8", "2 1 4 8 8 64"},
        {"0x5#1#0#3#40", "0 1 3 40 40 320"},    {"1#0#0#3#-4", "1 0 3 -4 -4 -32"},
        {"1#0#0#3#99999999999", "1 0 3 0 0 0"}, {"1#0#0#3#\xE9\xFF", "1 0 3 0 0 0"},
        {"1#0#0#3#+12", "1 0 3 12 12 96"},      {QByteArray(100000, '#'), "0 0 0 0 0 0"},
        {"1#0#0#3#-2147483648", "1 0 3 -2147483648 -2147483648 0"},
        // clang-format on
    };
    for (const Row &r : rows) {
        int err = 5;
        intf_initProperty(nullptr, 0, nullptr, &err, "7#7#7#7#7", nullptr);
        EXPECT_EQ(intf_initProperty(nullptr, 0, nullptr, &err, r.text.constData(), nullptr), 1)
            << r.text.left(30).constData();
        EXPECT_EQ(err, 0);
        EXPECT_EQ(QString::asprintf("%d %d %d %d %d %d", driver.driverId, driver.localWriteMode, driver.retryTimes,
                                    driver.maxBlockLen, driver.maxWordLen, driver.maxBitLen),
                  r.fields)
            << r.text.left(30).constData();
    }
    EXPECT_EQ(intf_initProperty(nullptr, 0, nullptr, nullptr, nullptr, nullptr), 1);
    // Until a positive maxBlockLen arrives, cutting uses 64 words / 512 bits.
    intf_initProperty(nullptr, 0, nullptr, nullptr, "1#0#0#3#0", nullptr);
    EXPECT_EQ(splitWords(), RTUPLC_DEFAULT_SPLIT_WORDS);
    EXPECT_EQ(splitBits(), RTUPLC_DEFAULT_SPLIT_WORDS * 8);
}

TEST(Properties, ReinitEmptiesTrafficKeepsRecipeAndCallback)
{
    intf_setAddrValueChangeCallBack(recordReport);
    intf_initProperty(nullptr, 0, nullptr, nullptr, "1#0#0#3#64", nullptr);
    QVector<_RCP_VAR_PRO> recipe = {rcp("D_W", 0, 2, 0)};
    ASSERT_EQ(intf_setRcpAddress(recipe), 1);
    unsigned char v[2] = {1, 0};
    intf_setData(1, "D_W", 0, 1, v, 2);
    driver.handshakeFlag = 1;
    intf_initProperty(nullptr, 0, nullptr, nullptr, "1#0#0#3#64", nullptr);
    EXPECT_EQ(std::make_tuple(driver.writeList.size(), driver.dataAreas.size(), driver.frameList.size(),
                              driver.handshakeFlag, driver.rcpVars.size(), driver.rcpReqs.size()),
              std::make_tuple(0, 0, 0, 0, 1, 1));
    EXPECT_EQ(driver.addrValueChangeCallBack, &recordReport);
    intf_setAddrValueChangeCallBack(nullptr);
}

TEST(Catalogue, ListsByType)
{
    struct Row {
        int type, result;
        QStringList names;
    } rows[] = {
        // clang-format off
        {0, 1, {"X", "Y", "M", "SM", "S", "T", "C"}},
        {1, 1, {"32C", "CV", "TV", "Z", "SD", "D_D", "D_W"}},
        {2, 0, {"32C", "CV", "TV", "Z", "SD", "D_D", "D_W"}}, // any other type lists the word areas
        // clang-format on
    };
    for (const Row &r : rows) {
        QStringList names = {"kept"};
        EXPECT_EQ(intf_getRegListByType(r.type, &names), r.result) << r.type;
        EXPECT_EQ(names, QStringList{"kept"} + r.names) << r.type;
    }
}

TEST(Catalogue, Descriptions)
{
    struct Row {
        const char *name;
        QStringList texts;
    } rows[] = {
        // clang-format off
        {"X", {"OOO", "0", "377", "0", "1"}},     {"M", {"DDDD", "0", "1999", "0", "1"}},
        {"32C", {"DDD", "200", "255", "2", "1"}}, {"Z", {"DD", "0", "15", "1", "1"}},
        {"D_D", {"DDDD", "0", "7998", "2", "1"}}, {"D_W", {"DDDD", "0", "7999", "1", "1"}},
        {"D", {}},                                {"", {}},
        // clang-format on
    };
    for (const Row &r : rows) {
        QStringList info = {"kept"};
        EXPECT_EQ(intf_getRegDiscription(r.name, &info), 0);
        EXPECT_EQ(info, QStringList{"kept"} + r.texts) << r.name;
    }
}

TEST(Validation, CheckAddrValidityTable)
{
    struct Row {
        const char *name, *text;
        int count, wordUse, result, addr; // addr -7 means "left as the caller's"
    } rows[] = {
        // clang-format off
        {"X", "377", 1, 0, 0, 255},     {"X", "400", 1, 0, 2, 256},     {"X", "8", 1, 0, 4, 0},
        {"X", "0", 1, 1, 1, -7},        {"32C", "199", 2, 1, 2, 199},   {"32C", "200", 2, 1, 0, 200},
        {"32C", "255", 2, 1, 0, 255},   {"32C", "255", 4, 1, 2, 255},   {"32C", "255", 3, 1, 2, 255},
        {"D_W", "7999", 1, 1, 0, 7999}, {"D_W", "7999", 2, 1, 2, 7999}, {"D_W", "7998", 2, 1, 0, 7998},
        {"D", "1", 1, 1, 3, -7},        {"D_W", "abc", 1, 1, 4, 0},     {"D_W", "", 1, 1, 4, 0},
        {"M", "1999", 1, 0, 0, 1999},   {"M", "1990", 16, 0, 2, 1990},  {"M", "1984", 16, 0, 0, 1984},
        {"Y", "17", 16, 0, 0, 15},      {"D_W", "0", 8000, 1, 0, 0},    {"D_W", "-1", 1, 1, 2, -1},
        {"CV", "0", 1, 0, 1, -7},       {"D_D", "7998", 2, 1, 2, 7998}, {"D_D", "7997", 2, 1, 0, 7997},
        {"Z", "15", 1, 1, 0, 15},
        // clang-format on
    };
    for (const Row &r : rows) {
        int addr = -7;
        EXPECT_EQ(intf_checkAddrValidity(r.name, r.text, &addr, r.count, r.wordUse), r.result)
            << r.name << " " << r.text << " count " << r.count;
        EXPECT_EQ(addr, r.addr) << r.name << " " << r.text;
    }
}

TEST(Validation, CheckAddrTypedTable)
{
    struct Row {
        const char *name, *text;
        int dataType, count, rw, result;
    } rows[] = {
        // clang-format off
        {"X", "7", -1, 1, 1, 0},    {"X", "7", 0, 1, 0, 1},      {"D_D", "0", 2, 2, 0, 5},
        {"D_D", "0", 3, 2, 0, 0},   {"D_D", "0", -1, 2, 0, 1},   {"32C", "200", 0, 2, 0, 5},
        {"32C", "200", 9, 2, 1, 0}, {"32C", "200", 1, 2, 2, 0},  {"D_W", "0", 2, 1, 2, 0},
        {"D", "0", 3, 1, 0, 3},     {"32C", "x", 5, 2, 0, 4},    {"32C", "199", 6, 2, 0, 2},
        // clang-format on
    };
    for (const Row &r : rows) {
        int addr = -7;
        EXPECT_EQ(intf_checkAddr(r.name, r.text, &addr, r.dataType, r.count, r.rw), r.result)
            << r.name << " " << r.text << " type " << r.dataType;
        if (r.result == 1 || r.result == 3 || r.result == 5) {
            EXPECT_EQ(addr, -7) << r.name;
        }
    }
}

TEST(Validation, ReadOnlyAreaRefusesWrites)
{
    // No area of this controller is read-only; a row that is must refuse writers.
    const QString row[REG_COLUMNS] = {"DDD", "0", "99", "16", "R", "16", "1"};
    for (int rw : {0, 1, 2, 3}) {
        AddressUse use;
        use.typed = true;
        use.dataType = 0;
        use.rw = rw;
        int addr = -7;
        EXPECT_EQ(validateAddress(row, "RO", "5", &addr, 1, use), (rw == 1 || rw == 2) ? 6 : 0) << rw;
    }
}

TEST(MultiCopy, SequencesAndClipping)
{
    struct Row {
        const char *name;
        int start, count, step, result;
        QVector<int> values;
        QVector<QString> texts;
    } rows[] = {
        // clang-format off
        {"X", 8, 3, 8, 1, {8, 16, 24}, {"10", "20", "30"}},
        {"X", 250, 3, -1, 2, {250, 255, 255}, {"372", "377", "377"}},
        {"X", 0, 2, -2, 1, {0, 32}, {"0", "40"}},
        {"D_W", 7998, 3, -2, 2, {7998, 7999, 7999}, {"7998", "7999", "7999"}},
        {"D_W", 5, 0, 1, 1, {}, {}},
        {"D_W", 5, 3, 0, 1, {5, 6, 7}, {"5", "6", "7"}},
        {"32C", 200, 3, -1, 1, {200, 201, 202}, {"200", "201", "202"}},
        {"D_W", -1, 1, 1, 1, {-1}, {"4294967295"}},
        {"D_W", 7990, 2, 2147483647, 2, {7990, 7999}, {"7990", "7999"}},
        {"D", 0, 3, 1, 0, {}, {}},
        // clang-format on
    };
    for (const Row &r : rows) {
        QVector<QString> texts = {"kept"};
        QVector<int> values = {-9};
        EXPECT_EQ(intf_multiCopy(r.name, r.start, r.count, r.step, &texts, &values), r.result) << r.name;
        EXPECT_EQ(values, QVector<int>{-9} + r.values) << r.name << " start " << r.start;
        EXPECT_EQ(texts, QVector<QString>{"kept"} + r.texts) << r.name << " start " << r.start;
    }
}

TEST(MultiCopy, HexNotationAndUnknownLetterKeepsText)
{
    QVector<QString> hex, unknown;
    QVector<int> values, ignored;
    EXPECT_EQ(multiCp("D_W", "HHHH", 30, 2, 1, hex, ignored, 100, "64"), 1);
    EXPECT_EQ(multiCp("D_W", "QQ", 3, 2, 1, unknown, values, 100, "100"), 1);
    EXPECT_EQ(hex, (QVector<QString>{"1e", "1f"}));
    EXPECT_EQ(unknown, (QVector<QString>{"", ""}));
    EXPECT_EQ(values, (QVector<int>{3, 4}));
}

} // namespace
