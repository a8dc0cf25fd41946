#include "lab/Stage.h"

#include <fmt/format.h>

#include <utility>

namespace lab {
namespace {

// How long the daemon may take to come, and how often that is looked at.
constexpr int startMilliseconds = 30000;
constexpr int glanceMilliseconds = 100;

} // namespace

Stage::Stage(const std::string& rootPath, Policy policy, std::optional<std::int64_t> time,
             const std::string& program)
    : signals(rootPath.empty() ? std::make_unique<EndingSignals>() : nullptr), root(rootPath),
      extension(root.path()), agent(std::move(policy), !time),
      daemon(root, time ? &clock : nullptr, program) {
    clock.set(time.value_or(0));
}

bool Stage::raise(bool withAgent) {
    extension.listen();
    if (withAgent) agent.listen();
    std::vector<int> foreign = extension.descriptors();
    for (int descriptor : agent.descriptors())
        foreign.push_back(descriptor);
    daemon.start(foreign);
    if (signals)
        watch = std::make_unique<EndingWatch>([this] {
            daemon.endForGood();
            root.remove();
        });
    extension.start();
    if (withAgent) agent.start();
    for (int waited = 0; waited < startMilliseconds && daemon.running(); waited += glanceMilliseconds) {
        if (extension.waitForDaemon(glanceMilliseconds)) return true;
    }
    const std::string refusal = daemon.refusal();
    if (!refusal.empty())
        throw InputError(fmt::format("{}: it cannot be run: {}", daemon.program(), refusal));
    return false;
}

} // namespace lab
