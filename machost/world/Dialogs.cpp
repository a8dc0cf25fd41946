#include "machost/world/Dialogs.h"

#include "machost/world/DialogProgram.h"
#include "machost/world/World.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace machost::world {
namespace {

constexpr unsigned long cancelled = 3;

class PlayedDialog final : public Dialog {
public:
    explicit PlayedDialog(Line line) : line_(std::move(line)) {}

    unsigned long awaitAnswer() override {
        const Answer answer = Answer::of(line_.next());
        if (answer.kind != Answer::yes) return cancelled;
        return static_cast<unsigned long>(numberIn(answer.words.empty() ? "" : answer.words[0], 0));
    }

    void cancel() override { line_.hangUp(); }

private:
    Line line_;
};

// On a machine without a screen nobody answers: the dialog times out, or ends at once where it would stay for ever.
class UnseenDialog final : public Dialog {
public:
    explicit UnseenDialog(double seconds) : seconds_(seconds), over_(eventfd(0, EFD_CLOEXEC)) {}
    ~UnseenDialog() override { close(over_); }
    UnseenDialog(const UnseenDialog&) = delete;
    UnseenDialog& operator=(const UnseenDialog&) = delete;

    unsigned long awaitAnswer() override {
        pollfd waited{over_, POLLIN, 0};
        poll(&waited, 1, seconds_ > 0 ? static_cast<int>(seconds_ * 1000) : 0);
        return cancelled;
    }

    void cancel() override {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(over_, &one, sizeof one);
    }

private:
    const double seconds_;
    const int over_;
};

} // namespace

std::unique_ptr<Dialog> showDialog(double seconds, unsigned long flags,
                                   const std::vector<std::pair<std::string, std::string>>& texts) {
    Words question = {"dialog", std::to_string(seconds), std::to_string(flags)};
    for (const auto& [key, text] : texts)
        question.insert(question.end(), {key, text});
    Line line(question);
    const Answer::Kind kind = Answer::of(line.next()).kind;
    if (kind == Answer::real) {
        auto dialog = showOnDesktop(seconds, texts);
        return dialog ? std::move(dialog) : std::make_unique<UnseenDialog>(seconds);
    }
    if (kind != Answer::yes) return nullptr;
    return std::make_unique<PlayedDialog>(std::move(line));
}

} // namespace machost::world
