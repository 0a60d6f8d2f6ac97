#include "schedule/ScheduleManager.h"
#include "core/EdrAgentConfig.h"
#include "core/HostPaths.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace edrtest;

namespace
{

// One row per entry: name, enabled, run on start, interval, retry interval, counter.
QStringList dump(const QList<ScheduleInfo>& s)
{
    QStringList rows;
    for (const ScheduleInfo& e : s)
        rows << e.getScheduleName() + QString::asprintf(" %d %d %u %u %u", e.getEnable(), e.getRunOnStart(),
                                                        e.getInterval(), e.getRetryInterval(),
                                                        e.getCurrentInterval());
    return rows;
}

QStringList defaults()
{
    QStringList rows =
        QStringLiteral(
            "AgentInfo 1 1 15,StartUp 1 1 180,Services 1 1 180,Processes 1 1 180,InstalledSoft 1 1 1440,"
            "TaskSchedule 1 1 1440,Network 0 1 1440,HardwareInfo 1 1 180,WindowsUpdates 0 1 1440,Registry 0 "
            "1 1440,"
            "Explorer 0 1 1440,Network_Mon 1 1 180,AppCon_Logs 0 1 1440,Quorvex_Logs 0 1 1440,WebProt_Logs 0 "
            "1 1440,"
            "Network_Logs 0 1 1440,Event_Logs 1 1 60,CReports_Logs 0 1 1440,MTasks 0 1 1440,Termina 0 1 1440,"
            "Powershel 0 1 1440,ActionResponse 0 1 1440,WindowsFirewallStatus 0 1 1440,ASR_Rules 0 1 1440,"
            "OS_Query 0 1 1440")
            .split(QLatin1Char(','));
    for (QString& row : rows)
        row += QStringLiteral(" 15 0");
    return rows;
}

void writeFile(const QString& path, const QByteArray& bytes)
{
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    f.write(bytes);
}

} // namespace

class ScheduleManagerTest : public ::testing::Test
{
protected:
    ScheduleManagerTest()
    {
        manager.setDispatchForTesting([this](TasksManager::TASK_NAMES task, const QString& arg) {
            dispatched << task;
            EXPECT_TRUE(arg.isEmpty());
            return false;
        });
    }
    int logCount(const QByteArray& text) const { return prefix.traceLog().count(text); }
    QString scheduleFile() const { return manager.getScheduleFilePath(); }

    ScratchPrefix prefix; // trace level, log under the prefix
    ScheduleManager manager;
    QList<int> dispatched;
};

