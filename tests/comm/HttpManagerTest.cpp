#include "comm/HttpManager.h"

#include "core/Common.h"
#include "support/TestSupport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryFile>

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

using namespace edrtest;

namespace {
class HttpTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        prefix.pointAtServer(server.port());
        http->setAuthorizationToke(QString());
    }
    void TearDown() override { http->setAuthorizationToke(QString()); }
    QString url(const char* route) const
    {
        return QStringLiteral("http://127.0.0.1:%1/api/v1/%2").arg(server.port()).arg(QLatin1String(route));
    }
    FakeHttpServer server;
    ScratchPrefix prefix;
    HttpManager* http = HttpManager::getInstance();
};

QList<QByteArray> headerNames(const RecordedRequest& r)
{
    QList<QByteArray> names;
    for (const auto& h : r.headers)
        names << h.first;
    return names;
}
} // namespace

TEST_F(HttpTest, JsonModeSendsDataFieldVerbatimWithoutNewlines)
{
    QMap<QString, QString> fields{{QStringLiteral("data"), QStringLiteral("{\n    \"a\": \"x y\"\n}\n")}};
    QString response;
    ASSERT_TRUE(http->sendDataToServer(true, url("machineInfo/addProcesses"), 3, fields, response));
    ASSERT_EQ(server.requests().size(), 1);
    const RecordedRequest r = server.requests().first();
    EXPECT_EQ(r.method, "POST");
    EXPECT_EQ(r.target, "/api/v1/machineInfo/addProcesses");
    EXPECT_EQ(r.body, "{    \"a\": \"x y\"}");
    EXPECT_EQ(r.header("Content-Type"), "application/json");
    EXPECT_FALSE(r.hasHeader("Authorization"));
    EXPECT_EQ(response, QStringLiteral("OK"));

    // The request copy holds the URL and, for JSON bodies, no form text.
    QFile copy(Common::getReportsPath() + QStringLiteral("/web/addProcesses.json"));
    ASSERT_TRUE(copy.open(QIODevice::ReadOnly));
    EXPECT_EQ(copy.readAll(), url("machineInfo/addProcesses").toUtf8() + "\n");
}

TEST_F(HttpTest, JsonModeBuildsSortedObjectAndHeadersInOrder)
{
    http->setAuthorizationToke(QStringLiteral("abc"));
    QMap<QString, QString> fields{{QStringLiteral("b"), QStringLiteral("2")}, {QStringLiteral("a"), QStringLiteral("1")}};
    QString response;
    ASSERT_TRUE(http->sendDataToServer(true, url("x/y"), 3, fields, response));
    const RecordedRequest r = server.requests().first();
    EXPECT_EQ(r.body, "{    \"a\": \"1\",    \"b\": \"2\"}");
    EXPECT_EQ(r.header("Authorization"), "abc");
    EXPECT_EQ(r.header("Cookie"), "AspxAutoDetectCookieSupport=1");
    EXPECT_EQ(r.header("Cache-Control"), "no-cache");
    const QList<QByteArray> names = headerNames(r);
    const int auth = names.indexOf("Authorization"), cookie = names.indexOf("Cookie"),
              cache = names.indexOf("Cache-Control"), type = names.indexOf("Content-Type");
    EXPECT_TRUE(auth >= 0 && auth < cookie && cookie < cache && cache < type) << r.head.constData();
}

TEST_F(HttpTest, FormModeEncodesWholeTextAndGetUsesQueryString)
{
    QMap<QString, QString> fields{{QStringLiteral("b"), QStringLiteral("x y")}, {QStringLiteral("a"), QStringLiteral("1")}};
    QString response;
    ASSERT_TRUE(http->sendDataToServer(true, url("f/form"), 1, fields, response));
    ASSERT_TRUE(http->sendDataToServer(false, url("f/get"), 3, fields, response));
    ASSERT_TRUE(http->sendDataToServer(false, url("settings/getConfigFile"), 0, {}, response));
    const QList<RecordedRequest> rs = server.requests();
    ASSERT_EQ(rs.size(), 3);
    EXPECT_EQ(rs[0].body, "a=1&b=x%20y");
    EXPECT_EQ(rs[0].header("Content-Type"), "application/x-www-form-urlencoded");
    EXPECT_EQ(rs[1].method, "GET");
    EXPECT_EQ(rs[1].target, "/api/v1/f/get?a=1&b=x%20y");
    EXPECT_EQ(rs[2].target, "/api/v1/settings/getConfigFile?");

    QFile copy(Common::getReportsPath() + QStringLiteral("/web/form.json"));
    ASSERT_TRUE(copy.open(QIODevice::ReadOnly));
    EXPECT_EQ(copy.readAll(), url("f/form").toUtf8() + "\na=1&b=x%20y");
}

