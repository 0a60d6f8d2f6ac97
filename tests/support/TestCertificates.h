#pragma once

// Throwaway PKI for TLS tests, made once per test run with the openssl tool:
// a CA, server certificates for 127.0.0.1 (current and expired), for another
// name and with the name only in the CN, all on one key, a second server
// certificate on a key of its own, an unrelated CA, three pins, and in dir a
// garbage.pem that only looks like a certificate.

#include <QByteArray>
#include <QString>

namespace edrtest
{

struct TestCertificates {
    QString dir;
    QString caFile;         // trusted CA
    QString otherCaFile;    // a CA that signed nothing here
    QString serverCert;     // SAN IP:127.0.0.1
    QString otherNameCert;  // SAN DNS:elsewhere.invalid
    QString expiredCert;    // SAN IP:127.0.0.1, valid in the year 2000 only
    QString cnOnlyIpCert;   // CN=127.0.0.1, no subjectAltName
    QString cnOnlyNameCert; // CN=localhost, no subjectAltName
    QString serverKey;
    QString secondCert; // SAN IP:127.0.0.1, on secondKey
    QString secondKey;
    QByteArray serverPin; // sha256//<base64> of the server's key
    QByteArray secondPin; // the same, of the second key
    QByteArray otherPin;  // the same form, of a key no server uses

    // Null when the openssl tool is missing or failed (the reason is printed).
    static const TestCertificates* get();
};

} // namespace edrtest
