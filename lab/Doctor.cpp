#include "lab/Doctor.h"

#include "lab/CsvFile.h"
#include "lab/EndingSignals.h"
#include "lab/MacProgram.h"
#include "lab/PolicyAgent.h"
#include "lab/PrivateNetwork.h"
#include "lab/RootFolder.h"
#include "lab/Terminal.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <sstream>

namespace lab {
namespace {

namespace fs = std::filesystem;

bool isThere(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::istringstream folders(path ? path : "/usr/bin:/bin");
    for (std::string file; std::getline(folders, file, ':');) {
        file.append("/").append(program);
        if (access(file.c_str(), X_OK) == 0) return true;
    }
    return false;
}

// What a trial says, made in a child that leaves nothing behind.
std::string tried(const std::function<std::string()>& trial) {
    int answer[2];
    if (pipe(answer) != 0) return "it cannot be tried: no pipe";
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        std::string lack;
        try {
            lack = trial();
        } catch (const std::exception& error) {
            lack = error.what();
        }
        const bool told = write(answer[1], lack.data(), lack.size()) == static_cast<ssize_t>(lack.size());
        _exit(told ? 0 : 1);
    }
    close(answer[1]);
    std::string lack;
    char buffer[512];
    for (ssize_t count; (count = read(answer[0], buffer, sizeof buffer)) > 0;)
        lack.append(buffer, static_cast<std::size_t>(count));
    close(answer[0]);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0) return "it could not be tried";
    return lack;
}

std::string errorText() { return std::strerror(errno); }

std::string portsLack() {
    for (const int port : {PolicyAgent::linkPort, PolicyAgent::pagePort}) {
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (listener < 0) return errorText();
        const int yes = 1;
        setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        const bool bound = bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        const std::string why = errorText();
        close(listener);
        if (!bound) return fmt::format("127.0.0.1:{}: {}", port, why);
    }
    return "";
}

std::string ruleLack() {
    if (!isThere("iptables")) return "iptables is missing";
    if (unshare(CLONE_NEWNET) != 0) return errorText();
    const std::string command =
        "iptables -A OUTPUT -p tcp -m mark ! --mark 1 -j NFQUEUE --queue-num 1 > /dev/null 2>&1 && "
        "ip6tables -A OUTPUT -p tcp -m mark ! --mark 1 -j NFQUEUE --queue-num 1 > /dev/null 2>&1";
    // NOLINTNEXTLINE(cert-env33-c): words of its own, with the path of the one who asks
    return std::system(command.c_str()) == 0 ? "" : "iptables cannot add a rule for a packet queue";
}

std::string namespacesLack() {
    return unshare(CLONE_NEWPID | CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWIPC) == 0 ? "" : errorText();
}

std::string scratchLack() {
    const EndingSignals signals; // for a moment
    const RootFolder folder("");
    return "";
}

std::string fileLack(const std::string& path) { return fs::exists(path) ? "" : "not built"; }

Need needed(const std::string& name, const std::string& lack, const std::string& remedy) {
    return {name, lack, lack.empty() ? "" : remedy};
}

Need program(const Machine& machine, const std::string& name) {
    const bool there = machine.programs.count(name) > 0;
    return needed(name, there ? "" : "no such program in PATH",
                  "apt-get install " + calledPrograms().at(name));
}

Ability replayAbility(const Machine& machine) {
    Ability ability{"replay, explain, compare", {}};
    ability.needs.push_back(needed("scratch folder", machine.scratch, "another TMPDIR, of a short path"));
    // One of the two is enough.
    const bool served = machine.ownNetwork.empty() || machine.ports.empty();
    ability.needs.push_back(needed("own network or ports", served ? "" : machine.ports,
                                   "end what listens there, or allow user namespaces"));
    return ability;
}

Ability divertAbility(const Machine& machine) {
    Ability ability{"divert", {}};
    ability.needs.push_back(needed("root", machine.root, "run it as root"));
    ability.needs.push_back(
        needed("namespaces", machine.namespaces, "run it as root, outside of containers that forbid them"));
    ability.needs.push_back(
        needed("NFQUEUE", machine.queue,
               "apt-get install libnetfilter-queue-dev libmnl-dev and build again; a kernel "
               "with nfnetlink_queue"));
    ability.needs.push_back(needed("rules for NFQUEUE", machine.rules,
                                   "apt-get install iptables; a kernel with xt_NFQUEUE and xt_mark"));
    for (const char* name : {"iptables", "ip6tables", "ip", "nginx", "openssl", "dnsmasq"})
        ability.needs.push_back(program(machine, name));
    return ability;
}

const char* const lacking = "missing";