TEST_F(HttpTest, MultipartAndBarePost)
{
    QTemporaryFile file;
    ASSERT_TRUE(file.open());
    file.write("file-content-123");
    file.close();
    QMap<QString, QString> fields{{QStringLiteral("logFILE"), file.fileName()}, {QStringLiteral("name"), QStringLiteral("v")}};
    QString response;
    ASSERT_TRUE(http->sendDataToServer(true, url("m/upload"), 2, fields, response));
    ASSERT_TRUE(http->sendDataToServer(true, url("m/bare"), 7, fields, response));
    const QList<RecordedRequest> rs = server.requests();
    ASSERT_EQ(rs.size(), 2);
    EXPECT_TRUE(rs[0].header("Content-Type").startsWith("multipart/form-data; boundary="));
    EXPECT_TRUE(rs[0].body.contains("name=\"logFILE\"; filename="));
    EXPECT_TRUE(rs[0].body.contains("file-content-123"));
    EXPECT_TRUE(rs[0].body.contains("name=\"name\"\r\n\r\nv\r\n"));
    EXPECT_EQ(rs[1].body, "");
    EXPECT_FALSE(rs[1].hasHeader("Content-Type"));
}

TEST_F(HttpTest, ReplyHandlingIgnoresHttpStatus)
{
    QString response;
    server.setReply({200, "\"OK\"", "application/json"});
    ASSERT_TRUE(http->sendDataToServer(true, url("r/a"), 3, {}, response));
    EXPECT_EQ(response, QStringLiteral("OK"));
    server.setReply({200, "{\"a\":\"b\"}", "application/json"});
    ASSERT_TRUE(http->sendDataToServer(true, url("r/a"), 3, {}, response));
    EXPECT_EQ(response, QStringLiteral("{\"a\":\"b\"}"));
    server.setReply({500, "<html>boom</html>", "text/html"});
    ASSERT_TRUE(http->sendDataToServer(true, url("r/a"), 3, {}, response));
    EXPECT_EQ(response, QStringLiteral("<html>boom</html>"));
}

TEST_F(HttpTest, FailuresLeaveResponseAlone)
{
    QString response = QStringLiteral("untouched");
    server.setReply({200, "", "text/plain", false, true});
    EXPECT_FALSE(http->sendDataToServer(true, url("r/closed"), 3, {}, response));
    EXPECT_EQ(response, QStringLiteral("untouched"));
    EXPECT_FALSE(http->sendDataToServer(true, QStringLiteral("http://127.0.0.1:1/api/v1/x"), 3, {}, response));
    EXPECT_TRUE(prefix.traceLog().contains("Failed to send data to server - http://127.0.0.1:1/api/v1/x Response Code: 7"));
}

TEST_F(HttpTest, SilentServerIsAbandoned)
{
    Common::setTimeScaleForTesting(0.01); // the 60 s stall window becomes about a second
    server.setReply({200, "", "text/plain", true});
    QString response;
    QElapsedTimer clock;
    clock.start();
    EXPECT_FALSE(http->sendDataToServer(true, url("r/silent"), 3, {}, response));
    Common::setTimeScaleForTesting(1.0);
    EXPECT_LT(clock.elapsed(), 10000);
}

TEST_F(HttpTest, CheckPortProbesTcp)
{
    EXPECT_TRUE(http->isServerReachable(QStringLiteral("127.0.0.1"), server.port()));
    QElapsedTimer clock;
    clock.start();
    EXPECT_FALSE(http->checkPort("127.0.0.1", 1));
    EXPECT_LT(clock.elapsed(), 1500);

    // With every descriptor below 1024 taken the probe's socket lands past
    // what an fd_set can hold.
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit saved = limit;
    if (limit.rlim_max < 1100)
        GTEST_SKIP() << "descriptor limit too low";
    limit.rlim_cur = 1100;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    QList<int> held;
    for (int fd = ::dup(0); fd >= 0; fd = ::dup(0)) {
        held << fd;
        if (fd >= 1023)
            break;
    }
    const bool reachable = http->checkPort("127.0.0.1", server.port());
    for (int fd : held)
        ::close(fd);
    ::setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_TRUE(reachable);
}
