// fernhill-lab: the world around the daemon on one machine.

#include "lab/CompareCommand.h"
#include "lab/ConfigCheck.h"
#include "lab/Doctor.h"
#include "lab/ExplainCommand.h"
#include "lab/LogReader.h"
#include "lab/Policy.h"
#include "lab/ReplayCommand.h"
#include "lab/SlotProof.h"
#include "lab/divert/DivertCommand.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <exception>
#include <string>

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
    replay
        ->add_option("--report", options.report,
                     "write a page for a browser, which needs nothing beside itself")
        ->type_name("FILE");
    replay->add_option("--csv", options.csv, "write a line for each connection (- is standard output)")
        ->type_name("FILE");
    replay
        ->add_option("--rows", options.rows,
                     "show at most so many connections, each kind of verdict among them")
        ->check(CLI::PositiveNumber)
        ->type_name("N");
    replay
        ->add_option("--bof", blockOnFailure,
                     "the setting BlockOnFailure: whether a request without a usable answer is blocked")
        ->check(CLI::IsMember({"on", "off"}))
        ->default_str("off");
    replay
        ->add_option("--program", options.program,
                     "run this build of the daemon, a Mach-O included, instead of the lab's own")
        ->type_name("FILE");
    replay->add_option("--root", options.root, "keep the daemon's files in this folder")->type_name("DIR");
    replay->footer(
        "Exit status: 0 when every packet was answered, 1 when not, 2 for what cannot be used.\n"
        "Examples:\n"
        "  fernhill-lab replay tests/captures/many.pcap --policy lab/policies/demo.policy --rows 30\n"
        "  fernhill-lab replay day.pcapng --policy mine.policy --report day.html --csv day.csv");
}

CLI::App* addExplain(CLI::App& app, lab::ExplainOptions& options, std::string& blockOnFailure) {
    CLI::App* explain =
        app.add_subcommand("explain", "Say test by test how a packet of a capture gets its verdict.");
    explain->add_option("capture", options.capture, "a pcap or pcapng file")
        ->required()
        ->type_name("CAPTURE");
    explain->add_option("--packet", options.packets, "its number in the capture, a range such as 4-9, or all")
        ->required()
        ->type_name("N");
    explain->add_option("--policy", options.policy, "the rules by which the agent answers")
        ->required()
        ->type_name("FILE");
    explain->add_flag("--json", options.json, "one object a line for each packet in place of the text");
    explain
        ->add_option("--bof", blockOnFailure,
                     "the setting BlockOnFailure: whether a request without a usable answer is blocked")
        ->check(CLI::IsMember({"on", "off"}))
        ->default_str("off");
    explain->add_option("--root", options.root, "keep the daemon's files in this folder")->type_name("DIR");
    explain->footer(
        "Exit status: 0, 1 where what is told is not what the daemon did, 2 for what cannot be used.\n"
        "Example: fernhill-lab explain tests/captures/http4.pcap --packet 4 --policy "
        "lab/policies/demo.policy");
    return explain;
}

CLI::App* addCompare(CLI::App& app, lab::CompareOptions& options, std::string& blockOnFailure) {
    CLI::App* compare = app.add_subcommand(
        "compare", "Play captures under two policies and show what the second one changes.");
    compare->add_option("captures", options.captures, "pcap or pcapng files, each played by itself")
        ->required()
        ->type_name("CAPTURE");
    compare->add_option("--policy", options.policies, "the rules before the change, and again those after it")
        ->required()
        ->allow_extra_args(false)
        ->type_name("FILE");
    compare->add_flag("--json", options.json, "one object in place of the tables");
    compare
        ->add_option("--csv", options.csv,
                     "write a line for each connection with another outcome (- is standard output)")
        ->type_name("FILE");
    compare->add_option("--rows", options.rows, "show at most so many connections, and URLs")
        ->check(CLI::PositiveNumber)
        ->capture_default_str()
        ->type_name("N");
    compare
        ->add_option("--bof", blockOnFailure,
                     "the setting BlockOnFailure: whether a request without a usable answer is blocked")
        ->check(CLI::IsMember({"on", "off"}))
        ->default_str("off");
    compare->footer(
        "Exit status: 0 when every connection has the same outcome, 1 when one has another, 2 for what "
        "cannot "
        "be used.\n"
        "Example: fernhill-lab compare tests/captures/many.pcap --policy lab/policies/allow-all.policy "
        "--policy lab/policies/demo.policy");
    return compare;
}

