#pragma once

#include <QString>

#include <optional>

namespace parlune {

// The feed and key this build was configured with (CMake PARLUNE_UPDATE_FEED_URL and
// PARLUNE_UPDATE_PUBLIC_KEY); absent when the build names none.
struct UpdateBuildMetadata {
    std::optional<QString> feedUrl;
    std::optional<QString> publicKey;

    static UpdateBuildMetadata ofThisBuild();
};

} // namespace parlune
