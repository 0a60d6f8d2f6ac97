#include "core/AuditLog.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {
QJsonObject parse(const QByteArray& line)
{
    QJsonParseError error{};
    const QJsonObject object = QJsonDocument::fromJson(line, &error).object();
    EXPECT_EQ(error.error, QJsonParseError::NoError) << line.constData();
    return object;
}

QList<QByteArray> lines(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QList<QByteArray> out = file.readAll().split('\n');
    out.removeAll(QByteArray());
    return out;
}
} // namespace

TEST(AuditLog, RecordFieldsTimeAndCutCommands)
{
    const QDateTime when(QDate(2026, 3, 4), QTime(5, 6, 7, 89), Qt::OffsetFromUTC, -(3 * 3600 + 30 * 60));
    const QByteArray line = AuditLog::recordHead(when, AuditLog::Push, QStringLiteral("10.0.0.1"),
                                                 QStringLiteral("RPT#$#18#$#1|echo \"hi\""), 18) +
                            AuditLog::recordTail(AuditLog::RefusedPeer);
    EXPECT_TRUE(line.endsWith("\"outcome\":\"refused-peer\"}\n")) << line.constData();
    EXPECT_EQ(parse(line), QJsonObject({{"time", "2026-03-04T05:06:07.089-03:30"},
                                        {"channel", "push"},
                                        {"peer", "10.0.0.1"},
                                        {"command", "RPT#$#18#$#1|echo \"hi\""},
                                        {"task", 18},
                                        {"outcome", "refused-peer"}}));

    // 4 KiB of UTF-8 at most, cut between characters and marked.
    const struct {
        QString command;
        int keptBytes;
        bool cut;
    } cases[] = {
        {QString(4096, QLatin1Char('a')), 4096, false},
        {QString(4095, QLatin1Char('a')) + QStringLiteral("\u00e9"), 4095, true},
        {QStringLiteral("a") + QString(2048, QChar(0xe9)), 4095, true},
    };
    for (const auto& c : cases) {
        const QJsonObject record = parse(AuditLog::recordHead(QDateTime::currentDateTime(), AuditLog::Listener,
                                                              QString(), c.command, std::nullopt) +
                                         AuditLog::recordTail(AuditLog::Done));
        EXPECT_EQ(record["command"].toString().toUtf8().size(), c.keptBytes);
        EXPECT_TRUE(c.command.startsWith(record["command"].toString()));
        EXPECT_EQ(record["truncated"].toBool(), c.cut);
        EXPECT_TRUE(record["task"].isNull());
    }
}

TEST(AuditLog, PendingLineIsCompletedInPlaceOrAfterARotation)
{
    QTemporaryDir dir;
    const QString path = dir.path() + QStringLiteral("/audit.log");
    AuditLog* audit = AuditLog::getInstance();
    audit->setFilePath(path);

    const AuditLog::Entry first = audit->begin(AuditLog::Push, QStringLiteral("p"), QStringLiteral("RPT#$#7"), 7);
    ASSERT_EQ(lines(path).size(), 1);
    EXPECT_EQ(parse(lines(path).at(0))["outcome"].toString(), QStringLiteral("pending")); // what a crash would leave
    audit->record(AuditLog::Listener, QStringLiteral("q"), QString(), std::nullopt, AuditLog::RefusedPeer);
    audit->finish(first, AuditLog::Failed);
    QList<QByteArray> got = lines(path);
    ASSERT_EQ(got.size(), 2);
    EXPECT_EQ(parse(got.at(0))["outcome"].toString(), QStringLiteral("failed"));
    EXPECT_EQ(parse(got.at(1))["outcome"].toString(), QStringLiteral("refused-peer"));
    struct stat st {};
    ASSERT_EQ(::stat(QFile::encodeName(path).constData(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    // The pending line rotates away: the outcome comes as a whole new line.
    const AuditLog::Entry second = audit->begin(AuditLog::Push, QStringLiteral("p"), QStringLiteral("MOD"), {});
    audit->setRotation(1, 2);
    audit->record(AuditLog::Push, QStringLiteral("p"), QStringLiteral("x"), std::nullopt, AuditLog::Malformed);
    audit->finish(second, AuditLog::Done);
    got = lines(path);
    ASSERT_EQ(got.size(), 1); // rotated again before the outcome line
    EXPECT_EQ(parse(lines(path + QStringLiteral(".1")).at(0))["outcome"].toString(), QStringLiteral("malformed"));
    EXPECT_EQ(parse(got.at(0))["command"].toString(), QStringLiteral("MOD"));
    EXPECT_EQ(parse(got.at(0))["outcome"].toString(), QStringLiteral("done"));
    EXPECT_EQ(parse(lines(path + QStringLiteral(".2")).last())["outcome"].toString(), QStringLiteral("pending"));

    audit->setRotation(10 * 1024 * 1024, 3);
    audit->setFilePath(QString());
}
