#pragma once

#include <QString>

namespace parlune {

// What happened to a credential deletion.
enum class CredentialDeletion {
    deleted,     // an item existed and is gone
    notFound,    // the store holds no such item
    unavailable, // the store could not be reached in time; nothing was changed
};

// The desktop's secure credential store. Only ever asked to forget items of earlier versions.
class CredentialStore {
public:
    virtual ~CredentialStore() = default;
    // Deletes the item stored for `service` and `account`. Never prompts and returns quickly.
    virtual CredentialDeletion deleteItem(const QString& service, const QString& account) = 0;
};

} // namespace parlune
