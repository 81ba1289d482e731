#pragma once

#include <functional>

namespace parlune {

class AccessibilityApi;
class Workspace;
struct PlatformTerms;

// Whether the user lets this program read and drive other applications, and the way to ask for it.
class AccessibilityPermission {
public:
    AccessibilityPermission(AccessibilityApi& accessibility, Workspace& workspace,
                            const PlatformTerms& terms);

    // The platform's answer, without prompting.
    bool isTrusted() const;
    // True at once when already trusted; otherwise asks the platform with its prompt and returns
    // the answer.
    bool requestIfNeeded();

    // The settings window's request action: ask, let the caller refresh its readiness view, and
    // when still not trusted open the accessibility settings, or the settings application when the
    // desktop cannot open that location. Returns the answer of the request.
    bool requestAndOpenSettings(const std::function<void()>& refreshReadiness);

private:
    AccessibilityApi& accessibility_;
    Workspace& workspace_;
    const PlatformTerms& terms_;
};

} // namespace parlune
