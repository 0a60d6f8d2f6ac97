#include "comm/TlsSettings.h"

#include <gtest/gtest.h>

TEST(TlsSettings, PinsParseOnlyInTheirOneForm)
{
    const QByteArray a(32, 'a'), b(32, 'b');
    const QString pa = QStringLiteral("sha256//") + QString::fromLatin1(a.toBase64());
    const QString pb = QStringLiteral("sha256//") + QString::fromLatin1(b.toBase64());
    const struct {
        QString text;
        std::optional<QList<QByteArray>> digests;
    } cases[] = {
        {QString(), QList<QByteArray>()},
        {pa, QList<QByteArray>{a}},
        {QStringLiteral(" %1 ; %2;").arg(pa, pb), QList<QByteArray>{a, b}},
        {pa + QStringLiteral(";md5//AAAA"), std::nullopt},
        {QStringLiteral("SHA256//") + pa.mid(8), std::nullopt}, // prefix is case-sensitive
        {QStringLiteral("sha256//") + QString::fromLatin1(QByteArray(31, 'a').toBase64()), std::nullopt},
        {QStringLiteral("sha256//not*base64*at*all*xxxxxxxxxxxxxxxxxxxxxxxx="), std::nullopt},
        {QStringLiteral("/etc/ssl/server.pub"), std::nullopt}, // a key file is not taken
    };
    for (const auto& c : cases) {
        QString bad;
        EXPECT_EQ(TlsSettings::parsePins(c.text, &bad), c.digests) << qPrintable(c.text);
        EXPECT_EQ(bad.isEmpty(), c.digests.has_value()) << qPrintable(c.text); // a refusal names the bad pin
    }
    EXPECT_EQ(TlsSettings::curlPinText({a, b}), (pa + QLatin1Char(';') + pb).toLatin1());
}
