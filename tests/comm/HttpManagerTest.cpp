#include "comm/HttpManager.h"

#include "core/Common.h"
#include "core/HostPaths.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryFile>

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

using namespace edrtest;

namespace
{
class HttpTest : public ::testing::Test, protected ServerUnderTest
{
protected:
    void SetUp() override { http->setAuthorizationToke(QString()); }
    void TearDown() override { http->setAuthorizationToke(QString()); }
    QString url(const char* route) const
    {
        return QStringLiteral("http://127.0.0.1:%1/api/v1/%2").arg(server.port()).arg(QLatin1String(route));
    }
    HttpManager* http = HttpManager::getInstance();
};
} // namespace

TEST_F(HttpTest, EachModeSendsItsExactBodyHeadersAndRequestCopy)
{
    QTemporaryFile file;
    ASSERT_TRUE(file.open());
    file.write("file-content-123");
    file.close();
    const QMap<QString, QString> json{{QStringLiteral("data"), QStringLiteral("{\n    \"a\": \"x y\"\n}\n")}};
    const QMap<QString, QString> fields{{QStringLiteral("b"), QStringLiteral("x y")},
                                        {QStringLiteral("a"), QStringLiteral("1")}};
    const QMap<QString, QString> upload{{QStringLiteral("logFILE"), file.fileName()},
                                        {QStringLiteral("name"), QStringLiteral("v")}};
    QString response;
    ASSERT_TRUE(http->sendDataToServer(true, url("machineInfo/addProcesses"), 3, json, response));
    http->setAuthorizationToke(QStringLiteral("abc"));
    ASSERT_TRUE(http->sendDataToServer(true, url("x/y"), 3, fields, response));
    ASSERT_TRUE(http->sendDataToServer(true, url("f/form"), 1, fields, response));
    ASSERT_TRUE(http->sendDataToServer(false, url("f/get"), 3, fields, response));
    ASSERT_TRUE(http->sendDataToServer(true, url("m/upload"), 2, upload, response));
    ASSERT_TRUE(http->sendDataToServer(true, url("m/bare"), 7, upload, response));
    const QList<RecordedRequest> rs = server.requests();
    ASSERT_EQ(rs.size(), 6);
    const struct {
        const char* request;
        QByteArray body;
        const char* type;
    } sent[] = {
        {"POST /api/v1/machineInfo/addProcesses", "{    \"a\": \"x y\"}", "application/json"},
        {"POST /api/v1/x/y", "{    \"a\": \"1\",    \"b\": \"x y\"}", "application/json"},
        {"POST /api/v1/f/form", "a=1&b=x%20y", "application/x-www-form-urlencoded"},
        {"GET /api/v1/f/get?a=1&b=x%20y", "", ""},
    };
    for (size_t i = 0; i < std::size(sent); ++i) {
        EXPECT_EQ(rs[i].method + ' ' + rs[i].target, sent[i].request);
        EXPECT_EQ(rs[i].body, sent[i].body) << i;
        EXPECT_EQ(rs[i].header("Content-Type"), sent[i].type) << i;
    }
    EXPECT_FALSE(rs[0].hasHeader("Authorization"));
    EXPECT_TRUE(rs[1].head.contains("\r\nAuthorization: abc\r\nCookie: AspxAutoDetectCookieSupport=1\r\n"
                                    "Cache-Control: no-cache\r\nContent-Type: application/json\r\n"))
        << rs[1].head.constData();

    EXPECT_TRUE(rs[4].header("Content-Type").startsWith("multipart/form-data; boundary="));
    EXPECT_TRUE(rs[4].body.contains("name=\"logFILE\"; filename="));
    EXPECT_TRUE(rs[4].body.contains("file-content-123"));
    EXPECT_TRUE(rs[4].body.contains("name=\"name\"\r\n\r\nv\r\n"));
    EXPECT_EQ(rs[5].body, "");
    EXPECT_FALSE(rs[5].hasHeader("Content-Type"));

    // The request copy holds the URL, plus the text of a form body.
    const QString copies = Common::getReportsPath() + QStringLiteral("/web/");
    EXPECT_EQ(HostPaths::readFile(copies + "addProcesses.json"),
              url("machineInfo/addProcesses").toUtf8() + "\n");
    EXPECT_EQ(HostPaths::readFile(copies + "form.json"), url("f/form").toUtf8() + "\na=1&b=x%20y");
}

