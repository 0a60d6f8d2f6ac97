#include "core/CLogger.h"
#include "core/Common.h"
#include "core/EdrAgentConfig.h"
#include "schedule/ScheduleManager.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QThread>
#include <QTimer>

#include <gtest/gtest.h>

#include <memory>

#include <sys/stat.h>

using namespace edrtest;

namespace {

// name, enabled, run on start, interval; the retry interval is 15 everywhere.
const struct {
    const char* name;
    bool enabled, runOnStart;
    unsigned int interval;
} kDefaults[] = {
    {"AgentInfo", 1, 1, 15}, {"StartUp", 1, 1, 180}, {"Services", 1, 1, 180}, {"Processes", 1, 1, 180},
    {"InstalledSoft", 1, 1, 1440}, {"TaskSchedule", 1, 1, 1440}, {"Network", 0, 1, 1440},
    {"HardwareInfo", 1, 1, 180}, {"WindowsUpdates", 0, 1, 1440}, {"Registry", 0, 1, 1440},
    {"Explorer", 0, 1, 1440}, {"Network_Mon", 1, 1, 180}, {"AppCon_Logs", 0, 1, 1440},
    {"Quorvex_Logs", 0, 1, 1440}, {"WebProt_Logs", 0, 1, 1440}, {"Network_Logs", 0, 1, 1440},
    {"Event_Logs", 1, 1, 60}, {"CReports_Logs", 0, 1, 1440}, {"MTasks", 0, 1, 1440}, {"Termina", 0, 1, 1440},
    {"Powershel", 0, 1, 1440}, {"ActionResponse", 0, 1, 1440}, {"WindowsFirewallStatus", 0, 1, 1440},
    {"ASR_Rules", 0, 1, 1440}, {"OS_Query", 0, 1, 1440},
};

void expectDefaults(const QList<ScheduleInfo>& s)
{
    ASSERT_EQ(s.size(), 25);
    for (int i = 0; i < 25; ++i) {
        EXPECT_EQ(s.at(i).getScheduleName(), QLatin1String(kDefaults[i].name)) << i;
        EXPECT_EQ(s.at(i).getEnable(), kDefaults[i].enabled) << i;
        EXPECT_EQ(s.at(i).getRunOnStart(), kDefaults[i].runOnStart) << i;
        EXPECT_EQ(s.at(i).getInterval(), kDefaults[i].interval) << i;
        EXPECT_EQ(s.at(i).getRetryInterval(), 15u) << i;
        EXPECT_EQ(s.at(i).getCurrentInterval(), 0u) << i;
    }
}

void writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    f.write(bytes);
}

QByteArray readFile(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("<missing>");
}

// Ticks (counted from 1) on which each position matched.
QMap<int, QList<int>> matchTicks(QList<ScheduleInfo>& s, int ticks)
{
    QMap<int, QList<int>> matches;
    for (int tick = 1; tick <= ticks; ++tick)
        ScheduleManager::advanceTick(s, [&](int i) { matches[i] << tick; });
    return matches;
}

void spinEventLoop(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

} // namespace

class ScheduleManagerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        manager = std::make_unique<ScheduleManager>();
        manager->setDispatchForTesting([this](TasksManager::TASK_NAMES task, const QString& arg) {
            dispatched << task;
            EXPECT_TRUE(arg.isEmpty());
            return false;
        });
    }
    int logCount(const QByteArray& text) const { return prefix.traceLog().count(text); }
    QString scheduleFile() const { return manager->getScheduleFilePath(); }

    ScratchPrefix prefix;
    std::unique_ptr<ScheduleManager> manager;
    QList<int> dispatched;
};

TEST_F(ScheduleManagerTest, OverlayKeepsCountersAndOmittedEntriesDefaultsRestoreAll)
{
    expectDefaults(manager->getSchedules());
    writeFile(scheduleFile(), "<StartUp><Interval>7</Interval></StartUp><Services><Interval>8</Interval></Services>");
    ASSERT_TRUE(manager->getLatestSchedules());
    for (int i = 0; i < 3; ++i)
        manager->onScheduleTimer();
    writeFile(scheduleFile(), "<Services><Interval>9</Interval></Services>");
    ASSERT_TRUE(manager->getLatestSchedules());
    const QList<ScheduleInfo> s = manager->getSchedules();
    EXPECT_EQ(s.at(TasksManager::StartUp).getInterval(), 7u);
    EXPECT_EQ(s.at(TasksManager::Services).getInterval(), 9u);
    EXPECT_EQ(s.at(TasksManager::StartUp).getCurrentInterval(), 3u);
    EXPECT_EQ(s.at(TasksManager::Network).getCurrentInterval(), 0u); // disabled: frozen
    manager->loadDefaultConfig();
    expectDefaults(manager->getSchedules());
}

