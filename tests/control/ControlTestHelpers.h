#pragma once

#include "core/Common.h"
#include "support/TestSupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

namespace edrtest {

inline QJsonObject jsonFixture(const QString& relative)
{
    return QJsonDocument::fromJson(readFixture(relative)).object();
}

// Shrinks the tool limits for one test and restores the previous scale.
struct ScopedTimeScale {
    explicit ScopedTimeScale(double scale) : previous(Common::timeScale()) { Common::setTimeScaleForTesting(scale); }
    ~ScopedTimeScale() { Common::setTimeScaleForTesting(previous); }
    double previous;
};

// A scratch prefix whose serverip.ini points at a recording HTTP peer.
struct ServerUnderTest {
    ScratchPrefix prefix;
    FakeHttpServer server;
    ServerUnderTest() { prefix.pointAtServer(server.port()); }

    // The JSON object of request number count, which must be the latest and have gone to route.
    QJsonObject posted(const QByteArray& route, int count = 1) const
    {
        const QList<RecordedRequest> sent = server.requests();
        EXPECT_EQ(sent.size(), count);
        EXPECT_EQ(sent.value(count - 1).target, "/api/v1/" + route);
        return QJsonDocument::fromJson(sent.value(count - 1).body).object();
    }
    bool logHas(const char* text) const { return prefix.traceLog().contains(text); }
};

} // namespace edrtest
