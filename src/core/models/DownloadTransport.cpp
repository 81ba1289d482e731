#include "core/models/DownloadTransport.h"

#include <QSslConfiguration>

namespace parlune {

QNetworkRequest DownloadTransport::requestFor(const QUrl& url) const {
    QNetworkRequest request(url);
    if (!extraTrustedCertificates.isEmpty()) {
        QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
        tls.addCaCertificates(extraTrustedCertificates);
        request.setSslConfiguration(tls);
    }
    return request;
}

} // namespace parlune
