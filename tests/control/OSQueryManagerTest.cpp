#include "control/OSQueryManager.h"

#include "control/ControlTestHelpers.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>

#include <gtest/gtest.h>

using edrtest::FakeToolDir;
using edrtest::ServerUnderTest;

namespace {

// Puts the fake named "osquery" in tools where the agent expects its own
// osquery executable; it keeps recording its arguments in tools.
void installAsOsquery(const FakeToolDir& tools)
{
    ASSERT_TRUE(QDir().mkpath(Common::getRootPath() + QStringLiteral("/osquery")));
    ASSERT_TRUE(QFile::link(tools.path() + QStringLiteral("/osquery"), OSQueryManager::osqueryPath()));
}

QJsonArray noData()
{
    return QJsonArray{QJsonObject{{"Output", "NO DATA FOUND"}}};
}

} // namespace

TEST(OSQueryManagerTest, OutputParsing)
{
    const QByteArray rowsText = edrtest::readFixture(QStringLiteral("commands/osquery/processes.stdout"));
    const std::optional<QJsonArray> rows = OSQueryManager::parseOutput(rowsText);
    ASSERT_TRUE(rows);
    ASSERT_EQ(rows->size(), 3);
    EXPECT_EQ(rows->at(1).toObject(),
              QJsonObject({{"name", "sshd"}, {"path", "/usr/sbin/sshd"}, {"pid", "612"}}));
    // Every UTF-8 byte of a non-ASCII character arrives as a character of its own.
    EXPECT_EQ(rows->at(2).toObject().value(QStringLiteral("name")).toString(),
              QStringLiteral("caf\u00c3\u00a9-daemon"));

    EXPECT_EQ(OSQueryManager::parseOutput(edrtest::readFixture(QStringLiteral("commands/osquery/no-rows.stdout"))),
              noData());
    EXPECT_EQ(OSQueryManager::parseOutput("[]"), noData());
    EXPECT_EQ(OSQueryManager::parseOutput("[\"\xff\"]"), QJsonArray{QStringLiteral("\u00ff")});
    EXPECT_EQ(OSQueryManager::parseOutput("[1,{}]"), (QJsonArray{1, QJsonObject()}));

    for (const char* bad : {"", "Error: near \"selec\": syntax error\n", "null", "\"[]\"", "{}"})
        EXPECT_FALSE(OSQueryManager::parseOutput(bad)) << bad;
    for (const char* fixture : {"object.stdout", "truncated.stdout"})
        EXPECT_FALSE(OSQueryManager::parseOutput(
            edrtest::readFixture(QStringLiteral("commands/osquery/") + QString::fromUtf8(fixture))))
            << fixture;
}

TEST(OSQueryManagerTest, ArgumentIsQuotedIdAndQuery)
{
    const struct {
        const char* arg;
        bool valid;
        const char* id;
        const char* query;
    } cases[] = {
        {"\"5|select 1\"", true, "5", "select 1"},
        {"'5|select a|b'", true, "5", "select a"}, // cut at the second '|'
        {"x|y", true, "", ""},                     // the outer characters go unseen
        {"\"|\"", true, "", ""},
        {"\"5\"", false, "", ""},
        {"5|", false, "", ""},
        {"|", false, "", ""},
        {"", false, "", ""},
    };
    for (const auto& c : cases) {
        const auto request = OSQueryManager::parseArgument(QString::fromUtf8(c.arg));
        ASSERT_EQ(request.has_value(), c.valid) << c.arg;
        if (!request)
            continue;
        EXPECT_EQ(request->id, QString::fromUtf8(c.id)) << c.arg;
        EXPECT_EQ(request->query, QString::fromUtf8(c.query)) << c.arg;
    }
}

TEST(OSQueryManagerTest, RowsArePostedWithTheId)
{
    const struct {
        const char* fixture;
        QJsonArray (*expected)();
    } cases[] = {
        {"processes.stdout",
         [] {
             return OSQueryManager::parseOutput(edrtest::readFixture(QStringLiteral("commands/osquery/processes.stdout")))
                 .value_or(QJsonArray());
         }},
        {"no-rows.stdout", noData},
    };
    for (const auto& c : cases) {
        ServerUnderTest peer;
        FakeToolDir tools;
        tools.addToolFromFixture(QStringLiteral("osquery"), QStringLiteral("commands/osquery/") + QString::fromUtf8(c.fixture));
        installAsOsquery(tools);
        OSQueryManager manager{ToolRunner(QStringList())}; // nothing found by name: the absolute path is used
        EXPECT_TRUE(manager.sendRptToServer(QStringLiteral("\"5|select name, path, pid from processes\""))) << c.fixture;
        EXPECT_EQ(tools.invocations(QStringLiteral("osquery")),
                  QList<QStringList>({{QStringLiteral("--json"), QStringLiteral("select name, path, pid from processes")}}));
        EXPECT_EQ(peer.onlyPostedObject("cmdAndPS/osqueryoutput"), QJsonObject({{"_id", "5"}, {"Output", c.expected()}}))
            << c.fixture;
        EXPECT_TRUE(peer.logHas("Successfully send osquery output to server.")) << c.fixture;
    }
}

TEST(OSQueryManagerTest, FailedQueriesSendNothing)
{
    edrtest::ScopedTimeScale fast(0.01); // 30 s -> 300 ms
    enum Fake { Missing, SyntaxError, ErrorOnStdout, Hang, NotExecutable };
    const struct {
        Fake fake;
        const char* arg;
        const char* error;
        bool runs;
    } cases[] = {
        {Missing, "\"1|select 1\"", "Failed to run OSQuery!", false},
        {SyntaxError, "\"2|selec 1\"", "OSQuery output is not in JSON Format!", true},
        {ErrorOnStdout, "\"3|selec 1\"", "OSQuery output is not in JSON Format!", true},
        {Hang, "\"4|select 1\"", "Failed to run OSQuery!", true},
        {NotExecutable, "\"5|select 1\"", "Failed to run OSQuery!", false},
        {SyntaxError, "\"6\"", "Invalid Parameters!", false},
    };
    for (const auto& c : cases) {
        ServerUnderTest peer;
        FakeToolDir tools;
        switch (c.fake) {
        case Missing:
            break;
        case SyntaxError:
            tools.addScript(QStringLiteral("osquery"), "cat '" +
                                                           edrtest::fixturePath(QStringLiteral(
                                                               "commands/osquery/syntax-error.stderr")).toUtf8() +
                                                           "' >&2\nexit 1\n");
            break;
        case ErrorOnStdout:
            tools.addToolFromFixture(QStringLiteral("osquery"), QStringLiteral("commands/osquery/syntax-error.stderr"), 1);
            break;
        case Hang:
            tools.addHangingTool(QStringLiteral("osquery"));
            break;
        case NotExecutable:
            tools.addTool(QStringLiteral("osquery"), "[]");
            QFile::setPermissions(tools.path() + QStringLiteral("/osquery"), QFile::ReadOwner);
            break;
        }
        if (c.fake != Missing)
            installAsOsquery(tools);
        OSQueryManager manager;
        EXPECT_FALSE(manager.sendRptToServer(QString::fromUtf8(c.arg))) << c.arg;
        EXPECT_TRUE(peer.server.requests().isEmpty()) << c.arg;
        EXPECT_EQ(tools.invocations(QStringLiteral("osquery")).size(), c.runs ? 1 : 0) << c.arg;
        EXPECT_TRUE(peer.logHas(c.error)) << c.arg;
        EXPECT_TRUE(peer.logHas("Failed to osquery output.")) << c.arg;
    }
}
