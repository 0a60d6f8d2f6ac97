#include "core/AuditLog.h"
#include "core/Common.h"
#include "core/HostPaths.h"

#include "support/TestSupport.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

namespace
{
QJsonObject parse(const QByteArray& line) // not JSON: an empty object, which no expectation matches
{
    return QJsonDocument::fromJson(line).object();
}

QStringList outcomes(const QString& path)
{
    QStringList out;
    for (const QByteArray& line : HostPaths::readFile(path).split('\n'))
        if (!line.isEmpty())
            out << parse(line)["outcome"].toString();
    return out;
}
} // namespace

TEST(AuditLog, RecordFieldsTimeAndCutCommands)
{
    const QDateTime when(QDate(2026, 3, 4), QTime(5, 6, 7, 89), Qt::OffsetFromUTC, -(3 * 3600 + 30 * 60));
    const QByteArray line =
        AuditLog::recordHead(when, AuditLog::Push, "10.0.0.1", "RPT#$#18#$#1|echo \"hi\"", 18) +
        AuditLog::recordTail(AuditLog::RefusedPeer);
    EXPECT_TRUE(line.endsWith("\"outcome\":\"refused-peer\"}\n")) << line.constData();
    EXPECT_EQ(parse(line), QJsonObject({{"time", "2026-03-04T05:06:07.089-03:30"},
                                        {"channel", "push"},
                                        {"peer", "10.0.0.1"},
                                        {"command", "RPT#$#18#$#1|echo \"hi\""},
                                        {"task", 18},
                                        {"outcome", "refused-peer"}}));

    // 4 KiB of UTF-8 at most, cut between characters (here one less) and marked.
    const std::pair<QString, bool> cases[] = {{QString(4096, 'a'), false},
                                              {QString(4095, 'a') + QChar(0xe9), true},
                                              {'a' + QString(2048, QChar(0xe9)), true}};
    for (const auto& [command, cut] : cases) {
        const QJsonObject record =
            parse(AuditLog::recordHead(QDateTime::currentDateTime(), AuditLog::Listener, QString(), command,
                                       std::nullopt) +
                  AuditLog::recordTail(AuditLog::Done));
        EXPECT_EQ(record["command"].toString(), cut ? command.chopped(1) : command);
        EXPECT_EQ(record["truncated"].toBool(), cut);
        EXPECT_TRUE(record["task"].isNull());
    }
}

TEST(AuditLog, PendingLineIsCompletedInPlaceOrAfterARotation)
{
    edrtest::ScratchPrefix prefix;
    const QString path = Common::getEdrDirPath() + "/audit.log"; // where the audit log goes by default
    AuditLog* audit = AuditLog::getInstance();

    const AuditLog::Entry first = audit->begin(AuditLog::Push, "p", "RPT#$#7", 7);
    EXPECT_EQ(outcomes(path), QStringList{"pending"}); // what a crash would leave
    audit->record(AuditLog::Listener, "q", QString(), std::nullopt, AuditLog::RefusedPeer);
    audit->finish(first, AuditLog::Failed);
    EXPECT_EQ(outcomes(path), (QStringList{"failed", "refused-peer"}));

    // The pending line rotates away (twice): the outcome comes as a whole new line.
    const AuditLog::Entry second = audit->begin(AuditLog::Push, "p", "MOD", {});
    audit->setRotation(1, 2);
    audit->record(AuditLog::Push, "p", "x", std::nullopt, AuditLog::Malformed);
    audit->finish(second, AuditLog::Done);
    EXPECT_EQ(outcomes(path + ".2"), (QStringList{"failed", "refused-peer", "pending"}));
    EXPECT_FALSE(QFile::exists(path + ".3"));
    EXPECT_EQ(outcomes(path + ".1"), QStringList{"malformed"});
    EXPECT_EQ(outcomes(path), QStringList{"done"});
    EXPECT_EQ(parse(HostPaths::readFile(path))["command"], "MOD");

    audit->setRotation(10 * 1024 * 1024, 3);
}
