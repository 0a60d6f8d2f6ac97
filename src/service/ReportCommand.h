#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <functional>

// `edr-agent report NAME`: collects one report and prints the exact body the
// agent would post, without a server and without registering.
class ReportCommand
{
public:
    static QStringList names();
    // 0 when the collector succeeded, else 1 with a message on stderr.
    static int run(const QString& name);

    // The body as the transport sends it: indented JSON without line feeds.
    static QByteArray wireBody(const QJsonObject& object);
};
