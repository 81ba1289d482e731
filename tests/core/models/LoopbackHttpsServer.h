#pragma once

#include <QList>
#include <QProcess>
#include <QSslCertificate>
#include <QString>
#include <QTemporaryDir>
#include <QUrl>

namespace parlune::testing {

// A real HTTPS server on 127.0.0.1 (https_test_server.py) with a self-signed certificate made
// by openssl for this run only; see the script for its routes.
class LoopbackHttpsServer {
public:
    LoopbackHttpsServer() = default;
    LoopbackHttpsServer(const LoopbackHttpsServer&) = delete;
    LoopbackHttpsServer& operator=(const LoopbackHttpsServer&) = delete;
    ~LoopbackHttpsServer();

    // Serves the files in `root`; returns why it could not start, or an empty string.
    QString start(const QString& root);

    QUrl url(const QString& path) const;
    QList<QSslCertificate> certificates() const { return certificates_; }

private:
    QTemporaryDir keys_;
    QProcess process_;
    QList<QSslCertificate> certificates_;
    int port_ = 0;
};

} // namespace parlune::testing
