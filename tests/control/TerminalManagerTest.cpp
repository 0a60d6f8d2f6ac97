#include "control/TerminalManager.h"

#include "control/ControlTestHelpers.h"

using edrtest::FakeToolDir;
using edrtest::ServerUnderTest;

TEST(TerminalManagerTest, CommandsRunWithoutShellWithinTheirLimits)
{
    const edrtest::TimeScale fast(0.05); // 20 s -> 1 s, 60 s -> 3 s
    ServerUnderTest peer;
    FakeToolDir fakes; // first on the search path; the rest are the real tools
    fakes.addTool(QStringLiteral("ls"), "listing\n");
    fakes.addScript(QStringLiteral("Uquick"), "echo done\n");
    const QByteArray capped(static_cast<int>(TerminalManager::kMaxOutputBytes), 'y');
    fakes.addScript(QStringLiteral("flood"),
                    "head -c " + QByteArray::number(capped.size() * 3 / 2) + " /dev/zero | tr '\\0' y\n");
    TerminalManager manager(ToolRunner({fakes.path(), "/usr/bin", "/bin"}));
    const struct {
        const char* arg;
        int status; // 0: nothing sent
        const char* cmd;
        const char* output; // nullptr: no "Output"
        const char* log;
    } cases[] = {
        {"12|echo a | wc", 2, "echo a | wc", "a | wc\n", nullptr},
        {"13|sh -c \"echo oops >&2\"", 2, "sh -c \"echo oops >&2\"", "", nullptr},
        {"14|U|printf \"%s|\" \"two words\" $HOME", 2, "printf \"%s|\" \"two words\" $HOME",
         "two words|$HOME|", nullptr},
        {"15|bash -c \"sleep 999.0625; true\"", 1, "bash -c \"sleep 999.0625; true\"", nullptr,
         "Failed to execute command!"},                // never ends: killed at the limit, grandchild too
        {"17|Uquick", 2, "Uquick", "done\n", nullptr}, // a user order without a second '|'
        {"18|X|echo y", 2, "echo y", "y\n", nullptr},  // a second '|' without the flag
        {"19|no-such-program-here", 1, "no-such-program-here", nullptr, nullptr},
        {"20| ", 1, " ", nullptr, nullptr},
        {"|ls", 0, nullptr, nullptr, "Invalid Parameters!"},
        {"ls", 0, nullptr, nullptr, nullptr},
        {"21|U|", 0, nullptr, nullptr, "Failed to Send Terminal Output."},
        {"22|U|flood", 2, "flood", capped.constData(), nullptr}, // output cut at the cap
    };
    int posted = 0;
    for (const auto& c : cases) {
        const QString arg = QString::fromUtf8(c.arg);
        EXPECT_EQ(manager.sendRptToServer(arg), c.status != 0) << c.arg;
        if (c.status != 0) {
            QJsonObject expected{{"_id", arg.left(2)}, {"cmd", c.cmd}, {"status", c.status}, {"Error", 0}};
            if (c.output)
                expected.insert("Output", QString::fromUtf8(c.output));
            EXPECT_EQ(peer.posted("cmdAndPS/cmdOutput", ++posted), expected) << c.arg;
        }
        EXPECT_EQ(peer.server.requests().size(), posted) << c.arg;
        EXPECT_TRUE(!c.log || peer.logHas(c.log)) << c.arg;
    }
    EXPECT_TRUE(fakes.invocations(QStringLiteral("ls")).isEmpty());
    EXPECT_EQ(edrtest::livingProcesses("sleep 999.0625"), 0);

    // A 'U' right after the id buys the longer limit, with or without the second '|'.
    const QPair<const char*, int> limits[] = {
        {"16|U|sleep 30", 60000}, {"17|Uquick", 60000}, {"18|X|echo y", 20000}, {"12|echo a | wc", 20000}};
    for (const auto& l : limits)
        EXPECT_EQ(TerminalManager::commandTimeoutMs(TerminalManager::parseArgument(l.first)->asUser),
                  l.second)
            << l.first;
}
