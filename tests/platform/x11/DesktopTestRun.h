#pragma once

#include <QString>

#include <functional>

namespace parlune::test {

// The body of a desktop-test program's main(). Listing the tests (CTest's discovery) starts
// nothing. Otherwise the desktop starts first, since the Qt application `withDesktop` constructs
// connects to it when constructed; without a desktop every test reports itself skipped.
int runDesktopTests(int argc, char** argv, const QString& openboxConfig,
                    const std::function<int(int&, char**)>& withDesktop);

} // namespace parlune::test
