#include "control/TerminalManager.h"

#include "control/ControlTestHelpers.h"

#include <gtest/gtest.h>

using edrtest::FakeToolDir;
using edrtest::ServerUnderTest;

TEST(TerminalManagerTest, ArgumentForms)
{
    const struct {
        const char* arg;
        bool valid;
        const char* id;
        bool asUser;
        const char* command;
    } cases[] = {
        {"12|ls -l /tmp", true, "12", false, "ls -l /tmp"},
        {"12|U|sleep 70", true, "12", true, "sleep 70"},
        {"7|Uptime", true, "7", true, "Uptime"},   // the flag without a second '|'
        {"1|X|y", true, "1", false, "y"},          // a second '|' without the flag
        {"a|b|c|d", true, "a", false, "c|d"},
        {"12|", true, "12", false, ""},
        {"5|U", true, "5", true, "U"},
        {"5|U|", true, "5", true, ""},
        {"|ls", false, "", false, ""},
        {"ls", false, "", false, ""},
        {"", false, "", false, ""},
    };
    for (const auto& c : cases) {
        const auto request = TerminalManager::parseArgument(QString::fromUtf8(c.arg));
        ASSERT_EQ(request.has_value(), c.valid) << c.arg;
        if (!request)
            continue;
        EXPECT_EQ(request->id, QString::fromUtf8(c.id)) << c.arg;
        EXPECT_EQ(request->asUser, c.asUser) << c.arg;
        EXPECT_EQ(request->command, QString::fromUtf8(c.command)) << c.arg;
    }
}

TEST(TerminalManagerTest, CommandsRunWithoutShellAndOutputIsPosted)
{
    const struct {
        const char* arg;
        const char* id;
        const char* cmd;
        const char* output;
    } cases[] = {
        {"12|echo a | wc", "12", "echo a | wc", "a | wc\n"},
        {"13|sh -c \"echo oops >&2\"", "13", "sh -c \"echo oops >&2\"", ""},
        {"14|printf \"%s|\" \"two words\" three", "14", "printf \"%s|\" \"two words\" three", "two words|three|"},
        {"15|U|echo $HOME > /dev/null", "15", "echo $HOME > /dev/null", "$HOME > /dev/null\n"},
        {"16|printf caf\xc3\xa9", "16", "printf caf\xc3\xa9", "caf\xc3\xa9"},
    };
    for (const auto& c : cases) {
        ServerUnderTest peer;
        TerminalManager manager; // PATH: the real echo, sh, printf
        EXPECT_TRUE(manager.sendRptToServer(QString::fromUtf8(c.arg))) << c.arg;
        const QJsonObject expected{{"_id", QString::fromUtf8(c.id)},
                                   {"cmd", QString::fromUtf8(c.cmd)},
                                   {"status", 2},
                                   {"Error", 0},
                                   {"Output", QString::fromUtf8(c.output)}};
        EXPECT_EQ(peer.onlyPostedObject("cmdAndPS/cmdOutput"), expected) << c.arg;
        EXPECT_TRUE(peer.logHas("Successfully send Terminal Output to server.")) << c.arg;
    }
}

TEST(TerminalManagerTest, OverrunOrMissingProgramPostsStatusOneWithoutOutput)
{
    edrtest::ScopedTimeScale fast(0.05); // 20 s -> 1 s, 60 s -> 3 s
    const struct {
        const char* arg;
        int status;
    } cases[] = {
        {"9|sleep 2", 1},
        {"9|U|sleep 2", 2},
        {"9|no-such-program-here --x", 1},
        {"9| ", 1}, // splits into nothing: no program to start
    };
    for (const auto& c : cases) {
        ServerUnderTest peer;
        TerminalManager manager;
        EXPECT_TRUE(manager.sendRptToServer(QString::fromUtf8(c.arg))) << c.arg;
        const QJsonObject posted = peer.onlyPostedObject("cmdAndPS/cmdOutput");
        EXPECT_EQ(posted.value(QStringLiteral("status")).toInt(), c.status) << c.arg;
        EXPECT_EQ(posted.value(QStringLiteral("Error")), QJsonValue(0)) << c.arg;
        EXPECT_EQ(posted.contains(QStringLiteral("Output")), c.status == 2) << c.arg;
        EXPECT_EQ(peer.logHas("Failed to execute command!"), c.status == 1) << c.arg;
    }
}

TEST(TerminalManagerTest, MalformedOrEmptyCommandSendsNothing)
{
    const struct {
        const char* arg;
        const char* error;
    } cases[] = {
        {"|ls", "Invalid Parameters!"},
        {"ls", "Invalid Parameters!"},
        {"12|", "Failed to Send Terminal Output."},
        {"12|U|", "Failed to Send Terminal Output."},
    };
    for (const auto& c : cases) {
        ServerUnderTest peer;
        FakeToolDir tools;
        tools.addTool(QStringLiteral("ls"), "listing\n");
        TerminalManager manager(tools.runner());
        EXPECT_FALSE(manager.sendRptToServer(QString::fromUtf8(c.arg))) << c.arg;
        EXPECT_TRUE(peer.server.requests().isEmpty()) << c.arg;
        EXPECT_TRUE(tools.invocations(QStringLiteral("ls")).isEmpty()) << c.arg;
        EXPECT_TRUE(peer.logHas(c.error)) << c.arg;
        // The flag is clear again: a good command goes through.
        EXPECT_TRUE(manager.sendRptToServer(QStringLiteral("1|ls -a")));
        EXPECT_EQ(tools.invocations(QStringLiteral("ls")), QList<QStringList>{{QStringLiteral("-a")}});
    }
}

TEST(TerminalManagerTest, FloodingCommandIsCappedNotBuffered)
{
    ServerUnderTest peer;
    FakeToolDir tools;
    // Half again as much as the cap; the runner keeps reading and drops the rest.
    tools.addScript(QStringLiteral("flood"), "head -c " + QByteArray::number(TerminalManager::kMaxOutputBytes * 3 / 2) +
                                                 " /dev/zero | tr '\\0' y\n");
    TerminalManager manager(tools.runner());
    EXPECT_TRUE(manager.sendRptToServer(QStringLiteral("1|flood")));
    const QJsonObject posted = peer.onlyPostedObject("cmdAndPS/cmdOutput");
    EXPECT_EQ(posted.value(QStringLiteral("status")).toInt(), 2);
    const QString output = posted.value(QStringLiteral("Output")).toString();
    EXPECT_EQ(output.size(), TerminalManager::kMaxOutputBytes);
    EXPECT_EQ(output.count(QLatin1Char('y')), output.size());
}
