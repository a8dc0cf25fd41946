// What fernhill-lab doctor says of a machine.

#include "lab/Doctor.h"
#include "lab/LabRun.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using lab::Ability;
using lab::Machine;
using lab::Need;
using labtest::linesOf;
using labtest::runLab;

// One that has everything.
Machine wholeMachine() {
    Machine machine;
    for (const auto& [name, package] : lab::calledPrograms())
        machine.programs.insert(name);
    return machine;
}

const Ability& abilityOf(const std::vector<Ability>& abilities, const std::string& what) {
    return *std::find_if(abilities.begin(), abilities.end(),
                         [&](const Ability& ability) { return ability.what == what; });
}

bool runs(const Machine& machine, const std::string& what) {
    const std::vector<Ability> abilities = lab::abilitiesOf(machine);
    return abilityOf(abilities, what).runs();
}

TEST(Doctor, OnAWholeMachineEverythingRuns) {
    for (const Ability& ability : lab::abilitiesOf(wholeMachine()))
        EXPECT_TRUE(ability.runs()) << ability.what;
}

TEST(Doctor, WithoutRootThereIsNoDivertButAReplay) {
    Machine machine = wholeMachine();
    machine.root = "the user is not root";
    EXPECT_FALSE(runs(machine, "divert"));
    EXPECT_TRUE(runs(machine, "replay, explain, compare"));
}

TEST(Doctor, AReplayNeedsANetworkOfItsOwnOrTheFixedPorts) {
    Machine machine = wholeMachine();
    machine.ownNetwork = "this system grants none";
    EXPECT_TRUE(runs(machine, "replay, explain, compare"));
    machine.ports = "127.0.0.1:3456: Address already in use";
    EXPECT_FALSE(runs(machine, "replay, explain, compare"));
    machine.ownNetwork = "";
    EXPECT_TRUE(runs(machine, "replay, explain, compare"));
}

TEST(Doctor, AMissingProgramIsToldWithItsPackage) {
    Machine machine = wholeMachine();
    machine.programs.erase("dnsmasq");
    const std::vector<Ability> abilities = lab::abilitiesOf(machine);
    const std::vector<Need>& needs = abilityOf(abilities, "divert").needs;
    const auto need =
        std::find_if(needs.begin(), needs.end(), [](const Need& one) { return !one.lack.empty(); });
    ASSERT_NE(need, needs.end());
    EXPECT_EQ(need->remedy, "apt-get install dnsmasq-base");
}

TEST(Doctor, EveryProgramThatItKnowsIsNeededForSomething) {
    for (const auto& [name, package] : lab::calledPrograms()) {
        Machine machine = wholeMachine();
        machine.programs.erase(name);
        const std::vector<Ability> abilities = lab::abilitiesOf(machine);
        EXPECT_FALSE(std::all_of(abilities.begin(), abilities.end(), [](const Ability& ability) {
            return ability.runs();
        })) << name;
    }
}

TEST(Doctor, LooksAtThisMachineAndLeavesNothingBehind) {
    const testsupport::TemporaryFolder folder;
    setenv("TMPDIR", folder.path().c_str(), 1);
    setenv("PATH", folder.path().c_str(), 1); // none of the programs
    const labtest::LabRun run = runLab({"doctor", "--json"});
    EXPECT_EQ(run.status, 1) << run.err;
    const auto all = nlohmann::json::parse(run.out);
    for (const auto& ability : all)
        if (ability["what"] == "browsers") {
            EXPECT_EQ(ability["needs"][0]["remedy"], "apt-get install chromium");
        }
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST(Doctor, ItsTableFitsTheWidth) {
    setenv("COLUMNS", "100", 1);
    const labtest::LabRun run = runLab({"doctor"});
    EXPECT_NE(run.out.find("replay, explain, compare"), std::string::npos) << run.out;
    for (const std::string& line : linesOf(run.out))
        EXPECT_LE(line.size(), 100u) << line;
}

} // namespace
