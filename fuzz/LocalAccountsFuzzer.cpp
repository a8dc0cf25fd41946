// The machine's own accounts, played from the text of a passwd file and of a group file: what is found has what was
// looked for, and a search by name or by another attribute finds the same account.

#include "fuzz/FuzzInput.h"
#include "fuzz/RecordValues.h"
#include "fuzz/Require.h"
#include "platform/linux/LocalAccounts.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

using fuzzing::require;
using fuzzing::valuesOf;
using namespace platform;

// The text of a file, and the walk through it.
class File {
public:
    void hold(const std::string& text) {
        text_ = text;
        rewind();
    }

    void rewind() {
        close();
        stream_ = text_.empty() ? nullptr : fmemopen(&text_[0], text_.size(), "r");
    }

    void close() {
        if (stream_) std::fclose(stream_);
        stream_ = nullptr;
    }

    std::FILE* stream() { return stream_; }

private:
    std::string text_;
    std::FILE* stream_ = nullptr;
};

File& users() {
    static auto* const file = new File;
    return *file;
}

File& groups() {
    static auto* const file = new File;
    return *file;
}

// The first account of that name, as the re-entrant look-ups answer it.
template <class Entry, class Read>
int lookUp(File& file, const char* name, char* Entry::*nameOf, Entry* entry, Entry** found, Read read) {
    *found = nullptr;
    file.rewind();
    while (file.stream()) {
        const int status = read(file.stream(), entry, found);
        if (status != 0) return status == ERANGE ? ERANGE : 0;
        if (*found && std::strcmp(entry->*nameOf, name) == 0) return 0;
        *found = nullptr;
    }
    return 0;
}

DirectoryRecords find(const char* type, const std::string& attribute, const std::string& value, int most) {
    DirectoryQueryTerms terms;
    terms.recordType = type;
    terms.attribute = attribute;
    terms.queryValue = value;
    terms.maximumResults = most;
    DirectoryRecords records;
    DirectoryError error;
    require(LocalAccounts().find(terms, records, error));
    require(most <= 0 || records.size() <= static_cast<std::size_t>(most));
    return records;
}

void look(const char* type, const std::string& attribute, const std::string& value) {
    const DirectoryRecords all = find(type, attribute, value, 0);
    for (const auto& record : all) {
        const auto values = valuesOf(*record, attribute);
        require(std::find(values.begin(), values.end(), value) != values.end());
        const auto names = valuesOf(*record, kODAttributeTypeRecordName);
        require(names.size() == 1);
        require(record->description() == std::string(localNodeName) + " " + names[0]);
        require(find(type, kODAttributeTypeRecordName, names[0], 0).size() == 1);
    }
    require(find(type, attribute, value, 1).size() == std::min<std::size_t>(1, all.size()));
}

} // namespace

extern "C" {

void __wrap_setpwent() { users().rewind(); }
void __wrap_endpwent() { users().close(); }
passwd* __wrap_getpwent() { return users().stream() ? fgetpwent(users().stream()) : nullptr; }
int __wrap_getpwnam_r(const char* name, passwd* entry, char* space, std::size_t size, passwd** found) {
    return lookUp(users(), name, &passwd::pw_name, entry, found,
                  [&](std::FILE* file, passwd* out, passwd** result) {
                      return fgetpwent_r(file, out, space, size, result);
                  });
}

void __wrap_setgrent() { groups().rewind(); }
void __wrap_endgrent() { groups().close(); }
group* __wrap_getgrent() { return groups().stream() ? fgetgrent(groups().stream()) : nullptr; }
int __wrap_getgrnam_r(const char* name, group* entry, char* space, std::size_t size, group** found) {
    return lookUp(groups(), name, &group::gr_name, entry, found,
                  [&](std::FILE* file, group* out, group** result) {
                      return fgetgrent_r(file, out, space, size, result);
                  });
}

} // extern "C"

// The value that is looked for, the users, then the groups.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzing::FuzzInput input(data, size);
    const std::string value = input.run().c_str();
    // The played look-ups by name read a file from its start each time.
    users().hold(input.run().substr(0, 4096));
    groups().hold(input.rest().substr(0, 4096));
    for (const char* attribute : {kODAttributeTypeRecordName, attributeRealName, attributeUniqueID,
                                  attributePrimaryGroupID, kODAttributeTypeNFSHomeDirectory})
        look(kODRecordTypeUsers, attribute, value);
    for (const char* attribute :
         {kODAttributeTypeRecordName, attributePrimaryGroupID, kODAttributeTypeGroupMembership})
        look(kODRecordTypeGroups, attribute, value);
    require(find(kODRecordTypeComputers, kODAttributeTypeRecordName, value, 0).empty());
    return 0;
}
