#include "core/models/VerifiedDownload.h"

#include "core/models/RegularFile.h"

#include <QDir>
#include <QFileInfo>
#include <QLocale>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QThread>

#include <utility>

namespace parlune {

namespace {

QString bytesText(qint64 bytes) {
    return QLocale::c().formattedDataSize(bytes, 1, QLocale::DataSizeSIFormat);
}

bool isRedirect(int status) {
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

// The hosting service names a large object's SHA-256 in X-Linked-Etag (quoted, perhaps weak).
QByteArray publishedSha256(const QNetworkReply& reply) {
    QByteArray value = reply.rawHeader("X-Linked-Etag").trimmed();
    if (value.startsWith("W/")) {
        value = value.mid(2);
    }
    if (value.startsWith('"') && value.endsWith('"') && value.size() >= 2) {
        value = value.mid(1, value.size() - 2);
    }
    value = value.toLower();
    static const QRegularExpression sha256(QStringLiteral("^[0-9a-f]{64}$"));
    return sha256.match(QString::fromLatin1(value)).hasMatch() ? value : QByteArray();
}

// "bytes 100-999/1000" → {100, 1000}; the total is -1 when the server writes "*".
std::optional<std::pair<qint64, qint64>> contentRange(const QByteArray& header) {
    static const QRegularExpression pattern(QStringLiteral("^bytes (\\d+)-\\d+/(\\d+|\\*)$"));
    const QRegularExpressionMatch match = pattern.match(QString::fromLatin1(header.trimmed()));
    if (!match.hasMatch()) {
        return std::nullopt;
    }
    const QString total = match.captured(2);
    return std::pair{match.captured(1).toLongLong(), total == QStringLiteral("*") ? -1 : total.toLongLong()};
}

constexpr double kProgressInterval = 0.2;

} // namespace

VerifiedDownload::VerifiedDownload(QNetworkAccessManager& network, DownloadRequest request,
                                   DownloadTransport transport)
    : network_(network), request_(std::move(request)), transport_(std::move(transport)) {
    stallTimer_.setSingleShot(true);
    stallTimer_.setInterval(transport_.stallTimeout);
    QObject::connect(&stallTimer_, &QTimer::timeout, &context_, [this] {
        fail(QStringLiteral(
                 "The download of %1 stalled: nothing arrived for %2 seconds. Start it again to resume.")
                 .arg(QFileInfo(request_.destinationPath).fileName())
                 .arg(std::chrono::duration<double>(transport_.stallTimeout).count()));
    });
}

VerifiedDownload::~VerifiedDownload() {
    if (preparationCancelled_) {
        *preparationCancelled_ = true;
    }
    stopTransfer();
}

void VerifiedDownload::start() {
    if (state_ == State::preparing || state_ == State::downloading) {
        return;
    }
    failure_.clear();
    expectedSha256_ = request_.expectedSha256; // else what this session's responses publish
    const QString name = QFileInfo(request_.destinationPath).fileName();
    if (request_.url.scheme() != QStringLiteral("https") || request_.url.host().isEmpty()) {
        fail(QStringLiteral("Parlune downloads only over https, and %1 is not an https address.")
                 .arg(request_.url.toDisplayString()));
        return;
    }
    if (QFileInfo::exists(request_.destinationPath) || QFileInfo(request_.destinationPath).isSymLink()) {
        fail(QStringLiteral("%1 already exists, so nothing was downloaded.").arg(request_.destinationPath));
        return;
    }
    const QString folder = QFileInfo(request_.destinationPath).absolutePath();
    if (!QDir().mkpath(folder)) {
        fail(QStringLiteral("The folder %1 cannot be created.").arg(folder));
        return;
    }
    qint64 partSize = 0;
    if (QFileInfo(partPath()).exists() || QFileInfo(partPath()).isSymLink()) {
        // Appending through a link would write into whatever file it points at.
        const std::optional<RegularFileStat> stat = RegularFile::stat(partPath());
        if (!stat || QFileInfo(partPath()).isSymLink()) {
            fail(QStringLiteral("%1 is in the way and is not a file Parlune wrote.").arg(partPath()));
            return;
        }
        partSize = stat->size;
    }
    if (request_.expectedSize) {
        const std::optional<qint64> free = transport_.freeSpace(folder);
        const qint64 needed = *request_.expectedSize - partSize;
        if (free && *free < needed) {
            fail(QStringLiteral("There is not enough free space for %1 in %2: it needs %3 and %4 are free.")
                     .arg(name, folder, bytesText(needed), bytesText(*free)));
            return;
        }
    }
    progress_ = DownloadProgress{partSize, request_.expectedSize, 0.0, std::nullopt};
    if (partSize > 0) {
        hashExistingPart(partSize);
    } else {
        hash_ = std::make_unique<QCryptographicHash>(QCryptographicHash::Sha256);
        send(request_.url, transport_.maxRedirects);
    }
}

void VerifiedDownload::pause() {
    if (state_ == State::preparing && preparationCancelled_) {
        *preparationCancelled_ = true;
    } else if (state_ != State::downloading) {
        return;
    }
    stopTransfer();
    part_.close();
    setState(State::paused);
}

void VerifiedDownload::cancel() {
    pause();
    QFile::remove(partPath());
    progress_ = {};
    setState(State::idle);
}

void VerifiedDownload::hashExistingPart(qint64 partSize) {
    setState(State::preparing);
    // Hashing gigabytes takes seconds: a worker thread reads the .part while the main thread
    // stays responsive, and the result comes back through the event loop.
    auto cancelled = std::make_shared<bool>(false);
    preparationCancelled_ = cancelled;
    auto hash = std::make_shared<std::unique_ptr<QCryptographicHash>>(
        std::make_unique<QCryptographicHash>(QCryptographicHash::Sha256));
    auto readAll = std::make_shared<bool>(false);
    QThread* worker = QThread::create([hash, readAll, path = partPath(), partSize] {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            return;
        }
        for (qint64 left = partSize; left > 0;) {
            const QByteArray chunk = file.read(std::min<qint64>(left, 1 << 20));
            if (chunk.isEmpty()) {
                return;
            }
            (*hash)->addData(chunk);
            left -= chunk.size();
        }
        *readAll = true;
    });
    QObject::connect(worker, &QThread::finished, worker, &QObject::deleteLater);
    QObject::connect(worker, &QThread::finished, &context_, [this, hash, readAll, cancelled] {
        if (*cancelled) {
            return;
        }
        if (!*readAll) {
            fail(QStringLiteral("The partly downloaded file %1 cannot be read.").arg(partPath()));
            return;
        }
        hash_ = std::move(*hash);
        send(request_.url, transport_.maxRedirects);
    });
    worker->start();
}

void VerifiedDownload::send(const QUrl& url, int redirectsLeft) {
    currentUrl_ = url;
    redirectsLeft_ = redirectsLeft;
    headersHandled_ = false;
    QNetworkRequest request = transport_.requestFor(url);
    // Redirects are followed here, to keep them on https and to read each hop's headers.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    // Compressed transfer would break byte ranges and the hash of what is written.
    request.setRawHeader("Accept-Encoding", "identity");
    if (progress_.receivedBytes > 0) {
        request.setRawHeader("Range", "bytes=" + QByteArray::number(progress_.receivedBytes) + '-');
    }
    QNetworkReply* reply = network_.get(request);
    reply_ = reply;
    QObject::connect(reply, &QNetworkReply::metaDataChanged, &context_, [this, reply] {
        if (reply == reply_) {
            onHeaders();
        }
    });
    QObject::connect(reply, &QIODevice::readyRead, &context_, [this, reply] {
        if (reply == reply_) {
            onData();
        }
    });
    QObject::connect(reply, &QNetworkReply::finished, &context_, [this, reply] {
        if (reply == reply_) {
            onFinished();
        }
    });
    stallTimer_.start();
    setState(State::downloading);
}

void VerifiedDownload::onHeaders() {
    if (headersHandled_ || !reply_) {
        return;
    }
    headersHandled_ = true;
    const int status = reply_->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (const QByteArray published = publishedSha256(*reply_); !published.isEmpty()) {
        expectedSha256_ = published;
    }
    if (isRedirect(status)) {
        const QUrl target = currentUrl_.resolved(reply_->header(QNetworkRequest::LocationHeader).toUrl());
        stopTransfer();
        if (target.scheme() != QStringLiteral("https")) {
            fail(QStringLiteral(
                     "The server sent the download to %1, which is not an https address, so it was stopped.")
                     .arg(target.toDisplayString()));
        } else if (redirectsLeft_ <= 0) {
            fail(QStringLiteral("The server redirected the download of %1 too many times.")
                     .arg(QFileInfo(request_.destinationPath).fileName()));
        } else {
            send(target, redirectsLeft_ - 1);
        }
        return;
    }
    acceptResponse(status);
}

bool VerifiedDownload::acceptResponse(int status) {
    const QString name = QFileInfo(request_.destinationPath).fileName();
    if (status == 404) {
        fail(QStringLiteral("The server has no file at %1 (HTTP 404).").arg(currentUrl_.toDisplayString()));
        return false;
    }
    if (status >= 400 && status != 416) {
        fail(QStringLiteral(
                 "The server answered the download of %1 with an error (HTTP %2 %3); try again later.")
                 .arg(name)
                 .arg(status)
                 .arg(reply_->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString()));
        return false;
    }
    if (status != 200 && status != 206 && status != 416) {
        return false; // not HTTP at all: the transport error arrives with the finished reply
    }
    if (!request_.expectedSha256.isEmpty()) {
        expectedSha256_ = request_.expectedSha256;
    }
    if (expectedSha256_.isEmpty() && !request_.verify) {
        fail(QStringLiteral(
                 "The server publishes no SHA-256 for %1, so it could not be verified; nothing was kept.")
                 .arg(name));
        return false;
    }
    if (status == 416) {
        // The range starts at or past the end: the .part may already hold the whole file.
        stopTransfer();
        verifyAndRename();
        return false;
    }
    std::optional<qint64> total;
    const bool restart = status == 200 && progress_.receivedBytes > 0; // the server ignored the range
    if (status == 206) {
        const auto range = contentRange(reply_->rawHeader("Content-Range"));
        if (!range || range->first != progress_.receivedBytes) {
            fail(QStringLiteral("The server resumed %1 at the wrong place, so the download was stopped.")
                     .arg(name));
            return false;
        }
        if (range->second >= 0) {
            total = range->second;
        }
    } else if (const QVariant length = reply_->header(QNetworkRequest::ContentLengthHeader);
               length.isValid()) {
        total = length.toLongLong();
    }
    if (total) {
        const qint64 needed = *total - (restart ? 0 : progress_.receivedBytes);
        const QString folder = QFileInfo(request_.destinationPath).absolutePath();
        if (const std::optional<qint64> free = transport_.freeSpace(folder); free && *free < needed) {
            fail(QStringLiteral("There is not enough free space for %1 in %2: it needs %3 and %4 are free.")
                     .arg(name, folder, bytesText(needed), bytesText(*free)));
            return false;
        }
    }
    if (restart) {
        progress_.receivedBytes = 0;
        hash_ = std::make_unique<QCryptographicHash>(QCryptographicHash::Sha256);
    }
    if (!openPart(restart || progress_.receivedBytes == 0)) {
        return false;
    }
    progress_.totalBytes = total;
    rate_.reset();
    rate_.record(transport_.clock->uptimeSeconds(), progress_.receivedBytes);
    reportProgress(true);
    return true;
}

bool VerifiedDownload::openPart(bool restart) {
    part_.close();
    part_.setFileName(partPath());
    const QIODevice::OpenMode mode =
        QIODevice::WriteOnly | (restart ? QIODevice::Truncate : QIODevice::Append);
    if (!part_.open(mode)) {
        fail(QStringLiteral("%1 cannot be written: %2.").arg(partPath(), part_.errorString()));
        return false;
    }
    return true;
}

void VerifiedDownload::onData() {
    if (!headersHandled_) {
        onHeaders();
    }
    if (state_ != State::downloading || !reply_ || !part_.isOpen()) {
        return;
    }
    const QByteArray data = reply_->readAll();
    if (data.isEmpty()) {
        return;
    }
    if (part_.write(data) != data.size()) {
        fail(QStringLiteral("Writing %1 failed: %2.").arg(partPath(), part_.errorString()));
        return;
    }
    hash_->addData(data);
    progress_.receivedBytes += data.size();
    if (progress_.totalBytes && progress_.receivedBytes > *progress_.totalBytes) {
        fail(QStringLiteral("The server sent more than the %1 it announced, so the download was deleted.")
                 .arg(bytesText(*progress_.totalBytes)),
             true);
        return;
    }
    stallTimer_.start();
    rate_.record(transport_.clock->uptimeSeconds(), progress_.receivedBytes);
    reportProgress(false);
}

void VerifiedDownload::onFinished() {
    if (!headersHandled_) {
        onHeaders();
    }
    if (state_ != State::downloading || !reply_) {
        return;
    }
    onData();
    if (state_ != State::downloading || !reply_) {
        return;
    }
    QNetworkReply* reply = std::exchange(reply_, nullptr);
    reply->deleteLater();
    stallTimer_.stop();
    const QString name = QFileInfo(request_.destinationPath).fileName();
    const bool shortOfTotal = progress_.totalBytes && progress_.receivedBytes < *progress_.totalBytes;
    if (reply->error() != QNetworkReply::NoError || shortOfTotal) {
        if (shortOfTotal) {
            fail(QStringLiteral("The download of %1 stopped after %2 of %3; start it again to resume.")
                     .arg(name, bytesText(progress_.receivedBytes), bytesText(*progress_.totalBytes)));
        } else {
            fail(QStringLiteral("The download of %1 failed: %2.").arg(name, reply->errorString()));
        }
        return;
    }
    verifyAndRename();
}

void VerifiedDownload::verifyAndRename() {
    part_.close();
    const QString name = QFileInfo(request_.destinationPath).fileName();
    if (!expectedSha256_.isEmpty() && hash_->result().toHex() != expectedSha256_) {
        fail(QStringLiteral("The downloaded %1 does not match its published SHA-256, so it was deleted.")
                 .arg(name),
             true);
        return;
    }
    if (request_.verify) {
        if (const QString problem = request_.verify(partPath()); !problem.isEmpty()) {
            fail(problem, true);
            return;
        }
    }
    // rename() never replaces an existing file: whatever appeared meanwhile stays untouched.
    if (!QFile::rename(partPath(), request_.destinationPath)) {
        fail(QStringLiteral("The verified download could not be moved to %1; it is kept as %2.")
                 .arg(request_.destinationPath, partPath()));
        return;
    }
    progress_.totalBytes = progress_.receivedBytes;
    progress_.secondsLeft = 0.0;
    reportProgress(true);
    setState(State::finished);
}

void VerifiedDownload::stopTransfer() {
    stallTimer_.stop();
    if (QNetworkReply* reply = std::exchange(reply_, nullptr)) {
        QObject::disconnect(reply, nullptr, &context_, nullptr);
        reply->abort();
        reply->deleteLater();
    }
}

void VerifiedDownload::fail(const QString& sentence, bool removePart) {
    stopTransfer();
    part_.close();
    if (removePart) {
        QFile::remove(partPath());
        progress_.receivedBytes = 0;
    }
    failure_ = sentence;
    setState(State::failed);
}

void VerifiedDownload::setState(State state) {
    if (state_ != state) {
        state_ = state;
        stateChanged.emit(state);
    }
}

void VerifiedDownload::reportProgress(bool force) {
    const double now = transport_.clock->uptimeSeconds();
    if (!force && now - lastReport_ < kProgressInterval) {
        return;
    }
    lastReport_ = now;
    progress_.bytesPerSecond = rate_.bytesPerSecond();
    if (state_ != State::finished && progress_.totalBytes) {
        progress_.secondsLeft = rate_.secondsLeft(*progress_.totalBytes - progress_.receivedBytes);
    }
    progressed.emit(progress_);
}

} // namespace parlune
