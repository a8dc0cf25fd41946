#include "support/SlapdServer.h"

#include "support/LoopbackPeer.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <vector>

namespace testsupport {
namespace {

std::string configuration(const std::string& folder, const std::string& settings) {
    return "include /etc/ldap/schema/core.schema\n"
           "include /etc/ldap/schema/cosine.schema\n"
           "include /etc/ldap/schema/nis.schema\n"
           "include /etc/ldap/schema/inetorgperson.schema\n"
           "modulepath /usr/lib/ldap\n"
           "moduleload back_mdb\n"
           "pidfile " +
           folder + "/pid\nargsfile " + folder + "/arguments\n" + settings + "\ndatabase mdb\nsuffix " +
           SlapdServer::base() + "\ndirectory " + folder + "/database\nmaxsize 10485760\n";
}

// Runs the program with its output going to a file; the child's number.
int start(const std::string& program, const std::vector<std::string>& words, const std::string& output) {
    std::fflush(nullptr);
    const int child = fork();
    if (child != 0) return child;
    if (!std::freopen(output.c_str(), "a", stderr)) _exit(126);
    std::vector<char*> arguments = {const_cast<char*>(program.c_str())};
    for (const std::string& word : words)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    execv(program.c_str(), arguments.data());
    _exit(127);
}

} // namespace

SlapdServer::SlapdServer(const std::string& entries, const std::string& settings) {
    const std::string file = folder_.file("slapd.conf");
    const std::string output = folder_.file("output");
    std::filesystem::create_directory(folder_.file("database"));
    writeAll(file, configuration(folder_.path(), settings));
    writeAll(folder_.file("entries"), "dn: " + base() +
                                          "\nobjectClass: organization\nobjectClass: dcObject\n"
                                          "o: example\ndc: example\n\n" +
                                          entries);

    int status = 0;
    const int loading = start("/usr/sbin/slapadd", {"-q", "-f", file, "-l", folder_.file("entries")}, output);
    if (loading < 0 || waitpid(loading, &status, 0) != loading || status != 0)
        throw std::runtime_error("no directory: " + readAll(output));

    port_ = freePort();
    process_ = start("/usr/sbin/slapd", {"-d", "0", "-f", file, "-h", uri()}, output);
    if (process_ < 0 || !connectTo(port_).isOpen())
        throw std::runtime_error("no directory server: " + readAll(output));
}

SlapdServer::~SlapdServer() { stop(); }

void SlapdServer::stop() {
    if (process_ <= 0) return;
    kill(process_, SIGTERM);
    waitpid(process_, nullptr, 0);
    process_ = -1;
}

std::string accountEntry(const std::string& name, int id) {
    const std::string number = std::to_string(id);
    return "dn: uid=" + name + "," + SlapdServer::base() +
           "\nobjectClass: inetOrgPerson\nobjectClass: posixAccount\nuid: " + name + "\ncn: The user " +
           name + "\nsn: " + name + "\nmail: " + name + "@example.com\nuidNumber: " + number +
           "\ngidNumber: " + number + "\nhomeDirectory: /home/" + name + "\nloginShell: /bin/sh\n\n";
}

std::string groupEntry(const std::string& name, int id, const std::string& memberLines) {
    return "dn: cn=" + name + "," + SlapdServer::base() + "\nobjectClass: posixGroup\ncn: " + name +
           "\ngidNumber: " + std::to_string(id) + "\n" + memberLines + "\n";
}

std::string computerEntry(const std::string& name) {
    return "dn: cn=" + name + "," + SlapdServer::base() + "\nobjectClass: device\ncn: " + name + "\n\n";
}

} // namespace testsupport
