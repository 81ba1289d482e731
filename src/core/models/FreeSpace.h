#pragma once

#include <QString>

#include <functional>
#include <optional>

namespace parlune {

// Bytes an unprivileged user may still write in the file system holding `folder`; nullopt when
// it cannot be asked. A function type so that tests can stand in for the file system.
using FreeSpaceQuery = std::function<std::optional<qint64>(const QString& folder)>;

std::optional<qint64> freeSpaceOnDisk(const QString& folder);

} // namespace parlune
