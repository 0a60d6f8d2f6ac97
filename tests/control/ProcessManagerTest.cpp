#include "control/ProcessManager.h"

#include "control/ControlTestHelpers.h"

#include <QDir>
#include <QTemporaryDir>

#include <algorithm>
#include <csignal>
#include <future>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{

// Directory order depends on the file system: compare the records sorted.
QByteArrayList sortedRecords(const QJsonArray& list)
{
    QByteArrayList out;
    for (const QJsonValue& v : list)
        out << QJsonDocument(v.toObject()).toJson(QJsonDocument::Compact);
    std::sort(out.begin(), out.end());
    return out;
}

TEST(ProcessManagerTest, FixtureTreeIsPostedWithItsQuirks)
{
    edrtest::ServerUnderTest peer;
    const HostPaths host =
        HostPaths::fromFixtureRoot(edrtest::fixturePath(QStringLiteral("roots/processes")));
    EXPECT_TRUE(ProcessManager(host).sendRptToServer(QString()));
    const QJsonObject posted = peer.posted("machineInfo/addProcesses");
    const QJsonArray expected =
        edrtest::jsonFixture("expected/processes/processes.json").value("Process").toArray();
    EXPECT_EQ(sortedRecords(posted.value("Process").toArray()), sortedRecords(expected));

    // The executable path the ports report takes: none for a kernel thread or a vanished process.
    const ProcessInfo info(host);
    EXPECT_TRUE(info.getProcessPathByPID(2).isNull() && info.getProcessPathByPID(4242).isNull());
    // A line feed inside the first argument ends the command line there.
    EXPECT_EQ(ProcessInfo::firstLineText(QByteArray("new\nline\0arg\0", 13)), QStringLiteral("new\n"));
}

TEST(ProcessManagerTest, ParseStatusTakesRawTrimmedValues)
{
    QJsonObject record;
    ProcessManager::parseStatus(
        "Name:\tsleep\nState:\tS (sleeping)\nPPid:\t8849\nUid:\t1000\t1001\t1002\t1003\n"
        "Uids:\t7\nThreads:\t  3 \nno colon here\nPPid :\t99\n",
        record);
    EXPECT_EQ(record, QJsonObject({{"Status", "S (sleeping)"},
                                   {"ParentProcessId", "8849"},
                                   {"UserId", "1000\t1001\t1002\t1003"},
                                   {"ThreadCount", "3"}}));
    // Text after the first NUL is not part of the file; a truncated file gives what it holds.
    QJsonObject cut;
    ProcessManager::parseStatus(QByteArray("State:\tR\n\0Uid:\t0\n", 17), cut);
    ProcessManager::parseStatus("Threads:\t1", cut);
    EXPECT_EQ(cut, QJsonObject({{"Status", "R"}, {"ThreadCount", "1"}}));
}

