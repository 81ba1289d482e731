#pragma once

#include "core/async/ChangeSignal.h"
#include "core/models/DownloadTransport.h"
#include "core/models/TransferRate.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QFile>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>
#include <QUrl>

#include <functional>
#include <memory>
#include <optional>

class QNetworkAccessManager;
#include <QNetworkReply>

namespace parlune {

// What to fetch and how to know it arrived intact.
struct DownloadRequest {
    QUrl url;
    QString destinationPath; // the finished file; it never exists half-written
    // Lowercase hex. Empty: the hash the hosting service publishes for the object (its
    // X-Linked-Etag header) is used, and a download with neither is refused.
    QByteArray expectedSha256;
    std::optional<qint64> expectedSize; // lets the free-space check happen before any request
    // A further check of the complete file before it is renamed (an update's signature); returns
    // the sentence that says why it failed, or an empty string. With it, no SHA-256 is required.
    std::function<QString(const QString& path)> verify;
};

struct DownloadProgress {
    qint64 receivedBytes = 0;         // in the .part file, earlier sessions included
    std::optional<qint64> totalBytes; // once the server has said
    double bytesPerSecond = 0;
    std::optional<double> secondsLeft;
};

// Downloads one file over HTTPS into "<destination>.part", resumes from that file with an HTTP
// range after a pause or a restart, and renames it to the destination only once its SHA-256
// (and the request's own check) holds. Every failure ends in one sentence; a file that fails
// verification is deleted, while an interrupted one is kept so that the next start resumes it.
// Nothing else on disk is ever touched: an existing destination is never replaced.
// Lives on the main thread; hashing an existing .part runs on a worker thread.
class VerifiedDownload {
public:
    enum class State { idle, preparing, downloading, paused, finished, failed };

    VerifiedDownload(QNetworkAccessManager& network, DownloadRequest request,
                     DownloadTransport transport = {});
    ~VerifiedDownload();
    VerifiedDownload(const VerifiedDownload&) = delete;
    VerifiedDownload& operator=(const VerifiedDownload&) = delete;

    // Starts, or resumes from the .part file; does nothing while already running.
    void start();
    // Stops the transfer and keeps the .part file for a later start.
    void pause();
    // Stops the transfer and deletes the .part file.
    void cancel();

    State state() const { return state_; }
    QString failure() const { return failure_; } // the sentence of the last failure
    DownloadProgress progress() const { return progress_; }
    QString partPath() const { return request_.destinationPath + QStringLiteral(".part"); }

    ChangeSignal<DownloadProgress> progressed;
    ChangeSignal<State> stateChanged;

private:
    void hashExistingPart(qint64 partSize);
    void send(const QUrl& url, int redirectsLeft);
    void onHeaders();
    void onData();
    void onFinished();
    bool acceptResponse(int status);
    bool openPart(bool restart);
    void verifyAndRename();
    void stopTransfer();
    void fail(const QString& sentence, bool removePart = false);
    void setState(State state);
    void reportProgress(bool force);

    QNetworkAccessManager& network_;
    DownloadRequest request_;
    DownloadTransport transport_;
    QObject context_; // owns the connections; dies with this object
    State state_ = State::idle;
    QString failure_;
    QPointer<QNetworkReply> reply_;
    QTimer stallTimer_;
    QFile part_;
    std::unique_ptr<QCryptographicHash> hash_;
    QByteArray expectedSha256_;
    std::shared_ptr<bool> preparationCancelled_;
    TransferRate rate_;
    DownloadProgress progress_;
    double lastReport_ = -1.0;
    bool headersHandled_ = false;
    int redirectsLeft_ = 0;
    QUrl currentUrl_;
};

} // namespace parlune
