#pragma once

#include <QString>
#include <QUrl>

#include <optional>

namespace parlune {

// Where updates come from. Only a build whose own metadata names exactly the production feed and
// key may use the verified feed; every other build offers the download page instead.
struct UpdateConfiguration {
    QUrl downloadPageUrl;
    QUrl appcastUrl;

    static const QUrl productionAppcastUrl;
    static const QString productionPublicKey; // Ed25519, base64 of 32 bytes
    static UpdateConfiguration production();

    // True only when, in this order: this configuration's feed is the production feed; the
    // build's feed string is exactly that feed's address; the build's key string is exactly the
    // production key; and that key is the canonical base64 form of 32 bytes.
    bool canUseVerifiedFeed(const std::optional<QString>& feedUrlString,
                            const std::optional<QString>& publicKey) const;

    friend bool operator==(const UpdateConfiguration&, const UpdateConfiguration&) = default;
};

// The feed and key this build was configured with (CMake PARLUNE_UPDATE_FEED_URL and
// PARLUNE_UPDATE_PUBLIC_KEY); absent when the build names none.
struct UpdateBuildMetadata {
    std::optional<QString> feedUrl;
    std::optional<QString> publicKey;

    static UpdateBuildMetadata ofThisBuild();
};

} // namespace parlune
