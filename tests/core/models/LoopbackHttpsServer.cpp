#include "LoopbackHttpsServer.h"

#include <QStandardPaths>

namespace parlune::testing {

LoopbackHttpsServer::~LoopbackHttpsServer() {
    if (process_.state() != QProcess::NotRunning) {
        process_.kill();
        process_.waitForFinished(5000);
    }
}

QString LoopbackHttpsServer::start(const QString& root) {
    const QString python = QStandardPaths::findExecutable(QStringLiteral("python3"));
    const QString openssl = QStandardPaths::findExecutable(QStringLiteral("openssl"));
    if (python.isEmpty() || openssl.isEmpty()) {
        return QStringLiteral("python3 and openssl are needed for the loopback HTTPS server");
    }
    const QString cert = keys_.filePath(QStringLiteral("cert.pem"));
    const QString key = keys_.filePath(QStringLiteral("key.pem"));
    QProcess make;
    make.start(openssl,
               {QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"),
                QStringLiteral("ec"), QStringLiteral("-pkeyopt"),
                QStringLiteral("ec_paramgen_curve:prime256v1"), QStringLiteral("-nodes"),
                QStringLiteral("-keyout"), key, QStringLiteral("-out"), cert, QStringLiteral("-days"),
                QStringLiteral("1"), QStringLiteral("-subj"), QStringLiteral("/CN=127.0.0.1"),
                QStringLiteral("-addext"), QStringLiteral("subjectAltName=IP:127.0.0.1")});
    if (!make.waitForFinished(30000) || make.exitCode() != 0) {
        return QStringLiteral("openssl could not make a certificate: ") +
               QString::fromLocal8Bit(make.readAllStandardError());
    }
    certificates_ = QSslCertificate::fromPath(cert);
    process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process_.start(python, {QStringLiteral(PARLUNE_TEST_SERVER_SCRIPT), QStringLiteral("--root"), root,
                            QStringLiteral("--cert"), cert, QStringLiteral("--key"), key});
    if (!process_.waitForStarted(10000)) {
        return QStringLiteral("the test server did not start");
    }
    while (!process_.canReadLine()) {
        if (!process_.waitForReadyRead(10000)) {
            return QStringLiteral("the test server did not report its port");
        }
    }
    port_ = process_.readLine().trimmed().toInt();
    return port_ > 0 ? QString() : QStringLiteral("the test server reported no port");
}

QUrl LoopbackHttpsServer::url(const QString& path) const {
    return QUrl(QStringLiteral("https://127.0.0.1:%1%2").arg(port_).arg(path));
}

} // namespace parlune::testing