TEST_F(ScheduleManagerTest, UnreadableOrBadFilesLeaveTheScheduleWithTheirLogLine)
{
    const struct {
        std::optional<QByteArray> content; // nothing: no file at all
        const char* line;
    } cases[] = {
        {std::nullopt, "Failed to read Schedule DB Failed!"},
        {QByteArray("<AgentInfo><Interval>5</Interv"), "| CATCHED"},
        {QByteArray(), "| CATCHED"},
        {QByteArray("<AgentInfo>").repeated(100000), "| CATCHED"},
        {QByteArray(ScheduleManager::kMaxScheduleFileBytes - 1, ' ').prepend("<AgentInfo/>"), "| CATCHED"},
    };
    ASSERT_EQ(::mkfifo(QFile::encodeName(scheduleFile()).constData(), 0600), 0);
    EXPECT_FALSE(manager->getLatestSchedules()); // a FIFO in its place does not block
    for (const auto& c : cases) {
        QFile::remove(scheduleFile());
        if (c.content)
            writeFile(scheduleFile(), *c.content);
        const int lines = logCount(c.line);
        EXPECT_FALSE(manager->getLatestSchedules()) << c.line;
        EXPECT_EQ(logCount(c.line), lines + 1) << c.line;
        expectDefaults(manager->getSchedules());
    }
}

TEST(ScheduleTicks, FirstMatchOnTickNPlusOneThenEveryN)
{
    QList<ScheduleInfo> s;
    ScheduleManager::fillDefaultSchedule(s, TasksManager::taskNames());
    s[TasksManager::Network].setEnable(true);
    s[TasksManager::Network].setInterval(0);
    s[TasksManager::Explorer].setEnable(true);
    s[TasksManager::Explorer].setInterval(4294967295u);
    const QMap<int, QList<int>> m = matchTicks(s, 130);
    EXPECT_EQ(m.value(TasksManager::AgentInfo), (QList<int>{16, 31, 46, 61, 76, 91, 106, 121}));
    EXPECT_EQ(m.value(TasksManager::Event_Logs), (QList<int>{61, 121}));
    EXPECT_EQ(m.value(TasksManager::Network).size(), 130);
    EXPECT_FALSE(m.contains(TasksManager::Explorer) || m.contains(TasksManager::StartUp));

    // A disabled entry keeps its counter and resumes from it.
    s[0].setEnable(false);
    EXPECT_TRUE(matchTicks(s, 50).value(0).isEmpty());
    EXPECT_EQ(s.at(0).getCurrentInterval(), 10u);
    s[0].setEnable(true);
    EXPECT_EQ(matchTicks(s, 25).value(0), (QList<int>{6, 21}));
}

TEST_F(ScheduleManagerTest, StartUpRunSkipsTasksThatRanToday)
{
    EdrAgentConfig config;
    ASSERT_TRUE(config.setTaskLastRunTime(QStringLiteral("AgentInfo"), QDateTime::currentDateTime()));
    ASSERT_TRUE(config.setTaskLastRunTime(QStringLiteral("StartUp"), QDateTime::currentDateTime().addDays(-1)));
    manager->runStartUpTasks();
    EXPECT_EQ(dispatched, (QList<int>{1, 2, 3, 4, 5, 7, 11, 16}));
}

TEST_F(ScheduleManagerTest, TimerMatchesCountedUnderASmallTimeScale)
{
    const double previousScale = Common::timeScale();
    Common::setTimeScaleForTesting(0.001); // one tick every 60 ms
    writeFile(scheduleFile(), "<AgentInfo><Interval>0</Interval></AgentInfo><StartUp><Interval>2</Interval></StartUp>");
    ASSERT_TRUE(manager->getLatestSchedules());
    manager->runScheduler();
    spinEventLoop(700);
    manager->stopScheduler();
    Common::setTimeScaleForTesting(previousScale);

    const int ticks = dispatched.count(TasksManager::AgentInfo);
    EXPECT_GE(ticks, 3);
    EXPECT_EQ(dispatched.count(TasksManager::StartUp), (ticks - 1) / 2);
    EXPECT_EQ(logCount("Schedule Matched! Task Name: AgentInfo"), ticks);
    EXPECT_EQ(logCount("void ScheduleManager::onScheduleTimer() | Failed to send AgentInfo report to server."), ticks);
    spinEventLoop(150);
    EXPECT_EQ(dispatched.count(TasksManager::AgentInfo), ticks); // stopped
}

