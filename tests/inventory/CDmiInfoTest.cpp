#include "inventory/CDmiInfo.h"
#include "inventory/InventoryFixtures.h"

#include <gtest/gtest.h>

TEST(CDmiInfo, ParseFollowsDmidecodeLayout)
{
    const std::pair<const char*, const char*> cases[] = {
        {"T\n\tA: 1\n\tB: x: y\n", R"([{"A":"1","B":"x"}])"}, // a second ": " drops the rest
        // a list header carries the previous value and gathers the items below it
        {"BIOS Information\n\tVersion: 2.1\n\tCharacteristics:\n\t\tPCI is supported\n\t\tBIOS is "
         "upgradeable\n",
         R"([{"Version":"2.1","Characteristics:":"2.1\nPCI is supported\nBIOS is upgradeable"}])"},
        {"T\n\t\tlonely\n", R"([{"":"\nlonely"}])"},
        {"Physical Memory Array\n\tUse: System Memory\n\nMemory Device\n\tSize: 4 GB\n\n",
         R"([{"Size":"4 GB"}])"},
        {"Memory Device\n\n", "[]"},
        {"", "[]"},
        {"T\n\tA: 1\n\tA: 2", R"([{"A":"2"}])"},
        {"T\n\tA:\tB: c\td\n", R"([{"A:B":"cd"}])"},
    };
    for (const auto& c : cases) {
        QJsonArray out;
        CDmiInfo::parseDmiOutput(c.first, out);
        EXPECT_EQ(out, QJsonDocument::fromJson(c.second).array()) << c.first;
    }
    EXPECT_EQ(CDmiInfo::decodeOutput(QByteArray("T\n\tA: b\n\0T\n\tC: d\n", 17)), "T\n\tA: b\n");
}
