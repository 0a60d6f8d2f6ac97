#include "comm/TlsSettings.h"

#include <gtest/gtest.h>

TEST(TlsSettings, PinsParseOnlyInTheirOneForm)
{
    const QByteArray a(32, 'a');
    const QByteArray b(32, 'b');
    const QString pa = QStringLiteral("sha256//") + QString::fromLatin1(a.toBase64());
    const QString pb = QStringLiteral("sha256//") + QString::fromLatin1(b.toBase64());
    struct Case {
        QString text;
        bool valid;
        QList<QByteArray> digests;
    };
    const Case cases[] = {
        {QString(), true, {}},
        {pa, true, {a}},
        {QStringLiteral(" ") + pa + QStringLiteral(" ; ") + pb + QStringLiteral(";"), true, {a, b}},
        {pa + QStringLiteral(";md5//AAAA"), false, {}},
        {QStringLiteral("SHA256//") + pa.mid(8), false, {}}, // prefix is case-sensitive
        {QStringLiteral("sha256//") + QString::fromLatin1(QByteArray(31, 'a').toBase64()), false, {}},
        {QStringLiteral("sha256//not*base64*at*all*xxxxxxxxxxxxxxxxxxxxxxxx="), false, {}},
        {QStringLiteral("/etc/ssl/server.pub"), false, {}}, // a key file is not taken
    };
    for (const Case& c : cases) {
        QString bad;
        const auto pins = TlsSettings::parsePins(c.text, &bad);
        EXPECT_EQ(pins.has_value(), c.valid) << qPrintable(c.text);
        if (pins)
            EXPECT_EQ(*pins, c.digests) << qPrintable(c.text);
        else
            EXPECT_FALSE(bad.isEmpty()) << qPrintable(c.text);
    }
    EXPECT_EQ(TlsSettings::curlPinText({a, b}), (pa + QLatin1Char(';') + pb).toLatin1());
}