TEST_F(ScheduleManagerTest, OverlayChangesOnlyNamedValuesAndBadFilesChangeNothing)
{
    QByteArray file =
        "<?xml version=\"1.0\"?>\n<!-- from the server -->\n<Bogus><Enabled>1</Enabled></Bogus>\n"
        "<Network><Enabled>4294967297</Enabled><Run_on_Start>0x10</Run_on_Start><Interval>-1</Interval>"
        "<Retry_Interval> \n\t+42abc</Retry_Interval></Network>\n"
        "<Event_Logs><Enabled>4294967296</Enabled><Run_on_Start>word</Run_on_Start>"
        "<Interval>0</Interval><Retry_Interval>99999999999999999999</Retry_Interval></Event_Logs>\n"
        "<agentinfo><Interval>5</Interval></agentinfo><AgentInfoX><Interval>5</Interval></AgentInfoX>"
        "<Services><interval>5</interval></Services><StartUp><Interval>&#51;3</Interval></StartUp>"
        "<Processes><Interval></Interval><Interval>9</Interval></Processes>"
        "<HardwareInfo/><HardwareInfo><Interval>9</Interval></HardwareInfo>"
        "<Registry><Interval>4294967301</Interval></Registry><Registry><Interval>9</Interval></Registry>";
    for (int i = 0; i < 3000; ++i)
        file += "<Filler" + QByteArray::number(i) + "><Interval>1</Interval></Filler" +
                QByteArray::number(i) + ">";
    writeFile(scheduleFile(), file + QByteArray("\0<OS_Query><Enabled>1</Enabled></OS_Query>", 42));
    ASSERT_TRUE(manager.getLatestSchedules());
    QStringList expected = defaults();
    expected[TasksManager::StartUp] = QStringLiteral("StartUp 1 1 33 15 0");
    expected[TasksManager::Processes] = QStringLiteral("Processes 1 1 0 15 0");
    expected[TasksManager::Network] = QStringLiteral("Network 1 0 4294967295 42 0");
    expected[TasksManager::Registry] = QStringLiteral("Registry 0 1 5 15 0");
    expected[TasksManager::Event_Logs] = QStringLiteral("Event_Logs 0 0 0 4294967295 0");
    EXPECT_EQ(dump(manager.getSchedules()), expected);

    // A newer file changes only what it names; counters go on.
    for (int i = 0; i < 3; ++i)
        manager.onScheduleTimer();
    writeFile(scheduleFile(), "<Event_Logs><Interval>9</Interval></Event_Logs>");
    ASSERT_TRUE(manager.getLatestSchedules());
    const QStringList after = dump(manager.getSchedules());
    EXPECT_EQ(after.at(TasksManager::Network), QStringLiteral("Network 1 0 4294967295 42 3"));
    EXPECT_EQ(after.at(TasksManager::Event_Logs),
              QStringLiteral("Event_Logs 0 0 9 4294967295 0")); // disabled: frozen

    // No content: no file; empty content: a FIFO, which must not block.
    const std::pair<std::optional<QByteArray>, const char*> bad[] = {
        {std::nullopt, "| Failed to read Schedule DB Failed!"},
        {QByteArray(), "| Failed to read Schedule DB Failed!"},
        {QByteArray("<AgentInfo><Interval>7</Interv"), "| CATCHED"},
        {QByteArray(ScheduleManager::kMaxScheduleFileBytes - 1, ' ').prepend("<AgentInfo/>"), "| CATCHED"},
    };
    for (const auto& [content, line] : bad) {
        QFile::remove(scheduleFile());
        if (content && content->isEmpty())
            ASSERT_EQ(::mkfifo(QFile::encodeName(scheduleFile()).constData(), 0600), 0);
        else if (content)
            writeFile(scheduleFile(), *content);
        const int lines = logCount(line);
        EXPECT_FALSE(manager.getLatestSchedules()) << line;
        EXPECT_EQ(logCount(line), lines + 1) << line;
        EXPECT_EQ(dump(manager.getSchedules()), after) << line;
    }
}

// Local calendar dates count, whatever offset the last run was written with.
TEST(ScheduleStartUp, DueUnlessItRanOnTodaysLocalDate)
{
    ScheduleInfo entry;
    entry.setEnable(true);
    entry.setRunOnStart(true);
    const QDateTime now(QDate(2026, 3, 10), QTime(12, 0));
    const int local = now.offsetFromUtc();
    const QPair<QDateTime, bool> cases[] = {
        // today 00:10 written as yesterday 23:10, yesterday 23:50 written as today 00:50
        {QDateTime(QDate(2026, 3, 10), QTime(0, 10)).toOffsetFromUtc(local - 3600), false},
        {QDateTime(QDate(2026, 3, 9), QTime(23, 50)).toOffsetFromUtc(local + 3600), true},
        {now.addDays(1), false},
    };
    for (const auto& [lastRun, due] : cases)
        EXPECT_EQ(ScheduleManager::isDueAtStartUp(entry, lastRun, now), due)
            << qPrintable(lastRun.toString(Qt::ISODate));
    entry.setRunOnStart(false);
    EXPECT_FALSE(ScheduleManager::isDueAtStartUp(entry, QDateTime(), now));
}

