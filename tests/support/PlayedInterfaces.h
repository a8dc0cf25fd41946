#pragma once

// Interface entries of the test's own: a builder of their bytes, and the service that hands them out.

#include "platform/InterfaceEntries.h"

#include <string>
#include <vector>

namespace testsupport {

// Builds a listing entry by entry; each operation answers the builder.
class EntryBuilder {
public:
    // A link entry with the hardware address in its raw bytes; empty for an interface without one.
    EntryBuilder& link(const std::string& name, const std::string& hardwareAddress = {});

    // Address entries; the address is given in printed form.
    EntryBuilder& ipv4(const std::string& name, const std::string& address);
    EntryBuilder& ipv6(const std::string& name, const std::string& address);

    // An entry with the socket address as it stands, filled up with zeros to 16 bytes.
    EntryBuilder& raw(const std::string& name, const std::string& socketAddress);

    // The bytes of all entries.
    std::string bytes() const;

    const std::vector<std::string>& entries() const { return entries_; }

private:
    std::vector<std::string> entries_;
};

// Gives out whole entries as far as the caller's buffer takes them.
class PlayedInterfaces final : public platform::InterfaceEntries {
public:
    // Puts this service in force for the rest of the process.
    void install() { platform::interfaceEntriesService.install(*this); }

    // What is listed from now on.
    void show(const EntryBuilder& listing) { entries_ = listing.entries(); }

    // Has `open` answer that number.
    void giveDescriptor(int descriptor) { descriptor_ = descriptor; }

    // Has the listing fail at that call, counting from 1; 0 for never.
    void failAtCall(int call) { failAt_ = call; }

    // Has the length reported be `more` bytes above what was written.
    void reportTooMuch(int more) { reportedMore_ = more; }

    // The sizes of the buffers so far, and the descriptors that were closed.
    const std::vector<int>& rooms() const { return rooms_; }
    const std::vector<int>& closed() const { return closed_; }

    int open() override { return descriptor_; }
    bool list(int socket, char* buffer, int& length) override;
    void close(int socket) override { closed_.push_back(socket); }

private:
    std::vector<std::string> entries_;
    std::vector<int> rooms_;
    std::vector<int> closed_;
    int descriptor_ = 70;
    int failAt_ = 0;
    int reportedMore_ = 0;
};

} // namespace testsupport
