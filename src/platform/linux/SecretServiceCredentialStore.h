#pragma once

#include "core/platform/CredentialStore.h"

#include <chrono>

namespace parlune {

// The credential store of the desktop's Secret Service (GNOME Keyring, KWallet, KeePassXC, ...),
// through libsecret. Items are matched by their "service" and "account" attributes.
//
// Harmless where no such service runs: without a session bus, or with no Secret Service on it,
// nothing is started (no bus auto-launch, no service activation) and the answer is `unavailable`.
// Every call ends within `timeout`; a slow service is cancelled.
class SecretServiceCredentialStore final : public CredentialStore {
public:
    explicit SecretServiceCredentialStore(std::chrono::milliseconds timeout = std::chrono::seconds(2));

    CredentialDeletion deleteItem(const QString& service, const QString& account) override;

private:
    std::chrono::milliseconds timeout_;
};

} // namespace parlune
