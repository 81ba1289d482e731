#pragma once

#include <QString>

#include <optional>

namespace parlune {

// The user's persisted preferences: a flat store of values by key. Reads never fail: a missing
// or unreadable value reads as absent (strings), 0 (integers) or false (booleans). Writes are
// best effort; a store that cannot persist keeps the value for this run and says why elsewhere.
class UserDefaults {
public:
    virtual ~UserDefaults() = default;

    // The string under `key`; nullopt when there is none.
    virtual std::optional<QString> string(const QString& key) const = 0;
    // The integer under `key`; 0 when there is none or the value is not an integer.
    virtual qint64 integer(const QString& key) const = 0;
    // The boolean under `key`; false when there is none or the value is not a boolean.
    virtual bool boolean(const QString& key) const = 0;

    virtual void setString(const QString& key, const QString& value) = 0;
    virtual void setInteger(const QString& key, qint64 value) = 0;
    virtual void setBoolean(const QString& key, bool value) = 0;
    // Removing a key that is not there does nothing.
    virtual void remove(const QString& key) = 0;
};

} // namespace parlune
