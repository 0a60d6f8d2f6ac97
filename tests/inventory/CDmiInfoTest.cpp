#include "inventory/CDmiInfo.h"
#include "inventory/InventoryFixtures.h"

#include <gtest/gtest.h>

namespace {

struct DmiCase {
    const char* text;
    const char* expectedJson; // array
};

class DmiParse : public ::testing::TestWithParam<DmiCase> {};

TEST_P(DmiParse, MatchesDmidecodeLayout)
{
    QJsonArray out;
    CDmiInfo::parseDmiOutput(GetParam().text, out);
    EXPECT_EQ(out, QJsonDocument::fromJson(GetParam().expectedJson).array()) << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(
    Blocks, DmiParse,
    ::testing::Values(
        // a second ": " drops the rest
        DmiCase{"T\n\tA: 1\n\tB: x: y\n", R"([{"A":"1","B":"x"}])"},
        // a list header carries the previous value and gathers the items below it
        DmiCase{"BIOS Information\n\tVersion: 2.1\n\tCharacteristics:\n\t\tPCI is supported\n\t\tBIOS is upgradeable\n",
                R"([{"Version":"2.1","Characteristics:":"2.1\nPCI is supported\nBIOS is upgradeable"}])"},
        DmiCase{"T\n\t\tlonely\n", R"([{"":"\nlonely"}])"},
        DmiCase{"Physical Memory Array\n\tUse: System Memory\n\nMemory Device\n\tSize: 4 GB\n\n", R"([{"Size":"4 GB"}])"},
        DmiCase{"Memory Device\n\n", "[]"}, DmiCase{"", "[]"},
        DmiCase{"T\n\tA: 1\n\tA: 2", R"([{"A":"2"}])"},
        DmiCase{"T\n\tA:\tB: c\td\n", R"([{"A:B":"cd"}])"}));

TEST(CDmiInfo, RunsDmidecodeQuietForTheType)
{
    edrtest::FakeToolDir tools;
    invtest::addScenarioTools(tools, "laptop");
    QJsonArray out;
    EXPECT_TRUE(CDmiInfo(tools.runner()).getDataToJSON(out, "22"));
    EXPECT_EQ(tools.invocations("dmidecode"), QList<QStringList>{(QStringList{"-q", "-t", "22"})});

    QJsonArray none;
    EXPECT_FALSE(CDmiInfo(edrtest::FakeToolDir().runner()).getDataToJSON(none, "1"));
    EXPECT_TRUE(none.isEmpty());
    EXPECT_EQ(CDmiInfo::decodeOutput(QByteArray("T\n\tA: b\n\0T\n\tC: d\n", 17)), "T\n\tA: b\n");
}

} // namespace