// A FIFO at schedule.db must not block the download.
TEST_F(ScheduleManagerTest, ConfigDownloadWritesOnlyARegularFile)
{
    FakeHttpServer server;
    prefix.pointAtServer(server.port());
    server.setReply({200, "<AgentInfo><Interval>30</Interval></AgentInfo>", "application/xml"});
    const QByteArray fifo = QFile::encodeName(scheduleFile());
    ASSERT_EQ(::mkfifo(fifo.constData(), 0600), 0);
    // Held open for reading, so that writing into the FIFO fails the test instead of hanging it.
    const int reader = ::open(fifo.constData(), O_RDONLY | O_NONBLOCK);
    EXPECT_FALSE(manager.getAgentConfigFromServer());
    ::close(reader);
    EXPECT_EQ(logCount("Failed to open Agent Config file for write."), 1);
}

// An interval N first matches on tick N + 1, then every N ticks; 0 matches every tick.
TEST_F(ScheduleManagerTest, EachTickDispatchesWhatMatchedAndLogsTheFailure)
{
    writeFile(scheduleFile(),
              "<AgentInfo><Interval>0</Interval></AgentInfo><StartUp><Interval>2</Interval></StartUp>");
    ASSERT_TRUE(manager.getLatestSchedules());
    for (int i = 0; i < 5; ++i)
        manager.onScheduleTimer();
    const int agent = TasksManager::AgentInfo, startUp = TasksManager::StartUp;
    EXPECT_EQ(dispatched, (QList<int>{agent, agent, agent, startUp, agent, agent, startUp}));
    EXPECT_EQ(logCount("Schedule Matched! Task Name: AgentInfo"), 5);
    EXPECT_EQ(
        logCount("void ScheduleManager::onScheduleTimer() | Failed to send AgentInfo report to server."), 5);
}

TEST_F(ScheduleManagerTest, StartRunsOnTheDownloadedScheduleOrOnTheDefaultsWhenTheDownloadFails)
{
    const QByteArray onDisk = "<AgentInfo><Interval>2</Interval></AgentInfo>";
    writeFile(scheduleFile(), onDisk);
    ASSERT_TRUE(manager.getLatestSchedules());
    EdrAgentConfig config; // start-up runs skip what already ran today
    ASSERT_TRUE(config.setTaskLastRunTime(QStringLiteral("StartUp"), QDateTime::currentDateTime()));
    ASSERT_TRUE(
        config.setTaskLastRunTime(QStringLiteral("AgentInfo"), QDateTime::currentDateTime().addDays(-1)));
    FakeHttpServer server; // an oversized reply leaves the file alone
    CannedReply reply{200, QByteArray(ScheduleManager::kMaxScheduleFileBytes + 1, ' '), "application/xml"};
    server.setReply(reply);
    prefix.pointAtServer(server.port());
    manager.startScheduler();
    EXPECT_TRUE(manager.isSchedulerRunning());
    EXPECT_EQ(dump(manager.getSchedules()), defaults());
    EXPECT_EQ(HostPaths::readFile(scheduleFile()), onDisk);
    EXPECT_EQ(logCount("Failed to get Agent Config file server."), 1);
    EXPECT_EQ(dispatched, (QList<int>{0, 2, 3, 4, 5, 7, 11, 16}));

    // The server's bytes land on disk; the start-up run goes through the real dispatcher.
    reply = {200,
             "<?xml version=\"1.0\"?>\r\n<!-- Zeitplan für Agent "
             "-->\r\n<AgentInfo><Interval>30</Interval></AgentInfo>\r\n",
             "application/xml"};
    server.setReply(reply);
    manager.setDispatchForTesting(nullptr);
    const int before = server.requests().size();
    manager.startScheduler();
    manager.stopScheduler();
    EXPECT_FALSE(manager.isSchedulerRunning());
    EXPECT_EQ(HostPaths::readFile(scheduleFile()), reply.body);
    EXPECT_EQ(manager.getSchedules().at(0).getInterval(), 30u);
    const QList<RecordedRequest> requests = server.requests().mid(before);
    ASSERT_GE(requests.size(), 2);
    EXPECT_EQ(requests.at(0).method + ' ' + requests.at(0).target, "GET /api/v1/settings/getConfigFile?");
    EXPECT_TRUE(requests.at(1).method == "POST" &&
                requests.at(1).target.endsWith("/machineInfo/addMachineInfo"));
}