TEST(ProcessManagerTest, KillOrdersPostTheirResultAndTheSparedAreReported)
{
    edrtest::ServerUnderTest peer;
    ProcessManager manager;
    pid_t unused = 4000000; // a pid nobody uses
    while (::kill(unused, 0) == 0 || errno != ESRCH)
        --unused;
    // Every target below that names the bystander would kill it if it were accepted.
    edrtest::Sleeper victim, bystander;
    const QString b = QString::number(bystander.pid());
    const QString orders[] = {
        "1|" + QString::number(victim.pid()) + "|abc", // the one that succeeds
        "2|bash|abc",
        "9|" + b + "|r9",
        "1|" + QString::number(unused) + "|gone",
        "1|abc|r1",
        "1|0|r2",
        "1|-1|r3",
        "1||r4", // never kill(0), our own group, or kill(-1), everyone
        "1|+" + b + "|r5",
        "1|" + b + "a|r7",
        "1|" + QString::number(4294967296LL + bystander.pid()) + "|r8",
        "1|1|r10",
        "1|" + QString::number(::getpid()) + "|r11", // init ignores SIGKILL; killing us loses the answer
        "1|" + b,
        "1",
        QString(), // no request id
    };
    int posted = 0;
    for (const QString& order : orders) {
        EXPECT_TRUE(manager.executeSendReportToServer(order));
        QJsonObject expected{{"status", posted == 0 ? 0 : 1},
                             {"message", posted == 0 ? "Successfully Killed %s!" : "Failed to Kill %s!"}};
        if (order.count('|') >= 2)
            expected.insert("_id", order.section('|', 2, 2));
        EXPECT_EQ(peer.posted("settings/InvSettingsOutput", ++posted), expected) << qPrintable(order);
    }
    const int status = victim.reap();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    // We are still here and so is the bystander, reported as the real /proc shows it.
    EXPECT_TRUE(bystander.running());
    ASSERT_TRUE(edrtest::waitUntil(
        [&] { return ProcessInfo().getProcessNameByPID(bystander.pid()) == "sleep\n"; }, 2000));
    QJsonObject body, record;
    ASSERT_TRUE(manager.collectReport(body));
    for (const QJsonValue& v : body["Process"].toArray())
        if (v["ProcessId"].toInt() == bystander.pid())
            record = v.toObject();
    EXPECT_EQ(record["Name"], "sleep\n");
    EXPECT_EQ(record["CommandLine"], "sleep");
    EXPECT_EQ(record["ParentProcessId"], QString::number(::getpid()));
}

TEST(ProcessManagerTest, KillSparesEveryThreadOfTheAgentAndOfInit)
{
    edrtest::ServerUnderTest peer;
    int posted = 0;
    const auto order = [&](ProcessManager& manager, int target) {
        EXPECT_TRUE(manager.executeSendReportToServer("1|" + QString::number(target) + "|t"));
        return peer.posted("settings/InvSettingsOutput", ++posted).value("status").toInt();
    };

    // A thread of this very process: its id is a valid kill target that would end us.
    std::promise<pid_t> tid;
    std::promise<void> release;
    std::thread thread([&] {
        tid.set_value(::gettid());
        release.get_future().wait();
    });
    ProcessManager real;
    EXPECT_EQ(order(real, tid.get_future().get()), 1);
    release.set_value();
    thread.join();
    EXPECT_TRUE(peer.logHas(("it is a thread of process " + QByteArray::number(::getpid())).constData()));

    // The thread group as a fixture /proc tells it, for a live child: only a
    // status that plainly names another process lets the kill through.
    edrtest::Sleeper child;
    const QByteArray pid = QByteArray::number(child.pid());
    QTemporaryDir root;
    const QString dir = root.path() + "/proc/" + pid;
    ASSERT_TRUE(QDir().mkpath(dir));
    ProcessManager manager(HostPaths::fromFixtureRoot(root.path()));
    const QByteArray spared[] = {
        "Name:\tsleep\nTgid:\t" + QByteArray::number(::getpid()) + "\nPid:\t" + pid + "\n",
        "Tgid:\t1\n",
        "Name:\tsleep\nPid:\t" + pid + "\n", // no Tgid line
        "Tgid:\t\n",
        "Tgid:\t-" + pid + "\n",
        "Tgid:\t" + pid + "x\n",
        "Tgid:\t1" + QByteArray(10, '0') + pid + "\n",
        "XTgid:\t" + pid + "\n",
        QByteArray("Name:\0Tgid:\t", 11) + pid + "\n", // past the end of the text
    };
    for (const QByteArray& status : spared) {
        edrtest::writeTestFile(dir + "/status", status);
        EXPECT_EQ(order(manager, child.pid()), 1) << status.constData();
        EXPECT_TRUE(child.running()) << status.constData();
    }
    ASSERT_TRUE(QFile::remove(dir + "/status")); // no such process as far as /proc knows
    EXPECT_EQ(order(manager, child.pid()), 1);
    EXPECT_TRUE(child.running());

    edrtest::writeTestFile(dir + "/status", "Name:\tsleep\nTgid:\t " + pid + " \nPid:\t" + pid + "\n");
    EXPECT_EQ(order(manager, child.pid()), 0);
    const int status = child.reap();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

} // namespace
