#pragma once

#include <QByteArray>
#include <QString>

namespace parlune {

// Checks that a file is exactly what the holder of an Ed25519 key signed (libsodium).
class Ed25519Signature {
public:
    static constexpr qsizetype publicKeyBytes = 32;
    static constexpr qsizetype signatureBytes = 64;

    // Empty when `signature` signs the whole of the file at `path` under `publicKey`; otherwise
    // the sentence that says why the file cannot be trusted, naming it `shownName` (by default
    // the file's name).
    static QString verifyFile(const QString& path, const QByteArray& signature, const QByteArray& publicKey,
                              const QString& shownName = {});
};

} // namespace parlune
