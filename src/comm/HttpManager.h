#pragma once

#include <QByteArray>
#include <QMap>
#include <QMutex>
#include <QString>

// Every request to the server's HTTP API goes through here (libcurl, one easy
// handle per request). Body modes: 1 form, 2 multipart, 3 JSON, other none.
class HttpManager
{
public:
    static HttpManager* getInstance();
    static void releaseInstance();

    void setAuthorizationToke(const QString& token);
    QString authorizationToken() const;

    // How a request ended: whether an HTTP answer came back at all (no
    // answer: refused, time-out, stall, reset, stop) and its status code.
    struct Outcome {
        bool answered = false;
        long status = 0;
        QByteArray body; // the JSON body as it went out (mode 3 POST only)
        bool serverFailed() const { return !answered || status >= 500; }
    };

    // A reply longer than maxReplyBytes is refused (logged, false): no
    // answer the agent expects comes near it.
    bool sendDataToServer(bool post, const QString& url, int mode, const QMap<QString, QString>& fields,
                          QString& response, qint64 maxReplyBytes = kMaxReplyBytes);
    bool sendDataToServer(bool post, const QString& url, int mode, const QMap<QString, QString>& fields,
                          QString& response, Outcome& outcome, qint64 maxReplyBytes = kMaxReplyBytes);

    // The mode-3 body: the "data" field as it stands when it comes first,
    // else an object of every field; newlines removed.
    static QByteArray jsonBody(const QMap<QString, QString>& fields);

    bool checkPort(const char* ip, int port);
    bool isServerReachable(const QString& ip, int port);

    static constexpr qint64 kMaxReplyBytes = 4 * 1024 * 1024;

    // The request copy for a URL: reports/web/<last segment>.json.
    static QString requestCopyPath(const QString& url);

private:
    HttpManager();
    static HttpManager* s_instance;
    mutable QMutex m_mutex;
    QString m_token;
};
