#pragma once

#include "core/ToolRunner.h"

#include <QByteArray>
#include <QJsonArray>
#include <QString>

// Reads the firmware's DMI tables through dmidecode. Generic: one JSON object
// per structure, keyed by dmidecode's own property names.
class CDmiInfo
{
public:
    // dmidecode has no limit of its own: it gets the runner's default.
    static constexpr int kTimeoutMs = ToolRunner::kDefaultTimeoutMs;

    CDmiInfo();
    explicit CDmiInfo(const ToolRunner& runner, int timeoutMs = kTimeoutMs);

    // type is a DMI type number ("0", "1", "22") or a dmidecode keyword
    // ("processor", "memory"). True when out holds at least one element.
    bool getDataToJSON(QJsonArray& out, const QString& type);

    // Parses dmidecode's text output and appends one object per structure.
    static void parseDmiOutput(const QString& text, QJsonArray& out);

    // Output up to its first zero byte, as 8-bit text.
    static QString decodeOutput(const QByteArray& output);

private:
    ToolRunner m_runner;
    int m_timeoutMs = kTimeoutMs;
};
