#include "comm/Outbox.h"

#include "comm/ReportSubmitter.h"
#include "core/Common.h"
#include "service/OutboxCommand.h"
#include "support/TestSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <unistd.h>

using namespace edrtest;

namespace
{
using Kind = PendingReport::Kind;

QByteArray header(int task, Kind kind, int route, qint64 length)
{
    return PendingReport::encodeHeader({task, kind, route, 3, 1700000000000, length});
}

class OutboxTest : public ::testing::Test, protected ServerUnderTest
{
protected:
    void TearDown() override { Outbox::releaseInstance(); }

    Outbox* openOutbox(const Outbox::Limits& limits = Outbox::Limits())
    {
        Outbox* outbox = Outbox::getInstance();
        outbox->setLimits(limits);
        EXPECT_TRUE(outbox->lockAndScan());
        outbox->enableReplay();
        return outbox;
    }
    QString dir() const { return Outbox::defaultDirectory(); }
    // Posts the way every manager does; the value tags the body.
    static void post(API_NAME route, const QString& value)
    {
        ReportSubmitter::postObject("test", route, QJsonObject{{QStringLiteral("v"), value}}, "sent",
                                    "failed");
    }
    static QByteArray body(const char* value) { return QByteArray("{    \"v\": \"") + value + "\"}"; }
    // A relative name lands in the pending directory.
    void write(const QString& name, const QByteArray& content) const
    {
        QFile f(QDir(dir()).absoluteFilePath(name));
        ASSERT_TRUE(QDir().mkpath(QFileInfo(f).path()) && f.open(QIODevice::WriteOnly));
        f.write(content);
    }
};
} // namespace

TEST(PendingReport, HeaderRoundTripsAndRejectsAnythingElse)
{
    const QByteArray good = header(3, Kind::Snapshot, PROCESSES, 42) + "body";
    int used = 0;
    const std::optional<PendingReport::Header> h = PendingReport::parseHeader(good, &used);
    ASSERT_TRUE(h);
    EXPECT_TRUE(h->task == 3 && h->route == PROCESSES && h->length == 42 && h->createdMs == 1700000000000);
    EXPECT_EQ(good.mid(used), "body");
    EXPECT_TRUE(good.startsWith("0003 ")); // the file still opens with the zero-padded task number

    // Every truncation of the line is refused, as are foreign or inconsistent headers.
    for (int n = 0; n < used; ++n)
        EXPECT_FALSE(PendingReport::parseHeader(good.left(n))) << n;
    const QByteArray bad[] = {
        header(3, Kind::Result, PROCESSES, 1),        // a snapshot route kept as a result
        header(18, Kind::Result, PROCESSES, 1),       // task and route disagree
        header(0, Kind::Snapshot, REGISTER_AGENT, 1), // a route that is never kept
        "0003 EDR-PENDING/2 kind=snapshot route=5 mode=3 created=1 length=1\n",
        "0003 EDR-PENDING/1 kind=snapshot route=5 mode=1 created=1 length=1\n",
        "0003 EDR-PENDING/1 kind=snapshot route=5 mode=3 created=1 length=-1\n",
        "0003 EDR-PENDING/1 kind=snapshot route=99999999999999999999 mode=3 created=1 length=1\n",
        "3    EDR-PENDING/1 kind=snapshot route=5 mode=3 created=1 length=1\n",
        "0003{\"processes\":[]}",
    };
    for (const QByteArray& b : bad)
        EXPECT_FALSE(PendingReport::parseHeader(b)) << b.constData();
}

