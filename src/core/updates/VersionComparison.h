#pragma once

#include <QStringView>

namespace parlune {

// Orders version strings as people read them: numbers by value ("1.10" after "1.9"), missing
// trailing parts as zero ("1.0" equals "1.0.0"), and a pre-release word before the release it
// precedes ("1.0b1" and "1.0-rc2" before "1.0"). Negative, zero or positive, like strcmp.
int compareVersions(QStringView left, QStringView right);

} // namespace parlune