// The read-only scan kept beside the outbox: it must never block on a FIFO
// nor touch the files it visits.
TEST_F(ScheduleManagerTest, PendingReportsVisitedInCaseInsensitiveOrderAndKept)
{
    const QString dir = Common::getReportsPath() + QStringLiteral("/edr/pending/");
    QDir().mkpath(dir + QStringLiteral("d.rpt"));
    for (const char* name : {"b.rpt", "A.rpt", "c.txt"})
        writeFile(dir + QLatin1String(name), QByteArray("0003{}\0tail", 11));
    ASSERT_EQ(::mkfifo(QFile::encodeName(dir + QStringLiteral("e.rpt")).constData(), 0600), 0);
    EXPECT_FALSE(manager.sendPendingReport(dir + QStringLiteral("e.rpt")));
    manager.sendPendingReports();

    QStringList seen; // message texts without the errno suffix
    for (const QByteArray& line : prefix.traceLog().split('\n'))
        if (line.contains("Pending Report"))
            seen << QString::fromUtf8(line)
                        .section(QLatin1String("| "), 1)
                        .section(QLatin1String(" (errno"), 0, 0);
    EXPECT_EQ(seen, (QStringList{QStringLiteral("Successfully Send Pending Report: A.rpt"),
                                 QStringLiteral("Successfully Send Pending Report: b.rpt"),
                                 QStringLiteral("Failed to Send Pending Report: d.rpt")}));
    EXPECT_EQ(QDir(dir).entryList(QDir::Files).join(QLatin1Char(' ')), QStringLiteral("A.rpt b.rpt c.txt"));
    EXPECT_EQ(HostPaths::readFile(dir + QStringLiteral("b.rpt")), QByteArray("0003{}\0tail", 11));
}

// An early report stands in for the scheduled run: it goes through the same
// dispatch and starts the task's interval again; its gates follow the
// schedule, the [Changes] setting and registration at every look.
TEST_F(ScheduleManagerTest, EarlyReportRestartsTheIntervalAndFollowsItsGates)
{
    for (int i = 0; i < 5; ++i)
        manager.onScheduleTimer();
    dispatched.clear();
    EXPECT_EQ(manager.runEarlyReport(TasksManager::Network_Mon, QStringLiteral("listening sockets changed")),
              EarlyReports::Result::NotSent); // the fake dispatch posts nothing
    EXPECT_EQ(dispatched, QList<int>{TasksManager::Network_Mon});
    EXPECT_EQ(manager.getSchedules().at(TasksManager::Network_Mon).getCurrentInterval(), 0u);
    EXPECT_EQ(manager.getSchedules().at(TasksManager::StartUp).getCurrentInterval(), 5u);

    const auto gates = [&](TasksManager::TASK_NAMES t) { return manager.earlyGates(t); };
    EXPECT_FALSE(gates(TasksManager::Network_Mon).registered);
    EdrAgentConfig config;
    ASSERT_TRUE(config.setAuthCode(QStringLiteral("tok")));
    EXPECT_TRUE(gates(TasksManager::Network_Mon).registered);
    EXPECT_TRUE(gates(TasksManager::Network_Mon).enabled);
    EXPECT_FALSE(gates(TasksManager::Network_Mon).busy);
    // Disabled by default in the schedule; processes are never early.
    EXPECT_FALSE(gates(TasksManager::WindowsFirewallStatus).enabled);
    EXPECT_FALSE(gates(TasksManager::AgentInfo).enabled);
    EXPECT_FALSE(gates(TasksManager::Processes).enabled);
    ASSERT_TRUE(config.setSetting(QStringLiteral("Changes/EarlyReports"), QStringLiteral("off")));
    EXPECT_FALSE(gates(TasksManager::Network_Mon).enabled);
}