TEST_F(OutboxTest, FailedPostsAreKeptCoalescedAndReplayedByteForByte)
{
    Outbox* outbox = openOutbox();
    prefix.pointAtServer(LoopbackSocket::freePort()); // refused: no answer
    post(PROCESSES, QStringLiteral("old"));
    EXPECT_TRUE(prefix.traceLog().contains("no answer from server"));
    prefix.pointAtServer(server.port());
    server.setReply({500, "boom", "text/html"});
    post(ACTION_RESULT, QStringLiteral("r1"));
    post(PROCESSES, QStringLiteral("new"));    // replaces "old"
    post(ACTION_RESULT, QStringLiteral("r2")); // queued behind r1 without a post
    post(SERVICES, QStringLiteral("stale"));
    server.setReply({404, "no", "text/plain"}); // answered: not kept
    post(HARDWARE_INFO, QStringLiteral("h"));
    server.setReply({200, "OK", "text/plain"});
    post(SERVICES, QStringLiteral("fresh")); // delivered: the pending one is stale
    ASSERT_EQ(server.requests().size(), 5);
    EXPECT_EQ(outbox->pendingResults(), 2);

    // Still failing: replay stops at the first file, which stays.
    server.setReply({503, "later", "text/plain"});
    outbox->scheduleReplay();
    QCoreApplication::processEvents();
    EXPECT_EQ(server.requests().size(), 6);

    // Back: one file per pass of the event loop, oldest first, each body as it first went out.
    server.setReply({200, "OK", "text/plain"});
    outbox->scheduleReplay();
    QCoreApplication::processEvents();
    EXPECT_EQ(server.requests().size(), 7);
    // Work that arrives meanwhile (a pushed order) waits for one file at most.
    int sentBeforeOrder = -1;
    QMetaObject::invokeMethod(
        QCoreApplication::instance(), [&] { sentBeforeOrder = server.requests().size(); },
        Qt::QueuedConnection);
    for (int i = 0; i < 5 && !outbox->isEmpty(); ++i)
        QCoreApplication::processEvents();
    EXPECT_TRUE(QDir(dir()).entryList({QStringLiteral("*.rpt")}, QDir::Files).isEmpty());
    EXPECT_EQ(sentBeforeOrder, 8);
    QList<QByteArray> replayed;
    for (const RecordedRequest& r : server.requests().mid(6))
        replayed << r.body;
    EXPECT_EQ(replayed, (QList<QByteArray>{body("r1"), body("new"), body("r2")}));
    EXPECT_EQ(server.requests().at(6).target, "/api/v1/settings/InvSettingsOutput");
}

TEST_F(OutboxTest, BoundsDropOldestSnapshotThenOldestResult)
{
    Outbox* outbox = openOutbox({3});
    server.setReply({500, "", "text/plain"});
    post(PROCESSES, QStringLiteral("p"));
    post(ACTION_RESULT, QStringLiteral("r1"));
    post(SERVICES, QStringLiteral("s"));
    post(ACTION_RESULT, QStringLiteral("r2")); // drops the processes snapshot
    post(ACTION_RESULT, QStringLiteral("r3")); // drops the services snapshot
    post(ACTION_RESULT, QStringLiteral("r4")); // only results left: drops r1
    ASSERT_EQ(outbox->entries().size(), 3);
    EXPECT_EQ(outbox->pendingResults(), 3);
    EXPECT_FALSE(QFile::exists(dir() + QStringLiteral("/0000000002-21.rpt"))); // r1

    // A body beyond the byte bound is refused, and nothing else goes.
    Outbox::releaseInstance();
    outbox = openOutbox({1000, 200});
    post(PROCESSES, QString(300, QLatin1Char('x')));
    EXPECT_TRUE(prefix.traceLog().contains("beyond OutboxMaxBytes 200"));
    EXPECT_LE(outbox->totalBytes(), 200); // trimmed at open to the smaller bound
    EXPECT_EQ(outbox->entries().size(), 2);
}