void printTable(const std::vector<Ability>& abilities) {
    TextTable table({"what", "runs here", "needs", "there", "what to do"});
    for (const Ability& ability : abilities) {
        bool first = true;
        for (const Need& need : ability.needs) {
            const bool there = need.lack.empty();
            table.add({{first ? ability.what : "", Colour::strong},
                       {!first           ? ""
                        : ability.runs() ? "yes"
                                         : "no",
                        ability.runs() ? Colour::good : Colour::bad},
                       {need.name},
                       {there ? "yes" : lacking, there ? Colour::good : Colour::bad},
                       {there ? "" : fmt::format("{} ({})", need.remedy, need.lack)}});
            first = false;
        }
        if (ability.needs.empty())
            table.add({{ability.what, Colour::strong}, {"yes", Colour::good}, {"nothing"}});
    }
    table.print(stdout);
}

void printJson(const std::vector<Ability>& abilities) {
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    for (const Ability& ability : abilities) {
        nlohmann::ordered_json needs = nlohmann::ordered_json::array();
        for (const Need& need : ability.needs)
            needs.push_back({{"name", need.name},
                             {"there", need.lack.empty()},
                             {"lack", need.lack},
                             {"remedy", need.remedy}});
        all.push_back({{"what", ability.what}, {"runs", ability.runs()}, {"needs", needs}});
    }
    fmt::print("{}\n", all.dump(1, ' ', true, nlohmann::json::error_handler_t::replace));
}

void writeCsv(const std::string& path, const std::vector<Ability>& abilities) {
    CsvFile file(path, "what,runs,need,there,lack,remedy");
    for (const Ability& ability : abilities) {
        if (ability.needs.empty()) file.row(csvField(ability.what) + ",true,,,,");
        for (const Need& need : ability.needs)
            file.row(fmt::format("{},{},{},{},{},{}", csvField(ability.what), ability.runs(),
                                 csvField(need.name), need.lack.empty(), csvField(need.lack),
                                 csvField(need.remedy)));
    }
    file.finish();
}

} // namespace

const std::map<std::string, std::string>& calledPrograms() {
    static const std::map<std::string, std::string> programs{
        {"iptables", "iptables"}, {"ip6tables", "iptables"}, {"ip", "iproute2"},
        {"nginx", "nginx-light"}, {"openssl", "openssl"},    {"dnsmasq", "dnsmasq-base"},
        {"tcpdump", "tcpdump"},   {"chromium", "chromium"},  {"tshark", "tshark"},
        {"valgrind", "valgrind"},
    };
    return programs;
}

bool Ability::runs() const {
    return std::all_of(needs.begin(), needs.end(), [](const Need& need) { return need.lack.empty(); });
}

Machine lookAtMachine() {
    Machine machine;
    machine.root = geteuid() == 0 ? "" : "the user is not root";
    machine.scratch = tried(scratchLack);
    machine.ownNetwork = tried([] { return enterPrivateNetwork() ? "" : "this system grants none"; });
    machine.ports = tried(portsLack);
    machine.namespaces = tried(namespacesLack);
    machine.queue = tried([] { return unshare(CLONE_NEWNET) == 0 ? queueLack() : errorText(); });
    machine.rules = tried(ruleLack);
    machine.machost = fileLack(machostPath());
    machine.macProgram = fileLack(
        (fs::path(machostPath()).parent_path().parent_path().parent_path() / "macos/src/fernhill").string());
    for (const auto& [name, package] : calledPrograms())
        if (isThere(name)) machine.programs.insert(name);
    return machine;
}

std::vector<Ability> abilitiesOf(const Machine& machine) {
    std::vector<Ability> abilities{{"check, log", {}}, replayAbility(machine), divertAbility(machine)};
    abilities.push_back({"divert --record", {program(machine, "tcpdump")}});
    abilities.push_back({"browsers", {program(machine, "chromium")}});
    abilities.push_back(
        {"the Mac program",
         {needed("machost", machine.machost, "scripts/test builds it"),
          needed("cross-built program", machine.macProgram, "scripts/macos-cross builds it")}});
    abilities.push_back({"predicted URLs", {program(machine, "tshark")}});
    abilities.push_back({"counted instructions", {program(machine, "valgrind")}});
    return abilities;
}

int doctor(const DoctorOptions& options) {
    checkOneOutput(options.json, options.csv);
    const std::vector<Ability> abilities = abilitiesOf(lookAtMachine());
    if (!options.csv.empty()) writeCsv(options.csv, abilities);
    if (options.json)
        printJson(abilities);
    else if (options.csv != "-")
        printTable(abilities);
    return std::all_of(abilities.begin(), abilities.end(),
                       [](const Ability& ability) { return ability.runs(); })
               ? 0
               : 1;
}

} // namespace lab
