#pragma once

// The node of the machine's own accounts: users and groups as the name service switch answers them.

#include "platform/linux/DirectoryNodes.h"

namespace platform {

class LocalAccounts final : public SearchableNode {
public:
    // Never fails; other types than users and groups have no records.
    bool find(const DirectoryQueryTerms& terms, DirectoryRecords& records,
              DirectoryError& error) const override;
};

} // namespace platform
