#include "inventory/CDmiInfo.h"
#include "inventory/InventoryFixtures.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using edrtest::FakeToolDir;

namespace {

QJsonArray parse(const QString& text)
{
    QJsonArray out;
    CDmiInfo::parseDmiOutput(text, out);
    return out;
}

struct DmiCase {
    const char* name;
    const char* text;
    const char* expectedJson; // array
};

class DmiParse : public ::testing::TestWithParam<DmiCase> {};

TEST_P(DmiParse, MatchesDmidecodeLayout)
{
    const DmiCase& c = GetParam();
    const QJsonArray expected = QJsonDocument::fromJson(c.expectedJson).array();
    EXPECT_EQ(parse(QString::fromUtf8(c.text)), expected) << c.name;
}

INSTANTIATE_TEST_SUITE_P(
    Blocks, DmiParse,
    ::testing::Values(
        DmiCase{"second separator drops the rest", "T\n\tA: 1\n\tB: x: y\n", R"([{"A":"1","B":"x"}])"},
        DmiCase{"header carries the previous value and gathers items",
                "BIOS Information\n\tVersion: 2.1\n\tCharacteristics:\n\t\tPCI is supported\n\t\tBIOS is upgradeable\n",
                R"([{"Version":"2.1","Characteristics:":"2.1\nPCI is supported\nBIOS is upgradeable"}])"},
        DmiCase{"item before any property", "T\n\t\tlonely\n", R"([{"":"\nlonely"}])"},
        DmiCase{"array block dropped, device kept",
                "Physical Memory Array\n\tUse: System Memory\n\nMemory Device\n\tSize: 4 GB\n\n",
                R"([{"Size":"4 GB"}])"},
        DmiCase{"title only", "Memory Device\n\n", "[]"},
        DmiCase{"empty", "", "[]"},
        DmiCase{"later key overwrites, no trailing blank line", "T\n\tA: 1\n\tA: 2", R"([{"A":"2"}])"},
        DmiCase{"tabs inside are removed", "T\n\tA:\tB: c\td\n", R"([{"A:B":"cd"}])"}),
    [](const ::testing::TestParamInfo<DmiCase>& info) { return "case" + std::to_string(info.index); });

TEST(CDmiInfo, RunsDmidecodeQuietForTheType)
{
    FakeToolDir tools;
    invtest::addDmidecode(tools, QStringLiteral("laptop"));
    CDmiInfo dmi(tools.runner());
    QJsonArray out;
    EXPECT_TRUE(dmi.getDataToJSON(out, QStringLiteral("22")));
    EXPECT_EQ(out.at(0).toObject().value(QStringLiteral("Design Capacity")).toString(), QStringLiteral("48000 mWh"));
    ASSERT_EQ(tools.invocations(QStringLiteral("dmidecode")).size(), 1);
    EXPECT_EQ(tools.invocations(QStringLiteral("dmidecode")).at(0),
              (QStringList{QStringLiteral("-q"), QStringLiteral("-t"), QStringLiteral("22")}));
}

TEST(CDmiInfo, NoTablesMissingToolAndGarbageGiveFalse)
{
    FakeToolDir tools;
    invtest::addDmidecode(tools, QStringLiteral("nodmi"), 1);
    QJsonArray out;
    EXPECT_FALSE(CDmiInfo(tools.runner()).getDataToJSON(out, QStringLiteral("1")));
    EXPECT_TRUE(out.isEmpty());

    FakeToolDir none;
    EXPECT_FALSE(CDmiInfo(none.runner()).getDataToJSON(out, QStringLiteral("1")));

    FakeToolDir garbage;
    garbage.addTool(QStringLiteral("dmidecode"), QByteArray("\xff\xfe\t\t\t\n\x01\n\n\t: :\n", 13));
    EXPECT_TRUE(CDmiInfo(garbage.runner()).getDataToJSON(out, QStringLiteral("1")));
}

TEST(CDmiInfo, OutputEndsAtTheFirstZeroByte)
{
    FakeToolDir tools;
    tools.addTool(QStringLiteral("dmidecode"), QByteArray("T\n\tA: b\n\n\0T\n\tC: d\n", 18));
    QJsonArray out;
    EXPECT_TRUE(CDmiInfo(tools.runner()).getDataToJSON(out, QStringLiteral("1")));
    const QJsonArray expected{QJsonObject{{QStringLiteral("A"), QStringLiteral("b")}}};
    EXPECT_EQ(out, expected);
}

TEST(CDmiInfo, HangingDmidecodeIsCutOff)
{
    FakeToolDir tools;
    tools.addHangingTool(QStringLiteral("dmidecode"));
    QElapsedTimer t;
    t.start();
    QJsonArray out;
    EXPECT_FALSE(CDmiInfo(tools.runner(), 300).getDataToJSON(out, QStringLiteral("memory")));
    EXPECT_LT(t.elapsed(), 10000);
}

} // namespace