TEST_F(OutboxTest, UnusableFilesAreMovedAsideAndSymlinksNeverFollowed)
{
    write(QStringLiteral("0000000007-03.rpt"), header(3, Kind::Snapshot, PROCESSES, 2) + "{}");
    write(QStringLiteral("0000000001-03.rpt"), header(3, Kind::Snapshot, PROCESSES, 50) + "short");
    write(QStringLiteral("0000000002-21.rpt"), header(21, Kind::Result, ACTION_RESULT, 1LL << 40) + "x");
    write(QStringLiteral("0000000003-04.rpt"), "0004 a file from somewhere else");
    write(QStringLiteral("foreign.rpt"), "0003{}");
    write(QStringLiteral(".0000000009-03.rpt.tmp"), "half");
    QTemporaryDir outside;
    const QString secret = outside.path() + QStringLiteral("/secret");
    write(secret, header(3, Kind::Snapshot, PROCESSES, 2) + "{}");
    ASSERT_TRUE(QFile::link(secret, dir() + QStringLiteral("/0000000005-03.rpt")));

    Outbox* outbox = openOutbox();
    ASSERT_EQ(outbox->entries().size(), 1);
    EXPECT_EQ(outbox->entries().first().file, QStringLiteral("0000000007-03.rpt"));
    EXPECT_EQ(QDir(dir() + QStringLiteral("/bad")).entryList(QDir::Files | QDir::System).size(), 5);
    EXPECT_FALSE(QFile::exists(dir() + QStringLiteral("/.0000000009-03.rpt.tmp")));
    EXPECT_TRUE(QFileInfo(secret).isFile()); // the link moved, its target untouched

    // The next file number follows the highest one on disk.
    server.setReply({500, "", "text/plain"});
    post(ACTION_RESULT, QStringLiteral("r"));
    EXPECT_TRUE(QFile::exists(dir() + QStringLiteral("/0000000008-21.rpt")));

    // A file replaced behind the agent's back is moved aside at replay, not retried.
    write(QStringLiteral("0000000007-03.rpt"), "garbage");
    server.setReply({200, "OK", "text/plain"});
    EXPECT_EQ(outbox->replayOne(), Outbox::Step::Delivered);
    EXPECT_TRUE(outbox->isEmpty());
    EXPECT_EQ(server.requests().last().body, body("r"));
}

TEST_F(OutboxTest, DirectoryFaultsKeepNothingAndLoseNothing)
{
    // A second agent on the same prefix is locked out and names the first.
    openOutbox();
    Outbox second(dir());
    EXPECT_FALSE(second.lockAndScan());
    EXPECT_EQ(second.lockHolder(), static_cast<qint64>(::getpid()));
    EXPECT_FALSE(second.keep("test", PROCESSES, "{}", QStringLiteral("x")));
    Outbox::releaseInstance();

    // The pending directory is a file.
    ASSERT_TRUE(QDir(dir()).removeRecursively());
    write(dir(), QByteArray());
    Outbox* outbox = Outbox::getInstance();
    EXPECT_FALSE(outbox->lockAndScan());
    EXPECT_EQ(Outbox::active(), nullptr);
    server.setReply({500, "", "text/plain"});
    post(PROCESSES, QStringLiteral("p")); // posted, logged, not kept, no crash
    EXPECT_EQ(server.requests().size(), 1);
    EXPECT_TRUE(prefix.traceLog().contains("is not a directory"));
}

TEST(OutboxCommandTest, ListingShowsTaskKindAgeAndSize)
{
    const Outbox::Entry e{
        QStringLiteral("0000000001-03.rpt"), 1, {3, Kind::Snapshot, PROCESSES, 3, 1000, 2}, 2048};
    const QString text =
        OutboxCommand::listing({e}, {QStringLiteral("x.rpt: a symbolic link")}, 1000 + 3723000);
    EXPECT_TRUE(text.contains(QStringLiteral("   3  Processes              snapshot  1h 02m")));
    EXPECT_TRUE(text.contains(QStringLiteral("unusable: x.rpt: a symbolic link")));
    EXPECT_EQ(OutboxCommand::listing({}, {}, 0), QStringLiteral("No pending reports.\n"));
}
