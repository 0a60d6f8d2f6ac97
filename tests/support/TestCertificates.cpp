#include "support/TestCertificates.h"

#include "core/HostPaths.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <cstdio>
#include <memory>

namespace edrtest
{

namespace
{
const char kScript[] = R"sh(set -e
key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:prime256v1 -out "$1" 2>/dev/null; }
pin() { printf 'sha256//%s' "$(openssl pkey -in "$1" -pubout -outform DER | openssl dgst -sha256 -binary | base64 -w0)" > "$2"; }
key ca.key; key other-ca.key; key server.key; key second.key
openssl req -x509 -new -key ca.key -days 36500 -subj /CN=edr-test-ca -out ca.pem
openssl req -x509 -new -key other-ca.key -days 36500 -subj /CN=edr-other-ca -out other-ca.pem
openssl req -new -key server.key -subj /CN=edr-test-server -out server.csr
printf 'subjectAltName=IP:127.0.0.1\n' > san-ip
printf 'subjectAltName=DNS:elsewhere.invalid\n' > san-other
openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -set_serial 2 -days 36500 -extfile san-ip -out server.pem 2>/dev/null
openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -set_serial 3 -days 36500 -extfile san-other -out other-name.pem 2>/dev/null
openssl req -new -key second.key -subj /CN=edr-second-server -out second.csr
openssl x509 -req -in second.csr -CA ca.pem -CAkey ca.key -set_serial 4 -days 36500 -extfile san-ip -out second.pem 2>/dev/null
printf 'basicConstraints=CA:FALSE\n' > no-san
openssl req -new -key server.key -subj /CN=127.0.0.1 -out cn-ip.csr
openssl req -new -key server.key -subj /CN=localhost -out cn-name.csr
openssl x509 -req -in cn-ip.csr -CA ca.pem -CAkey ca.key -set_serial 5 -days 36500 -extfile no-san -out cn-ip.pem 2>/dev/null
openssl x509 -req -in cn-name.csr -CA ca.pem -CAkey ca.key -set_serial 6 -days 36500 -extfile no-san -out cn-name.pem 2>/dev/null
mkdir db; touch db/index.txt; echo 10 > db/serial
printf '[ca]\ndefault_ca=d\n[d]\ndatabase=db/index.txt\nnew_certs_dir=db\nserial=db/serial\ndefault_md=sha256\npolicy=p\n[p]\ncommonName=supplied\n' > ca.cnf
openssl ca -batch -notext -config ca.cnf -cert ca.pem -keyfile ca.key -in server.csr -extfile san-ip -startdate 20000101000000Z -enddate 20010101000000Z -out expired.pem 2>/dev/null
pin server.key server.pin; pin ca.key other.pin; pin second.key second.pin
printf -- '-----BEGIN CERTIFICATE-----\nnot base64 at all\n-----END CERTIFICATE-----\n' > garbage.pem
)sh";

std::unique_ptr<TestCertificates> make(QTemporaryDir& dir)
{
    QProcess shell;
    shell.setWorkingDirectory(dir.path());
    shell.start(QStringLiteral("/bin/bash"), {QStringLiteral("-c"), QString::fromLatin1(kScript)});
    if (!shell.waitForFinished(60000) || shell.exitStatus() != QProcess::NormalExit ||
        shell.exitCode() != 0) {
        std::fprintf(stderr, "test certificates: %s\n", shell.readAllStandardError().constData());
        return nullptr;
    }
    const auto file = [&](const char* name) { return dir.filePath(QLatin1String(name)); };
    return std::unique_ptr<TestCertificates>(new TestCertificates{
        dir.path(), file("ca.pem"), file("other-ca.pem"), file("server.pem"), file("other-name.pem"),
        file("expired.pem"), file("cn-ip.pem"), file("cn-name.pem"), file("server.key"), file("second.pem"),
        file("second.key"), HostPaths::readFile(file("server.pin")), HostPaths::readFile(file("second.pin")),
        HostPaths::readFile(file("other.pin"))});
}
} // namespace

const TestCertificates* TestCertificates::get()
{
    static QTemporaryDir dir;
    static const std::unique_ptr<TestCertificates> certs = make(dir);
    return certs.get();
}

} // namespace edrtest
