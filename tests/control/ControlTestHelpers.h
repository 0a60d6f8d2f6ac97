#pragma once

// Small helpers shared by the control tests.

#include "core/Common.h"
#include "support/TestSupport.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

namespace edrtest {

// Shrinks the tool limits for one test and restores the previous scale.
class ScopedTimeScale {
public:
    explicit ScopedTimeScale(double scale) : m_previous(Common::timeScale())
    {
        Common::setTimeScaleForTesting(scale);
    }
    ~ScopedTimeScale() { Common::setTimeScaleForTesting(m_previous); }
    ScopedTimeScale(const ScopedTimeScale&) = delete;
    ScopedTimeScale& operator=(const ScopedTimeScale&) = delete;

private:
    double m_previous;
};

// A scratch prefix whose serverip.ini points at a recording HTTP peer.
struct ServerUnderTest {
    ScratchPrefix prefix;
    FakeHttpServer server;
    ServerUnderTest() { prefix.pointAtServer(server.port()); }

    // The JSON object carried by the one request sent so far, or an empty
    // object (and a test failure) when there was not exactly one.
    QJsonObject onlyPostedObject(const QByteArray& route) const
    {
        const QList<RecordedRequest> sent = server.requests();
        EXPECT_EQ(sent.size(), 1);
        if (sent.size() != 1)
            return QJsonObject();
        EXPECT_EQ(sent.first().target, "/api/v1/" + route);
        QJsonParseError error;
        const QJsonDocument doc = QJsonDocument::fromJson(sent.first().body, &error);
        EXPECT_TRUE(doc.isObject()) << sent.first().body.constData();
        return doc.object();
    }
    bool logHas(const char* text) const { return prefix.traceLog().contains(text); }
};

inline QByteArray compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

} // namespace edrtest
