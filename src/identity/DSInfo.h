#pragma once

// DSInfo: what the directory says of a user and the machine. A plain record; whoever made it owns it, and nothing
// locks it.

#include "gp/GPObject.h"
#include "identity/DirectoryText.h"

#include <optional>
#include <string>
#include <vector>

class DSInfo : public GPObject {
public:
    // Each is absent until the search finds it. The names of the second and third do not say what they hold: from
    // Active Directory `userDN` is the NT domain and `userOU` the distinguished name.
    DirectoryText username;
    DirectoryText userDN;
    DirectoryText userOU;
    std::optional<std::vector<std::string>>
        groups; // from Open Directory pairs of real name and directory name
    DirectoryText computerName;
    DirectoryText computerDN;
    DirectoryText computerOU; // no search fills it
    DirectoryText computerUUID;
    DirectoryText userFormat; // "directory" or "email"
};
