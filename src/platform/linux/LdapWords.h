#pragma once

// The words of an LDAP directory for those of the directory service: RFC 2307 accounts and groups, Internet
// persons, and the classes for computers. Pure functions.

#include <string>
#include <vector>

namespace platform {

// The LDAP attributes that can hold the attribute of a record of that type, the best first; none if nothing in an
// LDAP directory corresponds to it. A native attribute keeps its name.
std::vector<std::string> ldapAttributes(const std::string& recordType, const std::string& attribute);

// The filter for records of that type whose attribute equals the value; empty if there can be none.
std::string ldapFilter(const std::string& recordType, const std::string& attribute, const std::string& value);

// The value as it stands in a filter.
std::string escapedForFilter(const std::string& value);

// Every attribute of the directory service that `ldapAttributes` knows by a name of its own.
std::vector<std::string> knownAttributes();

} // namespace platform
