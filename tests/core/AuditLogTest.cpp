#include "core/AuditLog.h"
#include "core/Common.h"
#include "core/HostPaths.h"

#include "support/TestSupport.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QScopeGuard>

#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>

namespace
{
QJsonObject parse(const QByteArray& line) // not JSON: an empty object, which no expectation matches
{
    return QJsonDocument::fromJson(line).object();
}

QList<QJsonObject> records(const QString& path)
{
    QList<QJsonObject> out;
    for (const QByteArray& line : HostPaths::readFile(path).split('\n'))
        if (!line.isEmpty())
            out << parse(line);
    return out;
}

QStringList outcomes(const QString& path)
{
    QStringList out;
    for (const QJsonObject& record : records(path))
        out << record["outcome"].toString();
    return out;
}

// Undoes the escape of bytes that are not UTF-8 (U+DC80..U+DCFF stand for them).
QByteArray bytesOf(const QString& text)
{
    QByteArray out;
    for (int i = 0; i < text.size(); ++i) {
        const ushort c = text.at(i).unicode();
        if (c >= 0xDC80 && c <= 0xDCFF)
            out += static_cast<char>(c & 0xFF);
        else if (QChar::isHighSurrogate(c) && i + 1 < text.size())
            out += text.mid(i++, 2).toUtf8();
        else
            out += QString(text.at(i)).toUtf8();
    }
    return out;
}

class AuditLogTest : public ::testing::Test
{
protected:
    void TearDown() override { AuditLog::releaseInstance(); } // rotation, clock and counts with it
    edrtest::ScratchPrefix prefix;
    const QString path = Common::getEdrDirPath() + "/audit.log"; // where the audit log goes by default
    AuditLog* audit = AuditLog::getInstance();
};
} // namespace

TEST(AuditLog, CommandBytesAreRecordedWholeWithWhatIsNotUtf8Escaped)
{
    const QDateTime when(QDate(2026, 3, 4), QTime(5, 6, 7, 89), Qt::OffsetFromUTC, -(3 * 3600 + 30 * 60));
    const QByteArray line =
        AuditLog::recordHead(when, AuditLog::Push, "10.0.0.1", "RPT#$#18#$#1|echo \"hi\"", 18) +
        AuditLog::recordTail(AuditLog::Done, true);
    EXPECT_EQ(parse(line), QJsonObject({{"time", "2026-03-04T05:06:07.089-03:30"},
                                        {"channel", "push"},
                                        {"peer", "10.0.0.1"},
                                        {"command", "RPT#$#18#$#1|echo \"hi\""},
                                        {"task", 18},
                                        {"outcome", "done"},
                                        {"delivered", true}}));

    // 1.4 KiB that is not UTF-8, then the order: every byte is kept, none cut.
    const QByteArray flood = QByteArray(1434, '\xff') + "#$#RPT#$#18#$#1|id";
    const struct {
        QByteArray command;
        QByteArray json; // as written, when it matters
    } cases[] = {
        {flood, {}},
        {QByteArray(4096, '\x80'), {}},
        {"caf\xc3\xa9 \xf0\x9f\x99\x82", "\"caf\xc3\xa9 \xf0\x9f\x99\x82\""}, // UTF-8 stays as it is
        {"\xc0\x80|\xed\xa0\x80|\xf4\x90\x80\x80|\xe2\x82", // overlong, surrogate, past U+10FFFF, cut short
         R"("\udcc0\udc80|\udced\udca0\udc80|\udcf4\udc90\udc80\udc80|\udce2\udc82")"},
        {QByteArray("a\nb\0c\x7f\"\\", 8), R"("a\nb\u0000c\u007f\"\\")"},
    };
    for (const auto& c : cases) {
        const QByteArray record = AuditLog::recordHead(QDateTime::currentDateTime(), AuditLog::Listener,
                                                       QString(), c.command, std::nullopt) +
                                  AuditLog::recordTail(AuditLog::Pending);
        EXPECT_EQ(QString::fromUtf8(record).toUtf8(), record) << "the line itself is UTF-8";
        EXPECT_EQ(record.count('\n'), 1);
        const QJsonObject parsed = parse(record);
        EXPECT_EQ(bytesOf(parsed["command"].toString()), c.command) << record.constData();
        EXPECT_TRUE(parsed["task"].isNull());
        EXPECT_FALSE(parsed.contains("truncated"));
        if (!c.json.isEmpty()) {
            EXPECT_TRUE(record.contains("\"command\":" + c.json + ",")) << record.constData();
        }
    }
}

TEST_F(AuditLogTest, PendingLineIsCompletedInPlaceOrAfterARotation)
{
    const AuditLog::Entry first = audit->begin(AuditLog::Push, "p", "RPT#$#7", 7);
    EXPECT_EQ(outcomes(path), QStringList{"pending"}); // what a crash would leave
    audit->record(AuditLog::Listener, "q", QString(), std::nullopt, AuditLog::RefusedPeer);
    audit->finish(first, AuditLog::Failed, false);
    EXPECT_EQ(outcomes(path), (QStringList{"failed", "refused-peer"}));
    EXPECT_EQ(records(path).at(0)["delivered"], false);

    // The pending line rotates away (twice): the outcome comes as a whole new line.
    const AuditLog::Entry second = audit->begin(AuditLog::Push, "p", "MOD", {});
    audit->setRotation(1, 2);
    audit->record(AuditLog::Push, "p", QByteArray("x"), std::nullopt, AuditLog::Malformed);
    audit->finish(second, AuditLog::Done);
    EXPECT_EQ(outcomes(path + ".2"), (QStringList{"failed", "refused-peer", "pending"}));
    EXPECT_FALSE(QFile::exists(path + ".3"));
    EXPECT_EQ(outcomes(path + ".1"), QStringList{"malformed"});
    ASSERT_EQ(records(path).size(), 1);
    EXPECT_EQ(records(path).at(0)["command"], "MOD");
    EXPECT_FALSE(records(path).at(0).contains("delivered"));
}

