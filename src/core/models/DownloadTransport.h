#pragma once

#include "core/async/Clock.h"
#include "core/models/FreeSpace.h"

#include <QList>
#include <QNetworkRequest>
#include <QSslCertificate>
#include <QUrl>

#include <chrono>

namespace parlune {

// How downloads and update checks behave on the network; the defaults are the product's.
struct DownloadTransport {
    std::chrono::milliseconds stallTimeout{30'000};
    int maxRedirects = 5;
    FreeSpaceQuery freeSpace = freeSpaceOnDisk;
    const Clock* clock = &SystemClock::shared();
    // Tests only: certificates trusted besides the system's, for a server on the loopback.
    QList<QSslCertificate> extraTrustedCertificates;

    // A request for `url` that trusts the extra certificates as well.
    QNetworkRequest requestFor(const QUrl& url) const;
};

} // namespace parlune
