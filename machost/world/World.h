#pragma once

// The world that a test or the lab plays for the program, behind one Unix socket. Without one, and for what a world
// does not play, the program sees this machine as it is.
//
// A question is a connection of its own: SOCK_SEQPACKET, a message is words, each with a zero byte behind it. The
// first word of a question says what is asked. The first of an answer is "yes", with the words that were asked for,
// "no" for what is not there, or "real" for what this world does not play. What can be asked is told in
// docs/machost.md. An answer that cannot be one ends the process, with the answer on standard error: whoever plays the
// world is wrong, and nothing that the program did from there on would count.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace machost::world {

using Words = std::vector<std::string>;

constexpr int nonsenseStatus = 72;

[[noreturn]] void endOverNonsense(const std::string& answer);

// The number that a word of an answer stands for, in these bounds; ends the process for a word that is none.
std::int64_t numberIn(const std::string& word, std::int64_t least = INT64_MIN, std::int64_t most = INT64_MAX);

// An open question, for answers that come one after the other. Movable; closed with the object.
class Line {
public:
    // Asks; not open where no world is played. Ends the process for a question that is too long for the socket.
    explicit Line(const Words& question);
    ~Line();
    Line(Line&& other) noexcept;
    Line& operator=(Line&&) = delete;

    bool open() const { return descriptor_ >= 0; }

    // The next answer. Blocks; nothing once the world has closed the line, or `hangUp` was called.
    std::optional<Words> next();

    // The same with a descriptor that the answer hands over, which the caller owns; -1 for none.
    std::optional<Words> next(int& handedOver);

    // Says more in a conversation that goes on. To one that has ended nothing is said.
    void tell(const Words& words) const;

    // Ends a wait in `next` on another thread.
    void hangUp() const;

private:
    int descriptor_ = -1;
};

struct Answer {
    enum Kind { real, yes, no };

    // What a line answered. A world that has gone plays nothing.
    static Answer of(const std::optional<Words>& words);

    Kind kind = real;
    Words words; // behind the first
};

// One question, one answer. A world that has gone plays nothing any more.
Answer ask(const Words& question);

} // namespace machost::world
