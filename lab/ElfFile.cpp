#include "lab/ElfFile.h"

#include "lab/Descriptor.h"

#include <fmt/format.h>

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace lab {
namespace {

constexpr std::uint64_t longestText = 4096;

// Of a table that names libraries: a build has some dozens.
constexpr std::uint64_t mostEntries = 4096;

constexpr const char* buildAgain = "build or copy it again";
constexpr const char* buildForThisMachine = "give a build for x86-64 Linux";

// Of a regular file; any other holds nothing.
class Reader {
public:
    explicit Reader(const std::string& path) {
        const Descriptor found(open(path.c_str(), O_PATH | O_CLOEXEC));
        struct stat entry {};
        regular_ = found >= 0 && fstat(found, &entry) == 0 && S_ISREG(entry.st_mode);
        if (!regular_) return; // to open a device may set it going
        file_ = Descriptor(
            open(fmt::format("/proc/self/fd/{}", static_cast<int>(found)).c_str(), O_RDONLY | O_CLOEXEC));
        size_ = static_cast<std::uint64_t>(entry.st_size);
    }

    bool isRegular() const { return regular_; }

    bool holds(std::uint64_t offset, std::uint64_t length) const {
        return offset <= size_ && length <= size_ - offset;
    }

    bool read(std::uint64_t offset, void* place, std::uint64_t length) const {
        return holds(offset, length) &&
               pread(file_, place, length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length);
    }

    // Up to its zero; nothing where it has none within the file, or is longer than any path.
    std::optional<std::string> text(std::uint64_t offset) const {
        std::string text(longestText, '\0');
        const std::uint64_t most = offset < size_ ? std::min(size_ - offset, longestText) : 0;
        if (!read(offset, text.data(), most)) return std::nullopt;
        const auto end = text.find('\0');
        if (end >= most) return std::nullopt;
        return text.substr(0, end);
    }

private:
    Descriptor file_;
    bool regular_ = false;
    std::uint64_t size_ = 0;
};

using Segments = std::vector<Elf64_Phdr>;

bool isForeign(const Elf64_Ehdr& header) {
    return header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_ident[EI_DATA] != ELFDATA2LSB ||
           header.e_machine != EM_X86_64;
}

std::string kindFault(const Elf64_Ehdr& header) {
    if (header.e_ident[EI_CLASS] != ELFCLASS64)
        return fmt::format("it is no program of 64 bits; {}", buildForThisMachine);
    if (header.e_ident[EI_DATA] != ELFDATA2LSB || header.e_machine != EM_X86_64)
        return fmt::format("it is a program of another machine (number {}); {}", header.e_machine,
                           buildForThisMachine);
    if (header.e_type != ET_EXEC && header.e_type != ET_DYN)
        return "it is an ELF file but no program; give one that is linked";
    if (header.e_phentsize != sizeof(Elf64_Phdr) || header.e_phnum == 0)
        return fmt::format("it is damaged (its header names no segments); {}", buildAgain);
    return {};
}

std::string segmentFault(const Reader& reader, const Segments& segments) {
    for (const Elf64_Phdr& segment : segments) {
        if (segment.p_type == PT_NULL) continue;
        if (!reader.holds(segment.p_offset, segment.p_filesz))
            return fmt::format("it is cut short (a segment lies behind its end); {}", buildAgain);
        if (segment.p_type == PT_LOAD &&
            (segment.p_filesz > segment.p_memsz || segment.p_vaddr + segment.p_memsz < segment.p_vaddr))
            return fmt::format("it is damaged (a segment has no room for its bytes); {}", buildAgain);
    }
    return {};
}

bool beginsInItself(const Segments& segments, std::uint64_t entry) {
    return std::any_of(segments.begin(), segments.end(), [&](const Elf64_Phdr& segment) {
        return segment.p_type == PT_LOAD && (segment.p_flags & PF_X) && entry >= segment.p_vaddr &&
               entry - segment.p_vaddr < segment.p_memsz;
    });
}

const Elf64_Phdr* segmentOf(const Segments& segments, std::uint32_t type) {
    const auto found = std::find_if(segments.begin(), segments.end(),
                                    [&](const Elf64_Phdr& segment) { return segment.p_type == type; });
    return found == segments.end() ? nullptr : &*found;
}

std::optional<std::string> interpreterOf(const Reader& reader, const Segments& segments) {
    const Elf64_Phdr* const segment = segmentOf(segments, PT_INTERP);
    if (!segment) return std::nullopt;
    return reader.text(segment->p_offset).value_or("");
}

// The program runs in another folder than the lab.
bool canInterpret(const std::string& path) {
    struct stat entry {};
    return path.rfind('/', 0) == 0 && stat(path.c_str(), &entry) == 0 && S_ISREG(entry.st_mode) &&
           access(path.c_str(), X_OK) == 0;
}

std::optional<std::uint64_t> offsetOf(const Segments& segments, std::uint64_t address) {
    for (const Elf64_Phdr& segment : segments)
        if (segment.p_type == PT_LOAD && address >= segment.p_vaddr &&
            address - segment.p_vaddr < segment.p_filesz)
            return segment.p_offset + (address - segment.p_vaddr);
    return std::nullopt;
}

// Up to its last; none where it is no table.
std::vector<Elf64_Dyn> dynamicEntries(const Reader& reader, const Segments& segments) {
    const Elf64_Phdr* const segment = segmentOf(segments, PT_DYNAMIC);
    const std::uint64_t size = segment ? segment->p_filesz : 0;
    std::vector<Elf64_Dyn> entries(std::min(size / sizeof(Elf64_Dyn), mostEntries));
    if (!segment || !reader.read(segment->p_offset, entries.data(), entries.size() * sizeof(Elf64_Dyn)))
        return {};
    entries.erase(std::find_if(entries.begin(), entries.end(),
                               [](const Elf64_Dyn& entry) { return entry.d_tag == DT_NULL; }),
                  entries.end());
    return entries;
}

void readLibraryNames(const Reader& reader, const Segments& segments, ElfFile& file) {
    const std::vector<Elf64_Dyn> entries = dynamicEntries(reader, segments);
    if (entries.size() == mostEntries) {
        file.fault = "it names more of libraries than any build; give a build of the daemon";
        return;
    }
    std::optional<std::uint64_t> texts;
    for (const Elf64_Dyn& entry : entries)
        if (entry.d_tag == DT_STRTAB) texts = offsetOf(segments, entry.d_un.d_ptr);
    const auto textOf = [&](const Elf64_Dyn& entry) {
        const std::optional<std::string> text = texts ? reader.text(*texts + entry.d_un.d_val) : std::nullopt;
        if (!text) file.fault = fmt::format("it is damaged (a name lies nowhere in it); {}", buildAgain);
        return text.value_or("");
    };
    for (const Elf64_Dyn& entry : entries) {
        if (entry.d_tag == DT_NEEDED) file.needed.push_back(textOf(entry));
        if (entry.d_tag == DT_RPATH) file.pathForAll = textOf(entry);
        if (entry.d_tag == DT_RUNPATH) file.pathForItself = textOf(entry);
        if (entry.d_tag == DT_SONAME) file.name = textOf(entry);
    }
    const auto namesOrigin = [](const std::string& text) { return text.find("ORIGIN") != std::string::npos; };
    file.looksBesideItself = namesOrigin(file.pathForAll) || namesOrigin(file.pathForItself) ||
                             std::any_of(file.needed.begin(), file.needed.end(), namesOrigin);
}

ElfFile faulty(const std::string& fault) {
    ElfFile file;
    file.fault = fault;
    return file;
}

ElfFile readHeaders(const Reader& reader, Elf64_Ehdr& header, Segments& segments) {
    if (!reader.read(0, &header, sizeof header))
        return faulty(fmt::format("it is cut short (its header is not whole); {}", buildAgain));
    ElfFile file = faulty(kindFault(header));
    file.foreign = isForeign(header);
    if (!file.fault.empty()) return file;
    segments.resize(header.e_phnum);
    if (!reader.read(header.e_phoff, segments.data(), segments.size() * sizeof segments[0]))
        return faulty(fmt::format("it is cut short (its table of segments is not whole); {}", buildAgain));
    return faulty(segmentFault(reader, segments));
}

} // namespace

bool isElf(const std::string& path) {
    char beginning[SELFMAG];
    return Reader(path).read(0, beginning, sizeof beginning) && std::memcmp(beginning, ELFMAG, SELFMAG) == 0;
}

ElfFile readElf(const std::string& program) {
    const Reader reader(program);
    Elf64_Ehdr header{};
    Segments segments;
    ElfFile file = readHeaders(reader, header, segments);
    if (!file.fault.empty()) return file;
    if (!beginsInItself(segments, header.e_entry))
        return faulty(fmt::format("it is damaged (it begins in no code of its own); {}", buildAgain));
    const std::optional<std::string> interpreter = interpreterOf(reader, segments);
    if (!interpreter)
        return faulty("it is linked without libraries, so no library can play its clock; link it with them");
    if (!canInterpret(*interpreter))
        return faulty(fmt::format("its interpreter \"{}\" cannot be run here; install it, or {}",
                                  *interpreter, buildForThisMachine));
    file.interpreter = *interpreter;
    readLibraryNames(reader, segments, file);
    return file;
}

ElfFile readElfLibrary(const std::string& library) {
    const Reader reader(library);
    if (!reader.isRegular()) return faulty("it is no regular file");
    if (!isElf(library)) return faulty("it is no library");
    Elf64_Ehdr header{};
    Segments segments;
    ElfFile file = readHeaders(reader, header, segments);
    if (file.fault.empty()) readLibraryNames(reader, segments, file);
    return file;
}

} // namespace lab
