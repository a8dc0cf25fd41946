// fernhill-lab: the world around the daemon on one machine.

#include "lab/Policy.h"
#include "lab/ReplayCommand.h"
#include "lab/SlotProof.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <exception>

namespace {

constexpr int unusable = 2;

void addReplay(CLI::App& app, lab::ReplayOptions& options, std::string& blockOnFailure) {
    CLI::App* replay =
        app.add_subcommand("replay", "Play captures through the daemon and show what it decides.");
    replay->add_option("captures", options.captures, "pcap or pcapng files, played one behind the other")
        ->required()
        ->type_name("CAPTURE");
    replay->add_option("--policy", options.policy, "the rules by which the agent answers")
        ->required()
        ->type_name("FILE");
    replay
        ->add_option("--json", options.json,
                     "write one object a line for each IP packet (- is standard output)")
        ->type_name("FILE");
    replay->add_option("--asked", options.asked, "write the URLs that the agent is asked, one a line")
        ->type_name("FILE");
    replay->add_option("--bof", blockOnFailure, "block on failure")
        ->check(CLI::IsMember({"on", "off"}))
        ->default_str("off");
    replay
        ->add_option("--program", options.program,
                     "run this Mach-O under machost instead of this build's own program")
        ->type_name("FILE");
    replay->add_option("--root", options.root, "keep the daemon's files in this folder")->type_name("DIR");
}

CLI::App* addSlots(CLI::App& app, lab::SlotOptions& options) {
    CLI::App* slots = app.add_subcommand(
        "slots", "Count the query threads' slots that live after many questions on a busy machine.");
    slots->add_option("--questions", options.questions, "how many go through the daemon")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    slots->add_option("--operations", options.operations, "how many go through a pool alone")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    return slots;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("The Ostler Interceptor's lab");
    app.require_subcommand(1);
    lab::ReplayOptions options;
    std::string blockOnFailure;
    addReplay(app, options, blockOnFailure);
    lab::SlotOptions slotOptions;
    const CLI::App* slots = addSlots(app, slotOptions);
    try {
        app.parse(argc, argv);
        if (slots->parsed()) return lab::proveSlots(slotOptions);
        options.blockOnFailure = blockOnFailure == "on";
        return lab::replay(options);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : unusable;
    } catch (const lab::InputError& error) {
        fmt::print(stderr, "fernhill-lab: {}\n", error.what());
        return unusable;
    } catch (const std::exception& error) {
        fmt::print(stderr, "fernhill-lab: {}\n", error.what());
        return 1;
    }
}