// The request copy is for inspection only: reports/web removed meanwhile
// comes back, and where no copy can be written the request is sent whole.
TEST_F(HttpTest, RequestCopyThatCannotBeWrittenChangesNothingSent)
{
    const QString web = Common::getReportsPath() + QStringLiteral("/web");
    const QMap<QString, QString> json{{QStringLiteral("data"), QStringLiteral("{\"a\": \"1\"}")}};
    const QMap<QString, QString> form{{QStringLiteral("a"), QStringLiteral("1")}};
    QString response;
    ASSERT_TRUE(QDir(web).removeRecursively());
    ASSERT_TRUE(http->sendDataToServer(true, url("machineInfo/addProcesses"), 3, json, response));
    EXPECT_EQ(HostPaths::readFile(web + QStringLiteral("/addProcesses.json")),
              url("machineInfo/addProcesses").toUtf8() + "\n");

    ASSERT_TRUE(QDir(web).removeRecursively());
    QFile blocker(web); // a file where the directory should be
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    ASSERT_TRUE(http->sendDataToServer(true, url("machineInfo/addProcesses"), 3, json, response));
    ASSERT_TRUE(http->sendDataToServer(true, url("f/form"), 1, form, response));
    EXPECT_TRUE(logHas("Failed to open file for write"));
    const QList<RecordedRequest> rs = server.requests();
    ASSERT_EQ(rs.size(), 3);
    EXPECT_EQ(rs[0].body, "{\"a\": \"1\"}");
    EXPECT_EQ(rs[1].body, "{\"a\": \"1\"}");
    EXPECT_EQ(rs[2].body, "a=1");
}

// Any answer is taken whatever its status; a failure or an oversized answer leaves the response alone.
TEST_F(HttpTest, RepliesAreTakenUpToTheCapAndFailuresChangeNothing)
{
    const qint64 max = HttpManager::kMaxReplyBytes;
    const QString untouched = QStringLiteral("untouched");
    const struct {
        CannedReply reply;
        qint64 cap;
        QString response;
    } cases[] = {
        {{200, "\"OK\"", "application/json"}, max, QStringLiteral("OK")},
        {{200, "{\"a\":\"b\"}", "application/json"}, max, QStringLiteral("{\"a\":\"b\"}")},
        {{500, "<html>boom</html>", "text/html"}, max, QStringLiteral("<html>boom</html>")},
        {{200, "", "text/plain", false, true}, max, untouched},
        {{200, QByteArray(max + 1, 'x'), "text/plain"}, max, untouched},
        {{200, QByteArray(1000, 'x'), "text/plain"}, 999, untouched},
        {{200, QByteArray(999, 'x'), "text/plain"}, 999, QString(999, QLatin1Char('x'))},
    };
    for (const auto& c : cases) {
        server.setReply(c.reply);
        QString response = untouched;
        EXPECT_EQ(http->sendDataToServer(false, url("r/big"), 0, {}, response, c.cap),
                  c.response != untouched)
            << c.reply.body.left(20).constData();
        EXPECT_EQ(response, c.response) << c.reply.body.left(20).constData();
    }
    QString response;
    EXPECT_FALSE(
        http->sendDataToServer(true, QStringLiteral("http://127.0.0.1:1/api/v1/x"), 3, {}, response));

    TimeScale scale(0.01); // the 60 s stall window becomes about a second
    server.setReply({200, "", "text/plain", true});
    QElapsedTimer clock;
    clock.start();
    EXPECT_FALSE(http->sendDataToServer(true, url("r/silent"), 3, {}, response));
    EXPECT_LT(clock.elapsed(), 10000);
}

TEST_F(HttpTest, CheckPortProbesTcp)
{
    EXPECT_TRUE(http->isServerReachable(QStringLiteral("127.0.0.1"), server.port()));
    EXPECT_FALSE(http->checkPort("127.0.0.1", 1));

    // Every descriptor below 1024 taken: the probe's socket lands past what an fd_set holds.
    rlimit saved{};
    ::getrlimit(RLIMIT_NOFILE, &saved);
    if (saved.rlim_max < 1100)
        GTEST_SKIP() << "descriptor limit too low";
    const rlimit raised{1100, saved.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &raised), 0);
    QList<int> held{::dup(0)};
    while (held.last() >= 0 && held.last() < 1023)
        held << ::dup(0);
    const bool reachable = http->checkPort("127.0.0.1", server.port());
    for (int fd : held)
        ::close(fd);
    ::setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_TRUE(reachable);
}
