#include "lab/PolicyAgent.h"

#include <fmt/format.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <utility>

namespace lab {
namespace {

// Of questions that wait: some hundred thousand of a daemon's.
constexpr std::size_t mostKept = std::size_t{1} << 24;

// Before another try to accept a connection when that has failed: nobody tells when descriptors are free again.
constexpr int restMilliseconds = 100;

constexpr char hostLookupError[] = R"({"error":"TW Host lookup timeout"})";
constexpr char nonsense[] = "<<<this is no answer>>>";

// Connections of browsers that have not asked yet.
constexpr std::size_t mostPages = 32;

constexpr char blockPage[] = "<!doctype html><title>Blocked</title><h1>This page is blocked</h1>\n";

std::size_t roomOf(const Question& question) { return sizeof question + question.url.size(); }

std::size_t roomOf(const PolicyAgent::SlowAnswer& answer) { return sizeof answer + answer.url.size(); }

// Of a question that is still to be answered.
std::size_t roomOf(const std::string& url) { return agentFrameHeaderSize + url.size(); }

std::int64_t realMilliseconds() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int listenOn(int port) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (!listenOnLoopback(listener, port)) {
        const int error = errno;
        close(listener);
        throw InputError(fmt::format("127.0.0.1:{}: {} (is an agent or another lab running?)", port,
                                     std::strerror(error)));
    }
    return listener;
}

// The URL stands between the fixed beginning and the fixed end of the body; the daemon escapes nothing, so
// the body need not be JSON.
std::string urlOf(const std::string& body) {
    constexpr std::size_t front = sizeof(R"({"url":")") - 1;
    constexpr std::size_t back = sizeof(R"("})") - 1;
    return body.size() < front + back ? "" : body.substr(front, body.size() - front - back);
}

} // namespace

PolicyAgent::PolicyAgent(Policy policy, bool ownTime) : policy_(std::move(policy)), ownTime_(ownTime) {}

PolicyAgent::~PolicyAgent() { stop(); }

void PolicyAgent::listen() {
    std::lock_guard<std::mutex> lock(mutex_);
    linkListener_ = listenOn(linkPort);
    pageListener_ = listenOn(pagePort);
    wakeUp_ = eventfd(0, EFD_CLOEXEC);
}

void PolicyAgent::start() {
    stopping_ = false;
    thread_ = std::thread(&PolicyAgent::serve, this);
}

void PolicyAgent::stop() {
    if (thread_.joinable()) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        wake();
        thread_.join();
    }
    std::lock_guard<std::mutex> lock(mutex_);
    closeLink();
    closeRetired();
    while (!pages_.empty())
        closePage(pages_.front());
    for (int* descriptor : {&linkListener_, &pageListener_, &wakeUp_}) {
        if (*descriptor >= 0) close(*descriptor);
        *descriptor = -1;
    }
}

std::vector<int> PolicyAgent::descriptors() const { return {linkListener_, pageListener_, wakeUp_}; }

PolicyAgent::Counters PolicyAgent::counters() {
    std::lock_guard<std::mutex> lock(mutex_);
    return counters_;
}

std::vector<Question> PolicyAgent::takeQuestions() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Question> taken = std::exchange(questions_, {});
    countKept();
    return taken;
}

std::vector<PolicyAgent::SlowAnswer> PolicyAgent::takeSlow() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<SlowAnswer> taken(slow_.begin(), slow_.end());
    slow_.clear();
    countKept();
    return taken;
}

void PolicyAgent::sendSlow(const SlowAnswer& answer) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (link_ < 0 || answer.link != links_) return;
    sendFrame(policyFrame, answer.sequence, "{}");
    ++counters_.answers;
    changed_.notify_all();
    wake();
}

void PolicyAgent::answerDeferred() {
    std::lock_guard<std::mutex> lock(mutex_);
    deferring_ = false;
    counters_.deferred = 0;
    for (const auto& [sequence, url] : std::exchange(deferred_, {})) {
        answer(sequence, url);
        if (link_ < 0 || closesWhenSent_) break; // the others went with the link
    }
    countKept();
    changed_.notify_all();
    wake();
}

