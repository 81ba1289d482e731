#pragma once

#include <QString>

namespace parlune {

// Where the pipeline shows the user a message (busy notices, failures). Called on the main thread.
class RewriteStatusReporting {
public:
    virtual ~RewriteStatusReporting() = default;
    virtual void showStatus(const QString& message) = 0;
};

} // namespace parlune
