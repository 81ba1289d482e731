#include "core/updates/Ed25519Signature.h"

#include <QFile>
#include <QFileInfo>

#include <sodium.h>

namespace parlune {

QString Ed25519Signature::verifyFile(const QString& path, const QByteArray& signature,
                                     const QByteArray& publicKey, const QString& shownName) {
    const QString name = shownName.isEmpty() ? QFileInfo(path).fileName() : shownName;
    if (sodium_init() < 0) {
        return QStringLiteral(
                   "The signature of %1 cannot be checked: the cryptography library failed to start.")
            .arg(name);
    }
    if (signature.size() != signatureBytes || publicKey.size() != publicKeyBytes) {
        return QStringLiteral("The signature of %1 is malformed, so it was not trusted.").arg(name);
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return QStringLiteral("%1 cannot be read to check its signature.").arg(path);
    }
    // Mapped rather than read: an update archive is checked as one message without copying it.
    const qint64 size = file.size();
    const uchar* bytes = size > 0 ? file.map(0, size) : nullptr;
    if (size > 0 && !bytes) {
        return QStringLiteral("%1 cannot be read to check its signature.").arg(path);
    }
    static const unsigned char empty = 0;
    const int verdict = crypto_sign_verify_detached(
        reinterpret_cast<const unsigned char*>(signature.constData()), bytes ? bytes : &empty,
        static_cast<unsigned long long>(size), reinterpret_cast<const unsigned char*>(publicKey.constData()));
    if (verdict != 0) {
        return QStringLiteral("The signature of %1 does not match the update key, so it was deleted.")
            .arg(name);
    }
    return {};
}

} // namespace parlune