void PolicyAgent::serve() {
    for (;;) {
        int link;
        bool owes;
        bool full;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) return;
            closeRetired();
            sendUnsent();
            link = link_;
            owes = !unsent_.empty();
            full = isFull() && !owes;
        }
        const bool rests = realMilliseconds() < acceptsAt_;
        const short wanted = owes ? POLLOUT : POLLIN;
        std::vector<pollfd> waiting = {{wakeUp_, POLLIN, 0},
                                       {rests ? -1 : linkListener_, POLLIN, 0},
                                       {rests ? -1 : pageListener_, POLLIN, 0},
                                       {full ? -1 : link, wanted, 0}};
        for (const int page : pages_)
            waiting.push_back({page, POLLIN, 0});
        const int patience = ownTime_ ? 10 : rests ? restMilliseconds : -1;
        if (poll(waiting.data(), waiting.size(), patience) < 0 && errno != EINTR) return;
        std::uint64_t wakings = 0;
        if (waiting[0].revents && read(wakeUp_, &wakings, sizeof wakings) < 0) return;
        if (waiting[3].revents && !owes) readLink(link);
        if (waiting[1].revents) acceptLink();
        for (std::size_t i = 4; i < waiting.size(); ++i)
            if (waiting[i].revents) servePage(waiting[i].fd);
        if (waiting[2].revents) acceptPage();
        if (ownTime_) sendDueSlow();
    }
}

int PolicyAgent::acceptAt(int listener) {
    const int accepted = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (accepted < 0) acceptsAt_ = realMilliseconds() + restMilliseconds;
    return accepted;
}

void PolicyAgent::acceptLink() {
    const int accepted = acceptAt(linkListener_);
    if (accepted < 0) return;
    // Small answers leave at once, though the one before is not acknowledged yet.
    const int on = 1;
    setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    std::lock_guard<std::mutex> lock(mutex_);
    closeLink();
    link_ = accepted;
    ++links_;
    received_.clear();
}

