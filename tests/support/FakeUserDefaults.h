#pragma once

#include "core/platform/UserDefaults.h"

#include <QString>

#include <map>
#include <variant>
#include <vector>

namespace parlune::testing {

// In-memory user defaults with typed values. A value read as another type than it was stored
// reads as absent, 0 or false. Keeps a log of the keys written.
class FakeUserDefaults final : public UserDefaults {
public:
    using Value = std::variant<QString, qint64, bool>;

    std::optional<QString> string(const QString& key) const override {
        const QString* value = find<QString>(key);
        return value ? std::optional<QString>(*value) : std::nullopt;
    }
    qint64 integer(const QString& key) const override {
        const qint64* value = find<qint64>(key);
        return value ? *value : 0;
    }
    bool boolean(const QString& key) const override {
        const bool* value = find<bool>(key);
        return value ? *value : false;
    }
    void setString(const QString& key, const QString& value) override { write(key, value); }
    void setInteger(const QString& key, qint64 value) override { write(key, value); }
    void setBoolean(const QString& key, bool value) override { write(key, value); }
    void remove(const QString& key) override { values.erase(key); }

    bool contains(const QString& key) const { return values.count(key) != 0; }

    std::map<QString, Value> values;
    std::vector<QString> writes;

private:
    template <typename T> const T* find(const QString& key) const {
        const auto it = values.find(key);
        return it == values.end() ? nullptr : std::get_if<T>(&it->second);
    }
    void write(const QString& key, Value value) {
        values[key] = std::move(value);
        writes.push_back(key);
    }
};

} // namespace parlune::testing
