#include "comm/HttpManager.h"

#include "core/CLogger.h"
#include "core/Common.h"
#include "core/StopRequest.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutexLocker>
#include <QUrl>

#include "comm/CurlLibrary.h"
#include "comm/OpenSslLibrary.h"
#include "comm/TlsSettings.h"

#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

HttpManager* HttpManager::s_instance = nullptr;

namespace
{
// A transfer slower than this for the scaled time below is given up, so a
// server that accepts and never answers cannot hold the agent for ever.
constexpr long kLowSpeedBytesPerSecond = 1;
constexpr qint64 kLowSpeedWindowMs = 60000;
constexpr long kConnectTimeoutSeconds = 10;

// The reply as it arrives, up to a cap; past the cap the transfer fails.
struct CappedReply {
    std::string text;
    size_t cap = 0;
    bool overflowed = false;
};

size_t appendCapped(void* data, size_t size, size_t nmemb, CappedReply* reply)
{
    const size_t total = size * nmemb;
    if (total > reply->cap - reply->text.size()) {
        reply->overflowed = true;
        return 0; // anything short of total makes libcurl stop
    }
    reply->text.append(static_cast<const char*>(data), total);
    return total;
}

int abortOnStop(void*, curl_off_t, curl_off_t, curl_off_t, curl_off_t)
{
    return StopRequest::pending() ? 1 : 0;
}

// The name or address of each TLS connection checked by OpenSSL against the
// subjectAltName only: libcurl's own check would take a certificate naming
// the server in its CN alone. It runs before every connection, so after a
// redirect the effective URL is the one being connected to.
struct ServerCheck {
    const CurlLibrary* curl = nullptr;
    const OpenSslLibrary* ssl = nullptr;
};

CURLcode expectServer(CURL* curl, void* sslCtx, void* data)
{
    const auto* check = static_cast<const ServerCheck*>(data);
    char* effective = nullptr;
    if (check->curl->easy_getinfo(curl, CURLINFO_EFFECTIVE_URL, &effective) != CURLE_OK || !effective)
        return CURLE_SSL_CERTPROBLEM;
    const QByteArray host = QUrl(QString::fromUtf8(effective)).host(QUrl::FullyEncoded).toUtf8();
    return check->ssl->expectServer(static_cast<SSL_CTX*>(sslCtx), host.constData()) ? CURLE_OK
                                                                                     : CURLE_SSL_CERTPROBLEM;
}

// With TLS on, https only (redirects included), peer and host verified, the
// pin checked by libcurl. A pin that does not parse refuses the request: it
// must never go out unpinned.
bool applyTls(const CurlLibrary& api, CURL* curl, const TlsSettings& tls, const QString& url,
              QByteArray& pinText, ServerCheck& check)
{
    QString bad;
    const auto pins = TlsSettings::parsePins(tls.pinnedKeys, &bad);
    if (!pins) {
        EDR_LOG->Error(Q_FUNC_INFO, EINVAL,
                       "Refused to send to %s: EDRPINNEDKEY entry \"%s\" is not sha256//<base64>",
                       qUtf8Printable(url), qUtf8Printable(bad));
        return false;
    }
    check = ServerCheck{&api, OpenSslLibrary::get()};
    if (!check.ssl) {
        EDR_LOG->Error(Q_FUNC_INFO, ELIBACC, "Refused to send to %s: OpenSSL unavailable: %s",
                       qUtf8Printable(url), OpenSslLibrary::error());
        return false;
    }
    // Only a libcurl built on OpenSSL takes this; any other would skip the check.
    if (api.easy_setopt(curl, CURLOPT_SSL_CTX_FUNCTION, &expectServer) != CURLE_OK ||
        api.easy_setopt(curl, CURLOPT_SSL_CTX_DATA, &check) != CURLE_OK) {
        EDR_LOG->Error(Q_FUNC_INFO, ENOTSUP, "Refused to send to %s: libcurl is not built on OpenSSL",
                       qUtf8Printable(url));
        return false;
    }
    api.easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "https");
    api.easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "https");
    api.easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    api.easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    api.easy_setopt(curl, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    if (!tls.caFile.isEmpty())
        api.easy_setopt(curl, CURLOPT_CAINFO, QFile::encodeName(tls.caFile).constData());
    if (!pins->isEmpty()) {
        pinText = TlsSettings::curlPinText(*pins);
        api.easy_setopt(curl, CURLOPT_PINNEDPUBLICKEY, pinText.constData());
    }
    return true;
}

struct CurlCleanup {
    const CurlLibrary& api;
    CURL* curl = nullptr;
    curl_slist* headers = nullptr;
    curl_mime* mime = nullptr;
    ~CurlCleanup()
    {
        if (curl)
            api.easy_cleanup(curl);
        if (mime)
            api.mime_free(mime);
        if (headers)
            api.slist_free_all(headers);
    }
};
} // namespace

