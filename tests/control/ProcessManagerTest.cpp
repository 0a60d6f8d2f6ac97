#include "control/ProcessManager.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using edrtest::FakeHttpServer;
using edrtest::ScratchPrefix;

QJsonObject bodyOf(const edrtest::RecordedRequest& request)
{
    return QJsonDocument::fromJson(request.body).object();
}

// Records compared in a stable order: directory order depends on the file system.
QList<QByteArray> sortedRecords(const QJsonArray& list)
{
    QList<QByteArray> out;
    for (const QJsonValue& v : list)
        out << QJsonDocument(v.toObject()).toJson(QJsonDocument::Compact);
    std::sort(out.begin(), out.end());
    return out;
}

pid_t spawnSleeper()
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::execlp("sleep", "sleep", "100", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    return pid;
}

class ProcessOrderTest : public ::testing::Test {
protected:
    void SetUp() override { prefix.pointAtServer(server.port()); }

    QJsonObject order(const QString& parameter)
    {
        const int before = server.requests().size();
        EXPECT_TRUE(manager.executeSendReportToServer(parameter));
        EXPECT_TRUE(server.waitForRequests(before + 1, 5000));
        const edrtest::RecordedRequest request = server.requests().last();
        EXPECT_EQ(request.target, QByteArray("/api/v1/settings/InvSettingsOutput"));
        return bodyOf(request);
    }

    ScratchPrefix prefix;
    FakeHttpServer server;
    ProcessManager manager;
};

TEST(ProcessManagerTest, ListsFixtureTreeWithItsQuirks)
{
    ProcessManager manager(HostPaths::fromFixtureRoot(edrtest::fixturePath(QStringLiteral("roots/processes"))));
    QJsonObject body;
    ASSERT_TRUE(manager.collectReport(body));
    ASSERT_EQ(body.keys(), QStringList{QStringLiteral("Process")});
    const QJsonArray expected =
        QJsonDocument::fromJson(edrtest::readFixture(QStringLiteral("expected/processes/processes.json")))
            .object()
            .value(QStringLiteral("Process"))
            .toArray();
    ASSERT_FALSE(expected.isEmpty());
    EXPECT_EQ(sortedRecords(body.value(QStringLiteral("Process")).toArray()), sortedRecords(expected));
}

TEST(ProcessManagerTest, ParseStatusTakesRawTrimmedValues)
{
    QJsonObject record;
    ProcessManager::parseStatus("Name:\tsleep\nState:\tS (sleeping)\nPPid:\t8849\nUid:\t1000\t1001\t1002\t1003\n"
                                "Uids:\t7\nThreads:\t  3 \nno colon here\nPPid :\t99\n",
                                record);
    EXPECT_EQ(record, QJsonObject({{"Status", "S (sleeping)"}, {"ParentProcessId", "8849"},
                                   {"UserId", "1000\t1001\t1002\t1003"}, {"ThreadCount", "3"}}));
    // Text after the first NUL is not part of the file; a truncated file gives what it holds.
    QJsonObject cut;
    ProcessManager::parseStatus(QByteArray("State:\tR\n\0Uid:\t0\n", 17), cut);
    ProcessManager::parseStatus("Threads:\t1", cut);
    EXPECT_EQ(cut, QJsonObject({{"Status", "R"}, {"ThreadCount", "1"}}));
}

TEST(ProcessManagerTest, KillTargetMustBeAPlainPositivePid)
{
    const struct {
        const char* text;
        int pid; // 0 = refused
    } cases[] = {{"1234", 1234}, {"0012", 12},    {"2147483647", 2147483647},
                 {"0", 0},       {"-1", 0},       {"abc", 0},
                 {"", 0},        {"+5", 0},       {" 5", 0},
                 {"5 ", 0},      {"2147483648", 0}, {"99999999999", 0},
                 {"12a", 0},     {"\xd9\xa3", 0}};
    for (const auto& c : cases) {
        const std::optional<unsigned int> pid = ProcessManager::parseKillTarget(QString::fromUtf8(c.text));
        if (c.pid == 0)
            EXPECT_FALSE(pid.has_value()) << c.text;
        else
            EXPECT_EQ(pid.value_or(0), static_cast<unsigned int>(c.pid)) << c.text;
    }
}

TEST(ProcessManagerTest, ReportsRealProcesses)
{
    const pid_t child = spawnSleeper();
    ASSERT_GT(child, 0);
    ProcessManager manager;
    QJsonObject mine, sleeper;
    int pidZero = 0;
    // The child may still be exec'ing: wait until it shows as sleep.
    for (int attempt = 0; attempt < 50 && sleeper["Name"] != "sleep\n"; ++attempt, ::usleep(20000)) {
        QJsonObject body;
        ASSERT_TRUE(manager.collectReport(body));
        pidZero = 0;
        for (const QJsonValue& v : body["Process"].toArray()) {
            const int pid = v["ProcessId"].toInt();
            mine = pid == ::getpid() ? v.toObject() : mine;
            sleeper = pid == child ? v.toObject() : sleeper;
            if (pid == 0) {
                ++pidZero;
                EXPECT_EQ(v.toObject(), QJsonObject({{"ProcessId", 0}, {"Name", "Unknown"}, {"CommandLine", "Unknown"}}));
            }
        }
    }
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);

    EXPECT_GE(pidZero, 1); // "self" at least
    EXPECT_EQ(sleeper["Name"], "sleep\n");
    EXPECT_EQ(sleeper["CommandLine"], "sleep");
    EXPECT_EQ(sleeper["ParentProcessId"], QString::number(::getpid()));
    EXPECT_EQ(sleeper["ThreadCount"], "1");
    const QString uid = QString::number(::getuid());
    EXPECT_EQ(mine["UserId"], QStringList({uid, uid, uid, uid}).join('\t'));
    EXPECT_TRUE(mine["Status"].toString().startsWith("R (running)"));
}

