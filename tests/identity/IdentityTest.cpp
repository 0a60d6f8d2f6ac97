#include "identity/AgentDetails.h"
#include "identity/ServerDetails.h"
#include "identity/SizeOperation.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <utility>

// Every key is read from the file at each call; the group spelling matters; garbage gives defaults.
TEST(ServerDetails, EveryKeyComesFromTheFileAtEachCall)
{
    edrtest::ScratchPrefix prefix;
    const ServerDetails* s = ServerDetails::getInstance();
    auto values = [s] { // and the server addresses the listener takes commands from
        return s->getServerIP() + QStringLiteral(" %1 ").arg(s->getServerPort()) + s->getServerAPIVersion() +
               QStringLiteral(" %1 %2 [").arg(s->getServerSocketPort()).arg(s->getAgentListenPort()) +
               s->getConfiguredServerAddresses().join(',') + ']';
    };
    EXPECT_EQ(values(), "NA 7777 v1 3098 3097 []");
    const std::pair<QByteArray, const char*> cases[] = {
        {"[server]\nEDRIP=NA\nACIP=10.0.0.5\n[Server]\nEDRPORT=8080\nEDRSAPIVER=v2\nEDRSPORT=4000\nEDRSLPORT="
         "4001\n",
         "10.0.0.5 8080 v2 4000 4001 [10.0.0.5]"},
        {"[server]\nEDRIP=na\nACIP=10.0.0.5\n",
         "na 7777 v1 3098 3097 [na,10.0.0.5]"}, // the fallback is for NA exactly
        {"[Server]\nEDRIP=10.1.1.1\n[server]\nEDRPORT=9999\n", "NA 7777 v1 3098 3097 []"},
        {QByteArray("\x00\xff\xfe[[[server\n==\n", 14), "NA 7777 v1 3098 3097 []"},
        {"[Server]\nEDRSLPORT= 65535 \n", "NA 7777 v1 3098 65535 []"},
    };
    for (const auto& [ini, expected] : cases) {
        prefix.writeServerIni(ini);
        EXPECT_EQ(values(), QLatin1String(expected)) << ini.constData();
    }

    for (const char* bad : {"notanumber", "0", "65536", "-1", "80x", "1,2", ""}) {
        prefix.writeServerIni(QByteArray("[Server]\nEDRSPORT=4000\nEDRSLPORT=") + bad + "\n");
        const int lines = prefix.traceLog().count("EDRSLPORT in serverip.ini is not a port number");
        EXPECT_EQ(values(), "NA 7777 v1 4000 0 []") << bad;
        EXPECT_EQ(prefix.traceLog().count("EDRSLPORT in serverip.ini is not a port number"), lines + 1)
            << bad;
    }
}

TEST(SizeOperation, BytesToTextAndTextToBytesWithItsQuirks)
{
    const std::pair<long long, const char*> out[] = {
        {1023, "1023 Bytes"}, {1024, "1 KB"},   {1048575, "1023 KB"},   {1048576, "1 MB"},
        {1073741824, "1 GB"}, {-5, "-5 Bytes"}, {5LL << 40, "5120 GB"}, {0, "0 Bytes"}};
    for (const auto& [bytes, text] : out)
        EXPECT_EQ(SizeOperation::getBytesSizeInString(bytes), QLatin1String(text)) << bytes;
    const std::pair<const char*, long long> in[] = {{"1.5 GB", 1610612736},
                                                    {"7.8G", 8375186227LL},
                                                    {"512 KB", 524288},
                                                    {"12G", 12884901888LL},
                                                    {"1.5M", 1572864},
                                                    {"512 Bytes", 0},
                                                    {"2 gb", 0},
                                                    {"0 MB", 0},
                                                    {"", 0},
                                                    {"G", 0},
                                                    {"1e400 G", 0}};
    for (const auto& [text, bytes] : in)
        EXPECT_EQ(SizeOperation::getStringSizeInBytes(QLatin1String(text)), bytes) << text;
}

// Reloading never duplicates a card; the push channel's key is the corporate id, not the corporate key.
TEST(AgentDetails, LanCardsFromTheMachineAndThePushKey)
{
    AgentDetails* details = AgentDetails::getInstance();
    const auto cards = details->getAllLanCardDetails();
    for (const auto& card : cards) {
        EXPECT_FALSE(card.ipAddresses.contains("127.0.0.1"));
        EXPECT_EQ(card.ipAddresses.size(), card.subnetMasks.size());
    }
    details->getLocalIpAddress();
    EXPECT_EQ(details->getAllLanCardDetails().size(), cards.size());

    edrtest::ScratchPrefix prefix;
    EdrAgentConfig().setSetting("CorporateID", "corp-1");
    EdrAgentConfig().setSetting("CorporateKey", "key-1");
    EXPECT_EQ(details->getCorpKey(), "corp-1");
}
