#pragma once

// Helpers shared by the control tests.

#include "core/Common.h"
#include "support/TestSupport.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

namespace edrtest {

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

    // The JSON object of the one request sent to route (empty, and a failure, otherwise).
    QJsonObject onlyPostedObject(const QByteArray& route) const
    {
        const QList<RecordedRequest> sent = server.requests();
        EXPECT_EQ(sent.size(), 1);
        if (sent.size() != 1)
            return QJsonObject();
        EXPECT_EQ(sent.first().target, "/api/v1/" + route);
        return QJsonDocument::fromJson(sent.first().body).object();
    }
    bool logHas(const char* text) const { return prefix.traceLog().contains(text); }
};

} // namespace edrtest