CLI::App* addSlots(CLI::App& app, lab::SlotOptions& options) {
    CLI::App* slots = app.add_subcommand(
        "slots", "Count the query threads' slots that live after many questions on a busy machine.");
    slots->add_option("--questions", options.questions, "how many go through the daemon")
        ->check(CLI::NonNegativeNumber)
        ->type_name("N")
        ->capture_default_str();
    slots->add_option("--operations", options.operations, "how many go through a pool alone")
        ->check(CLI::NonNegativeNumber)
        ->type_name("N")
        ->capture_default_str();
    slots->footer("Exit status: 0, 1 when a slot, a question or an answer is lost.\n"
                  "Example: fernhill-lab slots --questions 10000 --operations 10000");
    return slots;
}

CLI::App* addCheck(CLI::App& app, lab::CheckOptions& options) {
    CLI::App* check = app.add_subcommand(
        "check", "Say of a configuration file what the daemon takes, ignores, and loses at its next save.");
    check->add_option("configuration", options.file, "the file")->required()->type_name("CONFIG");
    check->add_flag("--json", options.json, "one array of objects in place of the table");
    check->add_option("--csv", options.csv, "write a line for each row of the table (- is standard output)")
        ->type_name("FILE");
    check->footer("Exit status: 0 when nothing is ignored or lost, 1 when something is, 2 for a file that "
                  "cannot be read.\n"
                  "Example: fernhill-lab check fernhill.xml");
    return check;
}

CLI::App* addLog(CLI::App& app, lab::LogOptions& options) {
    CLI::App* log =
        app.add_subcommand("log", "Show the daemon's log files as one, in the order of their lines' times.");
    log->add_option("folder", options.folder, "where fernhill*.log are")->required()->type_name("FOLDER");
    log->add_option("--containing", options.containing,
                    "only lines with this text: a URL, a host, an address")
        ->type_name("TEXT");
    log->add_option("--request", options.request,
                    "only the lines of one question to the agent, by its number")
        ->check(CLI::NonNegativeNumber)
        ->type_name("N");
    log->add_flag("--since-start", options.sinceStart, "only what came since the daemon's newest start");
    log->add_flag("--explain", options.explain, "what a line means, below it, where that is known");
    log->add_flag("--hangs", options.hangs,
                  "only what the log can tell of pages that hang, since the newest start");
    log->add_flag("--json", options.json, "one object a line, with what it means; of --hangs one array");
    log->add_option("--csv", options.csv,
                    "write a row for each line, with what it means (- is standard output)")
        ->type_name("FILE");
    log->footer("Exit status: 0, 1 when no line is left to show, 2 for a folder without a log.\n"
                "Example: fernhill-lab log /Library/Logs/TarnwickSystems --since-start --containing "
                "example.org --explain");
    return log;
}

CLI::App* addDoctor(CLI::App& app, lab::DoctorOptions& options) {
    CLI::App* doctor =
        app.add_subcommand("doctor", "Say what of the lab can run on this machine, and what to install.");
    doctor->add_flag("--json", options.json, "one array of objects in place of the table");
    doctor->add_option("--csv", options.csv, "write a line for each row of the table (- is standard output)")
        ->type_name("FILE");
    doctor->footer(
        "It changes nothing. Exit status: 0 when all of the lab runs here, 1 when something does not.\n"
        "Example: fernhill-lab doctor");
    return doctor;
}