void PolicyAgent::readLink(int link) {
    char buffer[65536];
    const ssize_t count = recv(link, buffer, sizeof buffer, 0);
    // The daemon's next question waits for this acknowledgement when no answer carries it.
    const int on = 1;
    setsockopt(link, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
    std::lock_guard<std::mutex> lock(mutex_);
    if (link != link_) return;
    if (count <= 0) {
        closeLink();
        return;
    }
    received_.add(buffer, static_cast<std::size_t>(count));
    AgentFrame frame;
    while (link_ >= 0 && !closesWhenSent_) {
        const auto found = received_.next(frame);
        if (found == AgentFrameReader::Found::noFrame) closeLink();
        if (found != AgentFrameReader::Found::frame) return;
        handleFrame(frame);
    }
}

void PolicyAgent::handleFrame(const AgentFrame& frame) {
    if (frame.type == logonFrame) {
        ++counters_.logons;
        counters_.linked = true;
        for (const std::string& push : policy_.pushes()) {
            sendFrame(configurationFrame, nextSequence_++, push);
            ++counters_.pushes;
        }
        deferring_ |= !ownTime_ && !policy_.pushes().empty();
    }
    const std::uint32_t number = numberOf_ ? numberOf_(frame.sequence) : frame.sequence;
    if (frame.type == policyFrame && deferring_) {
        deferred_.emplace_back(number, urlOf(frame.body));
        kept_ += roomOf(deferred_.back().second);
        ++counters_.deferred;
    } else if (frame.type == policyFrame) {
        answer(number, urlOf(frame.body));
    }
    changed_.notify_all();
}

bool PolicyAgent::answeredByConduct(std::uint32_t sequence, const std::string& url) {
    const auto conduct = conduct_ ? conduct_(sequence, url) : std::nullopt;
    if (!conduct) return false;
    ++counters_.questions;
    sendBytes(conduct->bytes);
    closesWhenSent_ = conduct->closes && link_ >= 0;
    sendUnsent();
    return true;
}

void PolicyAgent::answer(std::uint32_t sequence, const std::string& url) {
    if (answeredByConduct(sequence, url)) return;
    const auto due = repeatsDue_.find(url);
    const bool repeated = due != repeatsDue_.end();
    if (repeated && --due->second == 0) repeatsDue_.erase(due);
    const Decision& decision = policy_.decide(url);
    ++counters_.questions;
    if (repeated) ++counters_.repeats;
    keep({url, decision, repeated});

    switch (decision.action) {
        case Action::allow:
            sendFrame(policyFrame, sequence, "{}");
            ++counters_.answers;
            break;
        case Action::block:
            sendFrame(policyFrame, sequence, "{\"redirect\":\"" + decision.redirect + "\"}");
            ++counters_.answers;
            break;
        case Action::garble:
            sendFrame(policyFrame, sequence, nonsense);
            ++counters_.answers;
            break;
        case Action::retry:
            ++repeatsDue_[url];
            ++counters_.retriesSent;
            sendFrame(policyFrame, sequence, hostLookupError);
            break;
        case Action::slow:
            keepSlow({sequence, url, decision.milliseconds, links_});
            break;
        case Action::drop:
            closesWhenSent_ = link_ >= 0; // behind the answers before
            sendUnsent();
            ++counters_.answers;
            ++counters_.drops;
            break;
        case Action::silent:
            break;
    }
}

// In a live run they are taken when connections end, which the pages that wait for answers would not let: there it reads
// on and leaves out what there is no room for.
void PolicyAgent::keep(Question question) {
    if (ownTime_ && kept_ > mostKept) {
        ++counters_.untold;
        return;
    }
    kept_ += roomOf(question);
    questions_.push_back(std::move(question));
}

void PolicyAgent::keepSlow(SlowAnswer answer) {
    (ownTime_ ? keptTimed_ : kept_) += roomOf(answer);
    if (ownTime_)
        timedSlow_.emplace_back(realMilliseconds() + answer.milliseconds, std::move(answer));
    else
        slow_.push_back(std::move(answer));
}

// In a live run of slow answers alone, which leave by themselves.
bool PolicyAgent::isFull() const { return (ownTime_ ? keptTimed_ : kept_) > mostKept; }

void PolicyAgent::sendFrame(std::uint32_t type, std::uint32_t sequence, const std::string& body) {
    sendBytes(agentFrame(type, sequence, body));
}

void PolicyAgent::sendBytes(const std::string& bytes) {
    if (link_ < 0 || closesWhenSent_) return;
    unsent_ += bytes;
    sendUnsent();
}

void PolicyAgent::sendUnsent() {
    while (link_ >= 0 && !unsent_.empty()) {
        const ssize_t count = send(link_, unsent_.data(), unsent_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno == EAGAIN) return;
        if (count < 0) return closeLink();
        unsent_.erase(0, static_cast<std::size_t>(count));
    }
    if (closesWhenSent_) closeLink();
}

// The serving thread looks at all anew.
void PolicyAgent::wake() const {
    const std::uint64_t one = 1;
    if (write(wakeUp_, &one, sizeof one) < 0) return; // nobody serves
}

void PolicyAgent::sendDueSlow() {
    std::lock_guard<std::mutex> lock(mutex_);
    const std::int64_t now = realMilliseconds();
    // Taken out first: a link that fails takes what still waits with it.
    std::vector<TimedAnswer> leaving;
    std::deque<TimedAnswer> staying;
    for (TimedAnswer& entry : timedSlow_) {
        if (entry.first <= now)
            leaving.push_back(std::move(entry));
        else
            staying.push_back(std::move(entry));
    }
    timedSlow_ = std::move(staying);
    for (const auto& [time, answer] : leaving) {
        if (link_ < 0) break;
        sendFrame(policyFrame, answer.sequence, "{}");
        ++counters_.answers;
    }
    if (leaving.empty()) return;
    countKept();
    changed_.notify_all();
}

// The serving thread reads on where there is room again.
void PolicyAgent::countKept() {
    const bool wasFull = isFull();
    kept_ = keptTimed_ = 0;
    for (const Question& question : questions_)
        kept_ += roomOf(question);
    for (const SlowAnswer& answer : slow_)
        kept_ += roomOf(answer);
    for (const auto& [due, answer] : timedSlow_)
        keptTimed_ += roomOf(answer);
    for (const auto& [sequence, url] : deferred_)
        kept_ += roomOf(url);
    if (wasFull && !isFull()) wake();
}

void PolicyAgent::closeLink() {
    // The serving thread may be waiting at it, or just reading from it.
    if (link_ >= 0) {
        shutdown(link_, SHUT_RDWR);
        retired_.push_back(link_);
    }
    link_ = -1;
    unsent_.clear();
    closesWhenSent_ = false;
    counters_.linked = false;
    counters_.deferred = 0;
    deferred_.clear();
    timedSlow_.clear();
    countKept();
}

void PolicyAgent::closeRetired() {
    for (int link : std::exchange(retired_, {}))
        close(link);
}

void PolicyAgent::acceptPage() {
    const int page = acceptAt(pageListener_);
    if (page < 0) return;
    pages_.push_back(page);
    if (pages_.size() > mostPages) closePage(pages_.front());
}

void PolicyAgent::servePage(int page) {
    char request[4096];
    if (recv(page, request, sizeof request, 0) > 0) {
        const std::string text =
            fmt::format("HTTP/1.1 200 OK\r\nContent-Type: text/html\r\nContent-Length: {}\r\n"
                        "Connection: close\r\n\r\n{}",
                        std::strlen(blockPage), blockPage);
        send(page, text.data(), text.size(), MSG_NOSIGNAL);
    }
    closePage(page);
}

void PolicyAgent::closePage(int page) {
    close(page);
    pages_.erase(std::find(pages_.begin(), pages_.end(), page));
}

} // namespace lab