TEST_F(ScheduleManagerTest, StartWithDownloadStoresServerBytesAndRunsThroughTheDispatcher)
{
    manager->setDispatchForTesting(nullptr);
    FakeHttpServer server;
    const QByteArray body = "<?xml version=\"1.0\"?>\r\n<!-- Zeitplan für Agent -->\r\n"
                            "<AgentInfo><Interval>30</Interval></AgentInfo>\r\n";
    server.setHandler([&body](const RecordedRequest& r) {
        return r.method == "GET" ? CannedReply{200, body, "application/xml"} : CannedReply();
    });
    prefix.pointAtServer(server.port());

    manager->startScheduler();
    manager->stopScheduler();
    EXPECT_EQ(readFile(scheduleFile()), body);
    EXPECT_EQ(manager->getSchedules().at(0).getInterval(), 30u);
    const QList<RecordedRequest> requests = server.requests();
    // The download first, then the start-up run's reports, task 0 first.
    ASSERT_GE(requests.size(), 2);
    EXPECT_EQ(requests.at(0).method, "GET");
    EXPECT_TRUE(requests.at(0).target.startsWith("/api/v1/settings/getConfigFile"));
    EXPECT_EQ(requests.at(1).method, "POST");
    EXPECT_TRUE(requests.at(1).target.endsWith("/machineInfo/addMachineInfo"));
}

TEST_F(ScheduleManagerTest, FailedDownloadAtStartPutsDefaultsInForce)
{
    FakeHttpServer server;
    CannedReply hangUp;
    hangUp.close = true;
    server.setReply(hangUp);
    prefix.pointAtServer(server.port());
    const QByteArray onDisk = "<AgentInfo><Interval>2</Interval></AgentInfo>";
    writeFile(scheduleFile(), onDisk);
    ASSERT_TRUE(manager->getLatestSchedules());

    manager->startScheduler();
    EXPECT_TRUE(manager->isSchedulerRunning());
    manager->stopScheduler();
    expectDefaults(manager->getSchedules());
    EXPECT_EQ(readFile(scheduleFile()), onDisk);
    EXPECT_EQ(logCount("Failed to get Agent Config file server."), 1);
    EXPECT_EQ(dispatched, (QList<int>{0, 1, 2, 3, 4, 5, 7, 11, 16}));
}

TEST_F(ScheduleManagerTest, PendingReportsVisitedInCaseInsensitiveOrderAndKept)
{
    const LOGGER::CLogger::Level level = EDR_LOG->level();
    EDR_LOG->setLevel(LOGGER::CLogger::LEVEL_TRACE);
    const QString dir = Common::getReportsPath() + QStringLiteral("/edr/pending");
    writeFile(dir + QStringLiteral("/b.rpt"), "0003{\"x\":1}");
    writeFile(dir + QStringLiteral("/A.rpt"), QByteArray("0000body\0tail", 13));
    writeFile(dir + QStringLiteral("/c.txt"), "0001");
    QDir().mkpath(dir + QStringLiteral("/d.rpt"));
    ASSERT_EQ(::mkfifo(QFile::encodeName(dir + QStringLiteral("/e.rpt")).constData(), 0600), 0);
    manager->sendPendingReports();
    manager->sendPendingReports();
    EDR_LOG->setLevel(level);

    const QByteArray log = prefix.traceLog();
    const QByteArray okA = "| Successfully Send Pending Report: A.rpt", okB = "| Successfully Send Pending Report: b.rpt",
                     failD = "| Failed to Send Pending Report: d.rpt";
    EXPECT_EQ(log.count(okA) + log.count(okB) + log.count(failD), 6);
    EXPECT_FALSE(manager->sendPendingReport(dir + QStringLiteral("/e.rpt"))); // a FIFO does not block
    EXPECT_EQ(log.count("c.txt"), 0);
    EXPECT_LT(log.indexOf(okA), log.indexOf(okB));
    EXPECT_LT(log.indexOf(okB), log.indexOf(failD));
    EXPECT_TRUE(QFile::exists(dir + QStringLiteral("/A.rpt")) && QFile::exists(dir + QStringLiteral("/c.txt")));
    EXPECT_EQ(readFile(dir + QStringLiteral("/b.rpt")), "0003{\"x\":1}");
}

TEST_F(ScheduleManagerTest, UpdaterStartsDetachedWithShAndTheScriptPath)
{
    const QString script = Common::getRootPath() + QStringLiteral("/edragentupd.sh");
    const QByteArray marker = (prefix.path() + QStringLiteral("/updater.marker")).toUtf8();
    writeFile(script, "printf '%s' \"$0\" > '" + marker + ".tmp' && mv '" + marker + ".tmp' '" + marker + "'\n");
    ASSERT_TRUE(manager->getLatestAgentFromServer());
    QElapsedTimer waited;
    waited.start();
    while (!QFile::exists(QString::fromUtf8(marker)) && waited.elapsed() < 10000)
        QThread::msleep(20);
    EXPECT_EQ(readFile(QString::fromUtf8(marker)), script.toUtf8());
    EXPECT_EQ(logCount("Sucessfully Started Agent Updater."), 1);
}