CLI::App* addDivert(CLI::App& app, lab::DivertOptions& options, std::string& blockOnFailure) {
    CLI::App* divert = app.add_subcommand(
        "divert",
        "Run a command, or a shell, in a network of the lab's own whose packets go through the daemon.");
    divert->add_option("command", options.command, "what runs, with its arguments, behind --")
        ->type_name("COMMAND");
    divert->add_option("--policy", options.policy, "the rules by which the agent answers")
        ->required()
        ->type_name("FILE");
    divert
        ->add_option("--bof", blockOnFailure,
                     "the setting BlockOnFailure: whether a request without a usable answer is blocked")
        ->check(CLI::IsMember({"on", "off"}))
        ->default_str("off");
    divert->add_flag("--no-agent", options.withoutAgent, "leave the agent away");
    divert
        ->add_option("--restart-agent", options.restartSeconds,
                     "take the agent away every so often, for a moment")
        ->check(CLI::PositiveNumber)
        ->type_name("SECONDS");
    divert
        ->add_option("--program", options.program,
                     "run this build of the daemon, a Mach-O included, instead of the lab's own")
        ->type_name("FILE");
    divert
        ->add_option("--table", options.table,
                     "write the table here and not to standard error (- is standard output)")
        ->type_name("FILE");
    divert
        ->add_option("--json", options.json,
                     "write one object a line for each connection (- is standard output)")
        ->type_name("FILE");
    divert->add_option("--csv", options.csv, "write a line for each connection (- is standard output)")
        ->type_name("FILE");
    divert->add_option("--record", options.record, "have tcpdump write the packets as they are diverted")
        ->type_name("FILE");
    divert->add_option("--watch", options.watch, "write one object a second: what the daemon holds")
        ->type_name("FILE");
    divert
        ->add_option_function<std::string>(
            "--through",
            [&options](const std::string& way) {
                options.way = way == "queue"     ? lab::Way::queue
                              : way == "nothing" ? lab::Way::nothing
                                                 : lab::Way::daemon;
            },
            "what the packets go through: the daemon, only the kernel's queue, or nothing")
        ->check(CLI::IsMember({"daemon", "queue", "nothing"}))
        ->default_str("daemon");
    divert->add_option("--log", options.logLevel, "the daemon's log level, a sum: see -ll in fernhill(8)")
        ->type_name("LEVEL");
    divert->add_option("--root", options.root, "keep the daemon's files in this folder")->type_name("DIR");
    divert->footer(
        "Exit status: the command's; 1 when the daemon failed it, 2 where this machine or the build cannot "
        "run it.\n"
        "Example: fernhill-lab divert --policy lab/policies/demo.policy -- curl -L "
        "http://shop.birch.example/");
    return divert;
}

} // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): memory alone fails before its options are known
int main(int argc, char** argv) {
    CLI::App app("The Ostler Interceptor's lab");
    app.require_subcommand(1);
    lab::ReplayOptions options;
    std::string blockOnFailure;
    addReplay(app, options, blockOnFailure);
    lab::ExplainOptions explainOptions;
    const CLI::App* explain = addExplain(app, explainOptions, blockOnFailure);
    lab::CompareOptions compareOptions;
    const CLI::App* compare = addCompare(app, compareOptions, blockOnFailure);
    lab::SlotOptions slotOptions;
    const CLI::App* slots = addSlots(app, slotOptions);
    lab::CheckOptions checkOptions;
    const CLI::App* check = addCheck(app, checkOptions);
    lab::LogOptions logOptions;
    const CLI::App* log = addLog(app, logOptions);
    lab::DoctorOptions doctorOptions;
    const CLI::App* doctor = addDoctor(app, doctorOptions);
    lab::DivertOptions divertOptions;
    const CLI::App* divert = addDivert(app, divertOptions, blockOnFailure);
    try {
        app.parse(argc, argv);
        if (slots->parsed()) return lab::proveSlots(slotOptions);
        if (check->parsed()) return lab::check(checkOptions);
        if (log->parsed()) return lab::showLog(logOptions);
        if (doctor->parsed()) return lab::doctor(doctorOptions);
        options.blockOnFailure = divertOptions.blockOnFailure = explainOptions.blockOnFailure =
            compareOptions.blockOnFailure = blockOnFailure == "on";
        if (compare->parsed()) return lab::compare(compareOptions);
        if (explain->parsed()) return lab::explain(explainOptions);
        if (divert->parsed()) return lab::divert(divertOptions);
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
