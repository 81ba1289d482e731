#pragma once

#include "core/platform/CredentialStore.h"

#include <QString>

#include <utility>
#include <vector>

namespace parlune::testing {

// Records deletions and answers each with a chosen outcome.
class FakeCredentialStore final : public CredentialStore {
public:
    CredentialDeletion deleteItem(const QString& service, const QString& account) override {
        deletions.emplace_back(service, account);
        return outcome;
    }

    CredentialDeletion outcome = CredentialDeletion::notFound;
    std::vector<std::pair<QString, QString>> deletions;
};

} // namespace parlune::testing