TEST(ProcessManagerTest, ReportIsPostedToProcessesRoute)
{
    ScratchPrefix prefix;
    FakeHttpServer server;
    prefix.pointAtServer(server.port());
    ProcessManager manager(HostPaths::fromFixtureRoot(edrtest::fixturePath(QStringLiteral("roots/processes"))));
    EXPECT_TRUE(manager.sendRptToServer(QString()));
    ASSERT_EQ(server.requests().size(), 1);
    EXPECT_EQ(server.requests().first().target, QByteArray("/api/v1/machineInfo/addProcesses"));
    EXPECT_EQ(bodyOf(server.requests().first()).value(QStringLiteral("Process")).toArray().size(), 7);
    EXPECT_TRUE(prefix.traceLog().contains("Successfully send processes to server."));
}

TEST_F(ProcessOrderTest, KillsARealChildAndReportsIt)
{
    const pid_t child = spawnSleeper();
    ASSERT_GT(child, 0);
    const QJsonObject result = order(QStringLiteral("1|%1|abc").arg(child));
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    EXPECT_EQ(result, QJsonObject({{QStringLiteral("_id"), QStringLiteral("abc")},
                                   {QStringLiteral("status"), 0},
                                   {QStringLiteral("message"), QStringLiteral("Successfully Killed %s!")}}));
    const QByteArray log = prefix.traceLog();
    EXPECT_TRUE(log.contains("Successfully Killed " + QByteArray::number(child) + "!"));
    EXPECT_TRUE(log.contains("Successfully Send Process Action to server."));
}

TEST_F(ProcessOrderTest, FailedOrdersPostStatusOneAndKillNothing)
{
    // Find a pid nobody uses.
    pid_t unused = 4000000;
    while (::kill(unused, 0) == 0 || errno != ESRCH)
        --unused;
    const pid_t bystander = spawnSleeper();
    ASSERT_GT(bystander, 0);
    const struct {
        QString parameter;
        QJsonValue id; // Undefined = no "_id"
    } cases[] = {
        {QStringLiteral("2|bash|abc"), QStringLiteral("abc")},
        {QStringLiteral("9|%1|r9").arg(bystander), QStringLiteral("r9")},
        {QStringLiteral("x|%1|rx").arg(bystander), QStringLiteral("rx")},
        {QStringLiteral("1|%1|gone").arg(unused), QStringLiteral("gone")},
        {QStringLiteral("1|abc|r1"), QStringLiteral("r1")},
        {QStringLiteral("1|0|r2"), QStringLiteral("r2")},
        {QStringLiteral("1|-1|r3"), QStringLiteral("r3")},
        {QStringLiteral("1||r4"), QStringLiteral("r4")},
        {QStringLiteral("1|%1").arg(bystander), QJsonValue(QJsonValue::Undefined)},
        {QStringLiteral("1"), QJsonValue(QJsonValue::Undefined)},
        {QString(), QJsonValue(QJsonValue::Undefined)},
    };
    for (const auto& c : cases) {
        const QJsonObject result = order(c.parameter);
        EXPECT_EQ(result.value(QStringLiteral("status")), QJsonValue(1)) << qPrintable(c.parameter);
        EXPECT_EQ(result.value(QStringLiteral("message")), QJsonValue(QStringLiteral("Failed to Kill %s!")));
        EXPECT_EQ(result.value(QStringLiteral("_id")), c.id) << qPrintable(c.parameter);
        EXPECT_EQ(result.size(), c.id.isUndefined() ? 2 : 3);
    }
    // We are still here (no kill(0) or kill(-1)) and so is the bystander.
    EXPECT_EQ(::waitpid(bystander, nullptr, WNOHANG), 0);
    ::kill(bystander, SIGKILL);
    ::waitpid(bystander, nullptr, 0);
}

TEST_F(ProcessOrderTest, SecondOrderWhilePostingIsRefused)
{
    bool nested = true;
    int nestedRequests = -1;
    server.setHandler([&](const edrtest::RecordedRequest&) {
        // Arrives while the first order is still waiting for this answer.
        nestedRequests = server.requests().size();
        nested = manager.executeSendReportToServer(QStringLiteral("2|bash|second"));
        return edrtest::CannedReply();
    });
    const QJsonObject first = order(QStringLiteral("2|bash|first"));
    EXPECT_EQ(first.value(QStringLiteral("_id")).toString(), QStringLiteral("first"));
    EXPECT_FALSE(nested);
    EXPECT_EQ(server.requests().size(), nestedRequests + 1); // the first order's post only
    // The flag is cleared afterwards.
    server.setReply(edrtest::CannedReply());
    EXPECT_EQ(order(QStringLiteral("2|bash|third")).value(QStringLiteral("_id")).toString(), QStringLiteral("third"));
}

TEST(ProcessManagerTest, StartProcess)
{
    ProcessManager manager;
    EXPECT_TRUE(manager.startProcess(QStringLiteral("true"), {}, false, 1));
    EXPECT_FALSE(manager.startProcess(QStringLiteral("no-such-program-here"), {}, false, 1));

    // Without waiting the child does not outlive the call.
    QTemporaryDir dir;
    const QString marker = dir.filePath(QStringLiteral("late"));
    EXPECT_TRUE(manager.startProcess(QStringLiteral("sh"),
                                     {QStringLiteral("-c"), QStringLiteral("sleep 1; touch '%1'").arg(marker)}, false,
                                     0));
    ::usleep(1500000);
    EXPECT_FALSE(QFile::exists(marker));
}

} // namespace
