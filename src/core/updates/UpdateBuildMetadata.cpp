#include "core/updates/UpdateBuildMetadata.h"

namespace parlune {

UpdateBuildMetadata UpdateBuildMetadata::ofThisBuild() {
    UpdateBuildMetadata metadata;
    if (const QString feed = QStringLiteral(PARLUNE_UPDATE_FEED_URL); !feed.isEmpty()) {
        metadata.feedUrl = feed;
    }
    if (const QString key = QStringLiteral(PARLUNE_UPDATE_PUBLIC_KEY); !key.isEmpty()) {
        metadata.publicKey = key;
    }
    return metadata;
}

} // namespace parlune
