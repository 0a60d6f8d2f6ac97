#include "comm/TlsSettings.h"
#include "identity/ServerDetails.h"

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

// EDRPINNEDKEY as written in serverip.ini: every pin of "A;B", whatever the
// spacing, quoting or line ends, while a trailing comment stays a comment
// and an entry in another form is kept so that it is refused by name.
TEST(TlsSettings, EveryPinOfTheLineIsRead)
{
    const char* const A = "sha256//AAAA";
    const char* const B = "sha256//BBBB";
    const struct {
        QByteArray ini;
        QString pins;
    } cases[] = {
        {"[Server]\nEDRPINNEDKEY=sha256//AAAA;sha256//BBBB\n", QStringLiteral("%1;%2").arg(A, B)},
        {"\xEF\xBB\xBF[Server]\r\nEDRPINNEDKEY = sha256//AAAA ; sha256//BBBB\r\n",
         QStringLiteral("%1;%2").arg(A, B)},
        {"[Server]\nEDRPINNEDKEY=sha256//AAAA   ; optional; several separated by \";\"\n", QLatin1String(A)},
        {"[Server]\nEDRPINNEDKEY=\"sha256//AAAA;sha256//BBBB\" ; quoted\n",
         QStringLiteral("%1;%2").arg(A, B)},
        {"[Server]\nEDRPINNEDKEY=sha256//AAAA;md5//CCCC;sha256//BBBB\n",
         QStringLiteral("%1;md5//CCCC;%2").arg(A, B)},
        {"[Server]\nEDRPINNEDKEY=sha256//AAAA;;sha256//BBBB;\n", QStringLiteral("%1;%2").arg(A, B)},
        // Only group [Server], and its last assignment, as the INI reader takes it.
        {"[server]\nEDRPINNEDKEY=sha256//AAAA\n", QString()},
        {"[Server]\nEDRPINNEDKEY=sha256//AAAA\n[server]\nEDRIP=1.2.3.4\n[Server]\nEDRPINNEDKEY=sha256//"
         "BBBB\n",
         QLatin1String(B)},
        {"[Server]\n;EDRPINNEDKEY=sha256//AAAA\nEDRPINNEDKEYS=sha256//BBBB\n", QString()},
        {"[Server]\nEDRPINNEDKEY=\n", QString()},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ServerDetails::pinnedKeysFromIni(c.ini), c.pins) << c.ini.constData();
}
