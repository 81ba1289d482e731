#pragma once

#include "core/async/ChangeSignal.h"
#include "core/models/VerifiedDownload.h"
#include "core/shell/UpdateConfiguration.h"
#include "core/updates/Appcast.h"
#include "core/updates/UpdateBuildMetadata.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>

#include <memory>
#include <optional>

class QNetworkAccessManager;
#include <QNetworkReply>

namespace parlune {

struct UpdateCheckResult {
    enum class Outcome { upToDate, updateAvailable, failed };
    Outcome outcome = Outcome::upToDate;
    std::optional<AppcastItem> offer; // updateAvailable only
    QString failure;                  // failed only: one sentence
};

// A user-started check of the verified update feed, and the download of what it offers, which
// is renamed into place only once its Ed25519 signature holds under the configured key. Exists
// only for builds allowed to use the feed (forThisBuild); it never checks on its own.
class UpdateChecker {
public:
    // `publicKey` is the decoded 32-byte key.
    UpdateChecker(QNetworkAccessManager& network, QUrl feedUrl, QByteArray publicKey, QString currentVersion,
                  DownloadTransport transport = {});
    ~UpdateChecker();
    UpdateChecker(const UpdateChecker&) = delete;
    UpdateChecker& operator=(const UpdateChecker&) = delete;

    // The checker for this build, or nullptr when its metadata does not allow the verified feed
    // (the caller then opens the configuration's download page instead).
    static std::unique_ptr<UpdateChecker> forThisBuild(QNetworkAccessManager& network,
                                                       const UpdateConfiguration& configuration,
                                                       const UpdateBuildMetadata& metadata,
                                                       QString currentVersion);

    // Starts a check; false (and nothing started) while one is already running.
    bool check();
    bool checking() const { return reply_ != nullptr; }

    // The download of `offer` into `folder`, not yet started.
    std::unique_ptr<VerifiedDownload> download(const AppcastItem& offer, const QString& folder) const;

    ChangeSignal<UpdateCheckResult> checked;

private:
    void onFinished();
    void finish(UpdateCheckResult result);

    QNetworkAccessManager& network_;
    QUrl feedUrl_;
    QByteArray publicKey_;
    QString currentVersion_;
    DownloadTransport transport_;
    QObject context_;
    QPointer<QNetworkReply> reply_;
};

} // namespace parlune
