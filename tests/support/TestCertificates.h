#pragma once

// Throwaway PKI for TLS tests, made once per test run with the openssl tool:
// a CA, server certificates for 127.0.0.1 (current and expired) and for
// another name, all on one key, an unrelated CA, two pins, and in dir a
// garbage.pem that only looks like a certificate.

#include <QByteArray>
#include <QString>

namespace edrtest
{

struct TestCertificates {
    QString dir;
    QString caFile;        // trusted CA
    QString otherCaFile;   // a CA that signed nothing here
    QString serverCert;    // SAN IP:127.0.0.1
    QString otherNameCert; // SAN DNS:elsewhere.invalid
    QString expiredCert;   // SAN IP:127.0.0.1, valid in the year 2000 only
    QString serverKey;
    QByteArray serverPin; // sha256//<base64> of the server's key
    QByteArray otherPin;  // the same form, of another key

    // Null when the openssl tool is missing or failed (the reason is printed).
    static const TestCertificates* get();
};

} // namespace edrtest
