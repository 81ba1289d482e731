#pragma once

#include <QString>
#include <QUrl>

#include <optional>

namespace parlune {

// Where updates come from. Automatic updates are allowed only for a build whose own feed address and
// public key are exactly the production ones; any other build sends the user to the download page.
struct UpdateConfiguration {
    QUrl downloadPageURL;
    QUrl appcastURL;

    // The Ed25519 key that signs production archives: base64 of 32 bytes.
    static constexpr const char* productionSparklePublicEDKey =
        "poWgjhW7mRlYI6lVvmLGD1wQJvJGdCJ8nxxrJuQHRv0=";

    static QUrl productionAppcastURL();
    static QUrl productionDownloadPageURL();
    static UpdateConfiguration production();

    // Whether this configuration and the build's feed address and key (absent when the build
    // declares none) allow automatic updates. The strings must match exactly: a key that decodes to
    // the same bytes but is written differently is refused.
    bool canUseSparkle(const std::optional<QString>& feedURLString,
                       const std::optional<QString>& publicEDKey) const;

    // Base64 of exactly 32 bytes, written the one way encoding those bytes gives: no extra or missing
    // padding, no line breaks, no stray bits in the last character.
    static bool isCanonicalPublicKey(const QString& key);

    friend bool operator==(const UpdateConfiguration&, const UpdateConfiguration&) = default;
};

} // namespace parlune
