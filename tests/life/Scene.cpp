#include "life/Scene.h"

#include "lab/AgentFrame.h"
#include "platform/ConsoleUser.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

namespace life {
namespace {

namespace fs = std::filesystem;

constexpr int patienceMilliseconds = 60000;
constexpr std::chrono::seconds calmLimit{5};
constexpr std::chrono::microseconds glance{1000};
constexpr std::chrono::microseconds shortGlance{50}; // where a thread ends at any moment

// How the agent answers: by the host's last words. The address of the redirect needs no look-up.
constexpr char policy[] = "block *block.example* http://10.9.9.9/why\n"
                          "retry 1 *retry.example*\n"
                          "garble *garble.example*\n"
                          "slow 1 *slow.example*\n"
                          "allow *\n";

// What the agent does beside the policy, by the URL.
std::optional<lab::PolicyAgent::Conduct> conductOf(std::uint32_t sequence, const std::string& url) {
    const std::string allowed = lab::agentFrame(lab::policyFrame, sequence, "{}");
    if (url.find(".restart.example") != std::string::npos) return lab::PolicyAgent::Conduct{allowed, true};
    for (const bool on : {true, false}) {
        if (url.find(on ? ".closing.example" : ".opening.example") == std::string::npos) continue;
        const std::string body = fmt::format(R"({{"bypass_on_failure":{},"update_url":"",}})", !on);
        // The setting first: the thread that takes it has then begun before the one that asked can end.
        return lab::PolicyAgent::Conduct{
            lab::agentFrame(lab::configurationFrame, 0x90000000 + sequence, body) + allowed, false};
    }
    return {};
}

template <class Condition>
bool comesTrue(Condition condition, std::chrono::milliseconds limit,
               std::chrono::microseconds pause = glance) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(pause);
    }
    return true;
}

int entriesOf(const std::string& folder) {
    return static_cast<int>(std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
}

std::string textOf(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// The number behind that word in the process's status, which is gone with the process.
long statusOf(const std::string& process, const std::string& word) {
    const std::string status = textOf(process + "/status");
    const auto place = status.find(word);
    if (place == std::string::npos) throw std::runtime_error("the daemon has gone");
    return std::atol(status.c_str() + place + word.size());
}

// Not the entries of the folder of threads: where one ends during the reading, another is left out.
int threadsOf(const std::string& process) { return static_cast<int>(statusOf(process, "Threads:")); }

Holdings holdingsOf(const std::string& process) {
    return {statusOf(process, "VmRSS:"), threadsOf(process), entriesOf(process + "/fd")};
}

// A program that is there, as on a Mac, and has nothing to tell.
void addSilentTool(const std::string& path) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << "#!/bin/sh\n";
    fs::permissions(path, fs::perms::owner_all);
}

} // namespace

Scene::Scene(std::int64_t time)
    : agent_(lab::Policy::parse(policy, "the year's policy"), false),
      daemon_(root_, &clock_, {}, [this] { platform::consoleUserService.install(console_); }) {
    clock_.set(time);
    agent_.setConduct(conductOf);
    for (const char* tool : {"/usr/sbin/dsconfigad", "/bin/dscl"})
        addSilentTool(root_.path() + tool);
    root_.configure(false, 0);
    extension_.listen();
    agent_.listen();
    std::vector<int> foreign = extension_.descriptors();
    for (int descriptor : agent_.descriptors())
        foreign.push_back(descriptor);
    daemon_.start(foreign);
    extension_.start();
    agent_.start();
    if (!extension_.waitForDaemon(patienceMilliseconds))
        throw std::runtime_error("the daemon did not come:\n" + lastOutput());
    logons_ = 1; // the first login makes the link, which logs on by itself too
    logIn();
}

void Scene::logIn() {
    console_.seat(++users_);
    awaitLogon();
}

void Scene::awaitLogon() {
    ++logons_;
    if (!agent_.waitUntil([&](const auto& counters) { return counters.logons >= logons_; },
                          patienceMilliseconds))
        throw std::runtime_error("no logon came");
}

void Scene::awaitBlockOnFailure(bool on) {
    const std::string file = root_.path() + "/Library/twsys/fernhill.xml";
    const std::string wanted = on ? "<BlockOnFailure>true<" : "<BlockOnFailure>false<";
    if (!comesTrue([&] { return textOf(file).find(wanted) != std::string::npos; },
                   std::chrono::milliseconds(patienceMilliseconds)))
        throw std::runtime_error("a pushed setting was not stored");
}

bool Scene::waitForThreads(int most) {
    const std::string process = "/proc/" + std::to_string(daemon_.pid());
    return comesTrue([&] { return threadsOf(process) <= most; },
                     std::chrono::milliseconds(patienceMilliseconds), shortGlance);
}

void Scene::changeAddresses() {
    const int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo:1");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    hasOneAddressMore_ = !hasOneAddressMore_;
    address.sin_addr.s_addr = htonl(hasOneAddressMore_ ? 0x0a070707 : 0);
    std::memcpy(&request.ifr_addr, &address, sizeof address);
    const int result = ioctl(control, SIOCSIFADDR, &request);
    close(control);
    if (result != 0) throw std::runtime_error("the network's addresses cannot be changed");
}

Holdings Scene::holdings(int threads, int descriptors) {
    Holdings now;
    comesTrue(
        [&] {
            now = holdingsOf("/proc/" + std::to_string(daemon_.pid()));
            return now.threads <= threads && now.descriptors <= descriptors;
        },
        calmLimit);
    return now;
}

} // namespace life
