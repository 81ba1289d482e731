#pragma once

#include "core/hotkeys/HotKeyShortcut.h"

#include <QString>
#include <QStringView>

#include <cstdint>
#include <vector>

namespace parlune {

// One of the predefined shortcuts. `id` is stable across platforms; `name` uses the current
// platform's modifier words.
struct HotKeyPreset {
    QString id;
    QString name;
    std::uint32_t keyCode = 0;
    std::uint32_t carbonModifiers = 0;

    // The preset as a shortcut whose display name is the preset's name.
    HotKeyShortcut shortcut() const;

    static constexpr QStringView defaultID = u"option-space";

    // Option+Space, Command+Shift+H, Control+Option+R, in this order. The names keep the listed
    // modifier order, which is not the formatter's.
    static std::vector<HotKeyPreset> all();

    // The preset whose id matches exactly (case-sensitive); any other id gives the default.
    static HotKeyPreset preset(QStringView id);

    friend bool operator==(const HotKeyPreset&, const HotKeyPreset&) = default;
};

} // namespace parlune
