#pragma once

// Throwaway PKI for TLS tests, made once per test run with the openssl tool:
// a CA, a server certificate for 127.0.0.1, one for another name (same key),
// an unrelated CA, and the pins of the server's and the CA's keys.

#include <QByteArray>
#include <QString>

namespace edrtest {

struct TestCertificates {
    QString dir;
    QString caFile;        // trusted CA
    QString otherCaFile;   // a CA that signed nothing here
    QString serverCert;    // SAN IP:127.0.0.1
    QString otherNameCert; // SAN DNS:elsewhere.invalid
    QString serverKey;
    QByteArray serverPin; // sha256//<base64> of the server's key
    QByteArray otherPin;  // the same form, of another key

    // Null when the openssl tool is missing or failed (the reason is printed).
    static const TestCertificates* get();
};

} // namespace edrtest
