#include "control/TerminalManager.h"

#include "control/ControlTestHelpers.h"

using edrtest::FakeToolDir;
using edrtest::ServerUnderTest;

TEST(TerminalManagerTest, ArgumentForms)
{
    const struct {
        const char* arg;
        const char* id; // nullptr: refused
        bool asUser;
        const char* command;
    } cases[] = {
        {"12|U|sleep 70", "12", true, "sleep 70"},
        {"7|Uptime", "7", true, "Uptime"}, // the flag without a second '|'
        {"1|X|y", "1", false, "y"},        // a second '|' without the flag
        {"12|", "12", false, ""},
        {"5|U", "5", true, "U"},
        {"|ls", nullptr, false, ""},
        {"ls", nullptr, false, ""},
    };
    for (const auto& c : cases) {
        const auto request = TerminalManager::parseArgument(QString::fromUtf8(c.arg));
        ASSERT_EQ(request.has_value(), c.id != nullptr) << c.arg;
        if (request) {
            EXPECT_EQ(std::make_tuple(request->id, request->asUser, request->command),
                      std::make_tuple(QString::fromUtf8(c.id), c.asUser, QString::fromUtf8(c.command)))
                << c.arg;
        }
    }
}

TEST(TerminalManagerTest, CommandsRunWithoutShellAndOutputIsPosted)
{
    const struct {
        const char* arg;
        const char* output;
    } cases[] = {
        {"12|echo a | wc", "a | wc\n"},
        {"13|sh -c \"echo oops >&2\"", ""},
        {"14|U|printf \"%s|\" \"two words\" $HOME", "two words|$HOME|"},
    };
    for (const auto& c : cases) {
        ServerUnderTest peer;
        TerminalManager manager; // the real echo, sh and printf
        const QString arg = QString::fromUtf8(c.arg);
        EXPECT_TRUE(manager.sendRptToServer(arg)) << c.arg;
        const QJsonObject expected{{"_id", arg.left(2)},
                                   {"cmd", TerminalManager::parseArgument(arg)->command},
                                   {"status", 2},
                                   {"Error", 0},
                                   {"Output", QString::fromUtf8(c.output)}};
        EXPECT_EQ(peer.onlyPostedObject("cmdAndPS/cmdOutput"), expected) << c.arg;
    }
}

TEST(TerminalManagerTest, OverrunOrMissingProgramPostsStatusOneWithoutOutput)
{
    edrtest::ScopedTimeScale fast(0.05); // 20 s -> 1 s, 60 s -> 3 s
    const struct {
        const char* arg;
        int status;
    } cases[] = {{"9|sleep 2", 1}, {"9|U|sleep 2", 2}, {"9|no-such-program-here", 1}, {"9| ", 1}};
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
    } cases[] = {{"|ls", "Invalid Parameters!"}, {"ls", "Invalid Parameters!"}, {"12|U|", "Failed to Send Terminal Output."}};
    for (const auto& c : cases) {
        ServerUnderTest peer;
        FakeToolDir tools;
        tools.addTool(QStringLiteral("ls"), "listing\n");
        TerminalManager manager(tools.runner());
        EXPECT_FALSE(manager.sendRptToServer(QString::fromUtf8(c.arg))) << c.arg;
        EXPECT_TRUE(peer.server.requests().isEmpty()) << c.arg;
        EXPECT_TRUE(tools.invocations(QStringLiteral("ls")).isEmpty()) << c.arg;
        EXPECT_TRUE(peer.logHas(c.error)) << c.arg;
        EXPECT_TRUE(manager.sendRptToServer(QStringLiteral("1|ls -a"))); // flag released
    }
}

TEST(TerminalManagerTest, FloodingCommandIsCapped)
{
    ServerUnderTest peer;
    FakeToolDir tools;
    tools.addScript(QStringLiteral("flood"), "head -c " + QByteArray::number(TerminalManager::kMaxOutputBytes * 3 / 2) +
                                                 " /dev/zero | tr '\\0' y\n");
    TerminalManager manager(tools.runner());
    EXPECT_TRUE(manager.sendRptToServer(QStringLiteral("1|flood")));
    const QString output = peer.onlyPostedObject("cmdAndPS/cmdOutput").value(QStringLiteral("Output")).toString();
    EXPECT_EQ(output, QString(static_cast<int>(TerminalManager::kMaxOutputBytes), QLatin1Char('y')));
}
