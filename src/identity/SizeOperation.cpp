#include "identity/SizeOperation.h"

#include <cmath>
#include <limits>

QString SizeOperation::getBytesSizeInString(long long bytes)
{
    if (bytes < 1024)
        return QStringLiteral("%1 Bytes").arg(bytes, 0, 10);
    if (bytes < 1048576)
        return QStringLiteral("%1 KB").arg(bytes >> 10, 0, 10);
    if (bytes < 1073741824)
        return QStringLiteral("%1 MB").arg(bytes >> 20, 0, 10);
    return QStringLiteral("%1 GB").arg(bytes >> 30, 0, 10);
}

long long SizeOperation::getStringSizeInBytes(const QString& text)
{
    const int space = text.indexOf(QLatin1Char(' '));
    const QString number = space >= 0 ? text.left(space) : text;
    double value = number.toDouble();
    if (value == 0.0)
        value = number.left(number.size() - 1).toDouble();

    double unit;
    if (text.contains(QLatin1Char('G')))
        unit = 1073741824.0;
    else if (text.contains(QLatin1Char('M')))
        unit = 1048576.0;
    else if (text.contains(QLatin1Char('K')))
        unit = 1024.0;
    else
        return 0;

    const double product = value * unit;
    // Out-of-range products would be undefined behaviour to convert.
    if (!std::isfinite(product))
        return 0;
    if (product >= 9.2e18)
        return std::numeric_limits<long long>::max();
    if (product <= -9.2e18)
        return std::numeric_limits<long long>::min();
    return static_cast<long long>(product);
}
