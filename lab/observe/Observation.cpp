#include "lab/observe/Observation.h"

#include "packet/TCPPacket.h"

#include <sys/mman.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <new>
#include <stdexcept>

namespace lab {
namespace {

constexpr std::size_t stepRoom = 1 << 20;
constexpr std::size_t questionRoom = 64 << 20; // of which only what is written is really taken

// A run of entries. The writer alone moves the end; the reader looks once it knows of a complete entry.
template <std::size_t room>
struct Trace {
    std::atomic<std::size_t> end;
    std::atomic<bool> cut;
    char bytes[room];

    void append(const std::string& entry) {
        const std::size_t at = end.load(std::memory_order_relaxed);
        if (room - at < entry.size()) {
            cut = true;
            return;
        }
        std::memcpy(bytes + at, entry.data(), entry.size());
        end.store(at + entry.size(), std::memory_order_release);
    }
};

struct SeenPacket {
    Trace<stepRoom> steps;
    std::int64_t verdict;
    char memory[TCPPacket::packetRoom];
};

struct Shared {
    SeenPacket packets[2]; // by direction: inbound, outbound
    Trace<questionRoom> questions;
};

Shared* shared = nullptr;
bool declared = false;
thread_local SeenPacket* current = nullptr;
std::mutex questionsMutex; // of the daemon's query threads

// Numbers and texts one behind the other.
class Writer {
public:
    Writer& number(std::int64_t value) {
        bytes_.append(reinterpret_cast<const char*>(&value), sizeof value);
        return *this;
    }
    Writer& text(const std::string& text) {
        number(static_cast<std::int64_t>(text.size()));
        bytes_ += text;
        return *this;
    }
    const std::string& bytes() const { return bytes_; }

private:
    std::string bytes_;
};

class Reader {
public:
    Reader(const char* bytes, std::size_t size) : at_(bytes), end_(bytes + size) {}

    bool more() const { return at_ < end_; }
    std::int64_t number() {
        std::int64_t value;
        std::memcpy(&value, at_, sizeof value);
        at_ += sizeof value;
        return value;
    }
    std::string text() {
        const auto size = static_cast<std::size_t>(number());
        std::string text(at_, size);
        at_ += size;
        return text;
    }

private:
    const char* at_;
    const char* end_;
};

} // namespace

Observation::Observation() {
    void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("no shared memory for what the daemon does");
    shared = static_cast<Shared*>(memory);
}

Observation::~Observation() {
    munmap(shared, sizeof(Shared));
    shared = nullptr;
}

bool Observation::possible() { return declared; }

ObservedPacket Observation::packet(bool outbound, bool withMemory) const {
    const SeenPacket& seen = shared->packets[outbound];
    ObservedPacket packet;
    Reader reader(seen.steps.bytes, seen.steps.end.load(std::memory_order_acquire));
    while (reader.more()) {
        ObservedStep step;
        step.call = static_cast<Call>(reader.number());
        step.answer = reader.number();
        step.mark = static_cast<std::uint64_t>(reader.number());
        step.text = reader.text();
        step.more = reader.text();
        packet.steps.push_back(step);
    }
    packet.verdict = seen.verdict;
    if (withMemory) packet.memory.assign(seen.memory, seen.memory + sizeof seen.memory);
    packet.cut = seen.steps.cut;
    return packet;
}

std::vector<ObservedQuestion> Observation::questions() const {
    std::vector<ObservedQuestion> questions;
    Reader reader(shared->questions.bytes, shared->questions.end.load(std::memory_order_acquire));
    while (reader.more()) {
        ObservedQuestion question;
        question.asked = reader.number();
        question.replied = reader.number();
        question.hasReply = reader.number() != 0;
        question.url = reader.text();
        question.reply = reader.text();
        questions.push_back(question);
    }
    return questions;
}

void declareObserved() { declared = true; }

bool observing() { return shared != nullptr; }

void observeBegin(bool outbound, const char* packet) {
    if (!shared) return;
    current = &shared->packets[outbound];
    current->steps.end = 0;
    current->steps.cut = false;
    std::memcpy(current->memory, packet, sizeof current->memory);
}

void observeStep(const ObservedStep& step) {
    if (!current) return;
    current->steps.append(Writer()
                              .number(static_cast<std::int64_t>(step.call))
                              .number(step.answer)
                              .number(static_cast<std::int64_t>(step.mark))
                              .text(step.text)
                              .text(step.more)
                              .bytes());
}

void observeEnd(std::int64_t verdict) {
    if (!current) return;
    current->verdict = verdict;
    current = nullptr;
}

void observeQuestion(const ObservedQuestion& question) {
    if (!shared) return;
    const std::lock_guard<std::mutex> lock(questionsMutex);
    shared->questions.append(Writer()
                                 .number(question.asked)
                                 .number(question.replied)
                                 .number(question.hasReply)
                                 .text(question.url)
                                 .text(question.reply)
                                 .bytes());
}

} // namespace lab
