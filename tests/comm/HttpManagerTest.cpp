#include "comm/HttpManager.h"

#include "core/Common.h"
#include "core/HostPaths.h"
#include "support/TestCertificates.h"
#include "support/TestSupport.h"
#include "support/TlsTestPeer.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryFile>

#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <thread>

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

// An HTTPS server on 127.0.0.1 that answers every POST "OK" and counts them.
class HttpsServer
{
public:
    HttpsServer(const QString& cert, const QString& key)
        : m_server(QFile::encodeName(cert).constData(), QFile::encodeName(key).constData())
    {
        m_server.Post(".*", [this](const httplib::Request&, httplib::Response& res) {
            ++m_requests;
            res.set_content("OK", "text/plain");
        });
        m_port = m_server.bind_to_any_port("127.0.0.1");
        m_thread = std::thread([this] { m_server.listen_after_bind(); });
        waitUntil([this] { return m_server.is_running(); }, 10000); // or stop() would not end it
    }
    ~HttpsServer()
    {
        m_server.stop();
        m_thread.join();
    }
    int port() const { return m_port; }
    int requests() const { return m_requests; }

private:
    httplib::SSLServer m_server;
    int m_port = 0;
    std::atomic<int> m_requests{0};
    std::thread m_thread;
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

// Over HTTPS the server's name or address must be in the certificate's
// subjectAltName (a CN naming it is not enough), and with several pins written
// as in serverip.ini's documentation a key matching any one of them is taken.
TEST(HttpTls, ServerIdentityInSubjectAltNameOnlyAndAnyPinWillDo)
{
    const TestCertificates* certs = TestCertificates::get();
    ASSERT_TRUE(certs);
    const QByteArray twoPins = certs->otherPin + ';' + certs->serverPin;
    const struct {
        const char* name;
        QString cert, key;
        const char* host;
        QByteArray pins;
        const char* refusal; // null: taken
    } cases[] = {
        {"address in subjectAltName", certs->serverCert, certs->serverKey, "127.0.0.1", {}, nullptr},
        {"address in the CN only",
         certs->cnOnlyIpCert,
         certs->serverKey,
         "127.0.0.1",
         {},
         "IP address mismatch"},
        {"name in the CN only",
         certs->cnOnlyNameCert,
         certs->serverKey,
         "localhost",
         {},
         "hostname mismatch"},
        {"second of two pins", certs->serverCert, certs->serverKey, "127.0.0.1", twoPins, nullptr},
        {"neither pin", certs->secondCert, certs->secondKey, "127.0.0.1", twoPins, "pinned public key"},
    };
    HttpManager* http = HttpManager::getInstance();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        HttpsServer server(c.cert, c.key);
        ScratchPrefix prefix;
        prefix.pointAtServer(server.port(), 1, 0,
                             "EDRTLS=1\nEDRCAFILE=" + QFile::encodeName(certs->caFile) +
                                 "\nEDRPINNEDKEY=" + c.pins + "\n");
        const QString url =
            QStringLiteral("https://%1:%2/api/v1/x").arg(QLatin1String(c.host)).arg(server.port());
        const QMap<QString, QString> fields{{QStringLiteral("a"), QStringLiteral("1")}};
        QString response;
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(http->sendDataToServer(true, url, 3, fields, response), c.refusal == nullptr);
        EXPECT_EQ(server.requests(), c.refusal ? 0 : 2);
        const QByteArray log = prefix.traceLog();
        if (c.refusal) {
            EXPECT_TRUE(log.contains(c.refusal)) << log.constData();
        }
        // Said once for the settings in force, not at every request.
        const int pins = c.pins.isEmpty() ? 0 : 2;
        EXPECT_EQ(log.count("pinned keys in force (EDRPINNEDKEY): " + QByteArray::number(pins)), 1)
            << log.constData();
    }
}

// A pinned HTTPS server asks for a TLS 1.2 renegotiation (switching to a key
// the CA vouches for but the pin does not name) before it answers: the agent
// declines it, and the request fails instead of taking the answer.
TEST(HttpTls, RenegotiationIsRefused)
{
    const TestCertificates* certs = TestCertificates::get();
    ASSERT_TRUE(certs);
    ScratchPrefix prefix;
    TlsTestPeer server;
    prefix.pointAtServer(server.port(), 1, 0,
                         "EDRTLS=1\nEDRCAFILE=" + QFile::encodeName(certs->caFile) +
                             "\nEDRPINNEDKEY=" + certs->serverPin + "\n");
    QByteArray afterRequest;
    std::thread peer([&] {
        if (!server.accept(certs->serverCert, certs->serverKey, true, 10000) || server.read().isEmpty())
            return;
        server.requestRenegotiation(certs->secondCert, certs->secondKey);
        server.read(); // takes the client's answer to the request
        afterRequest = server.failure();
        server.write("HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\nOK");
    });
    QString response;
    const bool sent = HttpManager::getInstance()->sendDataToServer(
        true, QStringLiteral("https://127.0.0.1:%1/api/v1/x").arg(server.port()), 3, {}, response);
    peer.join();
    EXPECT_FALSE(sent);
    EXPECT_TRUE(afterRequest.contains("no renegotiation")) << afterRequest.constData();
}
