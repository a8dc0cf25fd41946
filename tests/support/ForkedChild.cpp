#include "support/ForkedChild.h"

#include "support/Patience.h"
#include "support/ProcessRest.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace testsupport {
namespace {

constexpr std::chrono::milliseconds shortWhile{250};
constexpr std::chrono::milliseconds muchWork{500};

enum class Outcome { answered, died, silent };

class Child {
public:
    explicit Child(const std::function<std::string()>& operation) {
        int ends[2];
        if (pipe(ends) != 0) throw std::runtime_error("no pipe");
        // A program that the operation starts must not keep the pipe open.
        fcntl(ends[1], F_SETFD, FD_CLOEXEC);
        process_ = fork();
        if (process_ < 0) throw std::runtime_error("no child");
        if (process_ == 0) {
            const std::string answer = operation();
            const bool written =
                write(ends[1], answer.data(), answer.size()) == static_cast<ssize_t>(answer.size());
            _exit(written ? 0 : 1);
        }
        close(ends[1]);
        readEnd_ = ends[0];
    }

    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    ~Child() {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
        close(readEnd_);
    }

    // Reads the answer up to the pipe's end, which is the child's end.
    Outcome outcome(int milliseconds, std::string& answer) {
        for (;;) {
            pollfd waited = {readEnd_, POLLIN, 0};
            if (poll(&waited, 1, milliseconds) < 1) return Outcome::silent;
            char text[256];
            const ssize_t got = read(readEnd_, text, sizeof text);
            if (got < 1) return answer.empty() ? Outcome::died : Outcome::answered;
            answer.append(text, static_cast<std::size_t>(got));
        }
    }

    // Whether it neither answers nor dies within a short while, in which it has nothing to do but to wait, nor while it
    // works a lot.
    bool staysSilent() {
        std::string answer;
        auto restless = std::chrono::steady_clock::now();
        while (std::chrono::steady_clock::now() - restless < shortWhile &&
               processorTime(process_) < muchWork) {
            if (outcome(1, answer) != Outcome::silent) return false;
            if (!isAtRest(process_)) restless = std::chrono::steady_clock::now();
        }
        return true;
    }

private:
    pid_t process_ = -1;
    int readEnd_ = -1;
};

std::function<std::string()> answeringDone(const std::function<void()>& operation) {
    return [&operation] {
        operation();
        return std::string("done");
    };
}

} // namespace

bool neverEnds(const std::function<void()>& operation) {
    return Child(answeringDone(operation)).staysSilent();
}

bool comesToItsEnd(const std::function<void()>& operation) {
    std::string answer;
    return Child(answeringDone(operation)).outcome(patienceMilliseconds, answer) == Outcome::answered;
}

std::string answerOfChild(const std::function<std::string()>& operation) {
    std::string answer;
    const Outcome outcome = Child(operation).outcome(patienceMilliseconds, answer);
    return outcome == Outcome::answered ? answer : "(no answer)";
}

} // namespace testsupport