HttpManager* HttpManager::getInstance()
{
    if (!s_instance)
        s_instance = new HttpManager();
    return s_instance;
}

void HttpManager::releaseInstance()
{
    delete s_instance;
    s_instance = nullptr;
}

HttpManager::HttpManager()
{
    const QString dir = Common::getReportsPath() + QStringLiteral("/web/");
    if (!QDir(dir).exists())
        QDir().mkpath(dir);
}

void HttpManager::setAuthorizationToke(const QString& token)
{
    QMutexLocker lock(&m_mutex);
    m_token = token;
}

QString HttpManager::authorizationToken() const
{
    QMutexLocker lock(&m_mutex);
    return m_token;
}

QString HttpManager::requestCopyPath(const QString& url)
{
    const int slash = url.lastIndexOf(QLatin1Char('/'));
    const QString segment = slash >= 0 ? url.mid(slash) : QLatin1Char('/') + url;
    return Common::getReportsPath() + QStringLiteral("/web") + segment + QStringLiteral(".json");
}

QByteArray HttpManager::jsonBody(const QMap<QString, QString>& fields)
{
    QByteArray text;
    if (!fields.isEmpty() && fields.firstKey() == QLatin1String("data")) {
        text = fields.first().toUtf8();
    } else {
        QJsonObject object;
        for (auto it = fields.constBegin(); it != fields.constEnd(); ++it)
            object.insert(it.key(), it.value());
        text = QJsonDocument(object).toJson();
    }
    text.replace('\n', QByteArray());
    return text;
}

bool HttpManager::sendDataToServer(bool post, const QString& url, int mode,
                                   const QMap<QString, QString>& fields, QString& response,
                                   qint64 maxReplyBytes)
{
    Outcome outcome;
    return sendDataToServer(post, url, mode, fields, response, outcome, maxReplyBytes);
}

