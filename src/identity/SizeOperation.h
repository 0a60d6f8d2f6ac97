#pragma once

#include <QString>

// Byte counts to and from the short size texts of the reports. The quirks are
// part of what the server expects: no unit above GB, upper-case units only.
class SizeOperation
{
public:
    static QString getBytesSizeInString(long long bytes);
    static long long getStringSizeInBytes(const QString& text);
};