// A file system that fills up mid-line: the line is taken back, the entry is
// not written, and the next record starts on a clean line.
TEST_F(AuditLogTest, LineThatCannotBeWrittenWholeIsTakenBack)
{
    audit->record(AuditLog::Push, "p", QByteArray("first"), std::nullopt, AuditLog::Malformed);
    const qint64 before = QFileInfo(path).size();

    rlimit old{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit small = old;
    small.rlim_cur = static_cast<rlim_t>(before + 40);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const AuditLog::Entry entry = audit->begin(AuditLog::Push, "p", QByteArray(300, 'x'), 1);
    ::setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, previousHandler);

    EXPECT_FALSE(entry.written);
    EXPECT_EQ(entry.error, EFBIG);
    EXPECT_EQ(QFileInfo(path).size(), before);
    audit->finish(entry, AuditLog::Failed); // space again: the whole record
    EXPECT_EQ(outcomes(path), (QStringList{"malformed", "failed"}));
}

TEST_F(AuditLogTest, RefusedPeersAreCountedNotWrittenOneLineEach)
{
    qint64 t = 1000;
    audit->setClockForTesting([&t] { return t; });
    auto refuse = [&](const char* peer, int times = 1) {
        int lines = 0;
        for (int i = 0; i < times; ++i)
            lines += audit->record(AuditLog::Listener, peer, QString(), std::nullopt, AuditLog::RefusedPeer);
        return lines;
    };
    EXPECT_EQ(refuse("10.0.0.1", 1000), 1);
    EXPECT_EQ(refuse("10.0.0.2"), 1); // every address has a line of its own
    t += AuditLog::kRefusedPeerIntervalMs - 1;
    EXPECT_EQ(refuse("10.0.0.1"), 0);
    t += 1;
    EXPECT_EQ(refuse("10.0.0.1"), 1);
    t += 1000;
    EXPECT_EQ(refuse("10.0.0.1", 5), 0);
    // A peer that went quiet gets its count with the next record of any kind.
    t += AuditLog::kRefusedPeerIntervalMs;
    audit->record(AuditLog::Push, "p", QByteArray("x"), std::nullopt, AuditLog::Malformed);
    EXPECT_EQ(refuse("10.0.0.2"), 1);

    QList<QPair<QString, int>> got;
    for (const QJsonObject& record : records(path))
        got << qMakePair(record["peer"].toString(), record["count"].toInt(-1));
    EXPECT_EQ(got, (QList<QPair<QString, int>>{{"10.0.0.1", 1},
                                               {"10.0.0.2", 1},
                                               {"10.0.0.1", 1001},
                                               {"10.0.0.1", 5},
                                               {"p", -1},
                                               {"10.0.0.2", 1}}));

    // On the way out, the counts still waiting are written.
    EXPECT_EQ(refuse("10.0.0.2", 3), 0);
    AuditLog::releaseInstance();
    EXPECT_EQ(records(path).last()["count"], 3);
}

// A flood from ever new addresses fills at most its share of a file, so the
// order records stay; the counts follow once orders have rotated the file.
TEST_F(AuditLogTest, RefusedPeersNeverRotateOrderRecordsAway)
{
    qint64 t = 0;
    audit->setClockForTesting([&t] { return t; });
    constexpr qint64 kMaxBytes = 4000;
    audit->setRotation(kMaxBytes, 1);
    audit->finish(audit->begin(AuditLog::Push, "p", "ACT#$#3#$#1|1|r1", 3), AuditLog::Done, true);
    int lines = 0;
    for (int i = 0; i < 3000; ++i)
        lines += audit->record(AuditLog::Listener, QStringLiteral("10.1.%1.%2").arg(i / 250).arg(i % 250),
                               QString(), std::nullopt, AuditLog::RefusedPeer);
    EXPECT_GT(lines, 0);
    EXPECT_FALSE(QFile::exists(path + ".1"));
    EXPECT_EQ(records(path).at(0)["command"], "ACT#$#3#$#1|1|r1");
    auto refusedBytes = [&] {
        qint64 bytes = 0;
        for (const QByteArray& line : HostPaths::readFile(path).split('\n'))
            if (line.contains("\"refused-peer\""))
                bytes += line.size() + 1;
        return bytes;
    };
    EXPECT_LE(refusedBytes(), kMaxBytes / AuditLog::kRefusedShareDivisor);

    while (!QFile::exists(path + ".1"))
        audit->record(AuditLog::Push, "p", QByteArray(200, 'o'), std::nullopt, AuditLog::Malformed);
    t += AuditLog::kRefusedPeerIntervalMs;
    audit->record(AuditLog::Push, "p", QByteArray("x"), std::nullopt, AuditLog::Malformed);
    EXPECT_GT(refusedBytes(), 0);
    EXPECT_LE(refusedBytes(), kMaxBytes / AuditLog::kRefusedShareDivisor);
}