bool HttpManager::sendDataToServer(bool post, const QString& url, int mode,
                                   const QMap<QString, QString>& fields, QString& response, Outcome& outcome,
                                   qint64 maxReplyBytes)
{
    outcome = Outcome();
    // Loaded and set up at the first request: commands that never talk to
    // the server (report NAME) do not pay for it.
    const CurlLibrary* api = CurlLibrary::get();
    if (!api) {
        EDR_LOG->Error(Q_FUNC_INFO, ELIBACC, "libcurl unavailable: %s", CurlLibrary::error());
        return false;
    }
    CurlCleanup handles{*api};
    handles.curl = api->easy_init();
    if (!handles.curl)
        return false;
    CURL* curl = handles.curl;

    const bool jsonBody = post && mode == 3;
    QByteArray formText;
    QByteArray jsonText;

    const QString copyPath = requestCopyPath(url);
    QFile::remove(copyPath);
    QFile copy(copyPath);
    if (!copy.open(QIODevice::ReadWrite)) {
        // The body is only built when its copy could be written; the request
        // still goes out, without its fields.
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Failed to open file for write: %s", qUtf8Printable(copyPath));
    } else {
        copy.write(url.toUtf8());
        copy.write("\n");
        if (jsonBody) {
            jsonText = HttpManager::jsonBody(fields);
        } else {
            QString text;
            for (auto it = fields.constBegin(); it != fields.constEnd(); ++it)
                text += it.key() + QLatin1Char('=') + it.value() + QLatin1Char('&');
            if (text.endsWith(QLatin1Char('&')))
                text.chop(1);
            formText = QUrl::toPercentEncoding(text, QByteArrayLiteral("&:/.=$-"));
        }
        copy.write(formText);
        copy.close();
    }

    CappedReply reply;
    // QString takes an int length.
    reply.cap = static_cast<size_t>(qBound<qint64>(0, maxReplyBytes, INT_MAX));
    api->easy_setopt(curl, CURLOPT_WRITEFUNCTION, &appendCapped);
    api->easy_setopt(curl, CURLOPT_WRITEDATA, &reply);
    api->easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    api->easy_setopt(curl, CURLOPT_MAXREDIRS, 15L);
    api->easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
    api->easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    api->easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, kLowSpeedBytesPerSecond);
    api->easy_setopt(curl, CURLOPT_LOW_SPEED_TIME,
                     static_cast<long>(qMax(1, Common::scaledMs(kLowSpeedWindowMs) / 1000)));
    api->easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &abortOnStop);
    api->easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);

    const QString token = authorizationToken();
    if (!token.isEmpty())
        handles.headers =
            api->slist_append(handles.headers, ("Authorization: " + token.toUtf8()).constData());
    handles.headers = api->slist_append(handles.headers, "Cookie: AspxAutoDetectCookieSupport=1");
    handles.headers = api->slist_append(handles.headers, "Cache-Control: no-cache");

    QByteArray fullUrl;
    if (!post) {
        fullUrl = url.toUtf8() + '?' + formText;
        api->easy_setopt(curl, CURLOPT_URL, fullUrl.constData());
        api->easy_setopt(curl, CURLOPT_HTTPGET, 1L);
    } else {
        fullUrl = url.toUtf8();
        api->easy_setopt(curl, CURLOPT_URL, fullUrl.constData());
        api->easy_setopt(curl, CURLOPT_POST, 1L);
        if (mode == 3) {
            handles.headers = api->slist_append(handles.headers, "Content-Type: application/json");
            api->easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(jsonText.size()));
            api->easy_setopt(curl, CURLOPT_POSTFIELDS, jsonText.constData());
        } else if (mode == 2) {
            handles.mime = api->mime_init(curl);
            for (auto it = fields.constBegin(); it != fields.constEnd(); ++it) {
                curl_mimepart* part = api->mime_addpart(handles.mime);
                const QByteArray name = it.key().toUtf8();
                const QByteArray value = it.value().toUtf8();
                api->mime_name(part, name.constData());
                if (it.key().endsWith(QLatin1String("File"), Qt::CaseInsensitive))
                    api->mime_filedata(part, value.constData());
                else
                    api->mime_data(part, value.constData(), CURL_ZERO_TERMINATED);
            }
            api->easy_setopt(curl, CURLOPT_MIMEPOST, handles.mime);
        } else if (mode == 1) {
            handles.headers =
                api->slist_append(handles.headers, "Content-Type: application/x-www-form-urlencoded");
            api->easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(formText.size()));
            api->easy_setopt(curl, CURLOPT_POSTFIELDS, formText.constData());
        } else {
            // A bare POST: no body, and no content type (libcurl would add one).
            handles.headers = api->slist_append(handles.headers, "Content-Type:");
            api->easy_setopt(curl, CURLOPT_POSTFIELDSIZE, 0L);
            api->easy_setopt(curl, CURLOPT_POSTFIELDS, "");
        }
    }
    api->easy_setopt(curl, CURLOPT_HTTPHEADER, handles.headers);
    outcome.body = jsonText;

    const TlsSettings tls = TlsSettings::current();
    QByteArray pinText;
    ServerCheck serverCheck;
    char curlError[CURL_ERROR_SIZE] = {};
    if (tls.enabled) {
        if (!applyTls(*api, curl, tls, url, pinText, serverCheck))
            return false;
        api->easy_setopt(curl, CURLOPT_ERRORBUFFER, curlError);
    }

    const CURLcode rc = api->easy_perform(curl);
    if (reply.overflowed) {
        // The server did answer: what was sent arrived, only the reply is refused.
        outcome.answered = true;
        api->easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &outcome.status);
        EDR_LOG->Error(Q_FUNC_INFO, EFBIG, "Refused the reply from %s: longer than %lld bytes",
                       qUtf8Printable(url), static_cast<long long>(reply.cap));
        return false;
    }
    outcome.answered = rc == CURLE_OK;
    if (outcome.answered)
        api->easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &outcome.status);
    if (rc != CURLE_OK) {
        // With TLS the reason (verification, expiry, pin, plain peer) is named.
        if (tls.enabled)
            EDR_LOG->Error(Q_FUNC_INFO, errno, "Failed to send data to server - %s Response Code: %d TLS: %s",
                           qUtf8Printable(url), static_cast<int>(rc),
                           curlError[0] ? curlError : "transfer failed");
        else
            EDR_LOG->Error(Q_FUNC_INFO, errno, "Failed to send data to server - %s Response Code: %d",
                           qUtf8Printable(url), static_cast<int>(rc));
        return false;
    }

    response = QString::fromUtf8(reply.text.data(), static_cast<int>(reply.text.size()));
    if (response.startsWith(QLatin1Char('"')))
        response = response.mid(1, response.size() - 2);
    return true;
}

bool HttpManager::checkPort(const char* ip, int port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, port == 23838 ? 0 : IPPROTO_TCP);
    if (fd < 0)
        return false;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = inet_addr(ip);
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL, 0) | O_NONBLOCK);

    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0 && errno != EINPROGRESS) {
        ::close(fd);
        return false;
    }
    // poll, not select: a descriptor number past FD_SETSIZE is fine here.
    pollfd p{fd, POLLOUT, 0};
    int n;
    do {
        n = ::poll(&p, 1, 1000);
    } while (n < 0 && errno == EINTR);
    bool reachable = n > 0 && (p.revents & POLLOUT) && !(p.revents & (POLLERR | POLLHUP));
    // A refused connection also polls writable; only a clean connect counts.
    int soError = 0;
    socklen_t len = sizeof soError;
    if (reachable && (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &len) != 0 || soError != 0))
        reachable = false;
    ::close(fd);
    return reachable;
}

bool HttpManager::isServerReachable(const QString& ip, int port)
{
    const QByteArray address = ip.toUtf8();
    return checkPort(address.constData(), port);
}
