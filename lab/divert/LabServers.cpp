#include "lab/divert/LabServers.h"

#include "lab/divert/LabNetwork.h"
#include "lab/divert/OwnSystem.h"
#include "lab/divert/Tools.h"

#include <fmt/format.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

namespace lab {
namespace {

namespace fs = std::filesystem;

constexpr int startSeconds = 60;
constexpr off_t bigFile = 100'000'000;

std::string inOwnFolder(const std::string& name) { return std::string(ownFolder) + "/" + name; }

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

// What a page must arrive as: a file without a pattern, and a long one that takes no room.
void makeFiles() {
    mkdir(inOwnFolder("www").c_str(), 0755);
    std::minstd_rand random(1);
    std::string noise(1'000'000, '\0');
    for (char& byte : noise)
        byte = static_cast<char>(random() >> 8);
    writeFile(inOwnFolder("www/noise"), noise);
    writeFile(inOwnFolder("www/big"), "");
    if (truncate(inOwnFolder("www/big").c_str(), bigFile) != 0)
        throw UnavailableError(
            fmt::format("divert: no room for the servers' files: {}", std::strerror(errno)));
}

std::string webConfiguration() {
    return fmt::format(
        "daemon off;\nmaster_process off;\nuser root root;\npid {0}/nginx.pid;\nerror_log {0}/nginx.errors;\n"
        "events {{ worker_connections 4096; }}\nworker_rlimit_nofile 8192;\nhttp {{\n"
        "access_log {0}/nginx.access;\nclient_body_temp_path {0}/t1; proxy_temp_path {0}/t2;\n"
        "fastcgi_temp_path {0}/t3; uwsgi_temp_path {0}/t4; scgi_temp_path {0}/t5;\n"
        "sendfile on;\nserver {{\nlisten 80 default_server backlog=1024;\nlisten [::]:80 default_server;\n"
        "listen 443 ssl default_server backlog=1024;\nlisten [::]:443 ssl default_server;\n"
        "ssl_certificate {0}/certificate.pem;\nssl_certificate_key {0}/key.pem;\nroot {0}/www;\n"
        "default_type text/html;\nlocation / {{ try_files $uri @page; }}\n"
        "location @page {{ return 200 "
        "\"<!doctype html><title>$host</title><h1>The page $scheme://$host$request_uri</h1>\\n\"; "
        "}}\n}}\n}}\n",
        ownFolder);
}

void makeCertificate(const std::vector<std::string>& hosts) {
    std::string names = fmt::format("DNS:lab.example,DNS:*.lab.example,IP:{},IP:{}",
                                    LabAddresses::serversIpv4, LabAddresses::serversIpv6);
    for (const std::string& host : hosts)
        names += fmt::format(",DNS:{0},DNS:*.{0}", host);
    runTool({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
             "-days", "2", "-subj", "/CN=lab.example", "-addext", "subjectAltName=" + names, "-keyout",
             inOwnFolder("key.pem"), "-out", inOwnFolder("certificate.pem")});
    for (const char* variable : {"SSL_CERT_FILE", "CURL_CA_BUNDLE"})
        setenv(variable, inOwnFolder("certificate.pem").c_str(), 1);
    // There is no way to a proxy from here.
    for (const char* variable :
         {"http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY"})
        unsetenv(variable);
}

// Where a link leads into /run, which is the lab's own, there is nothing yet to be played.
void giveLinkAnEnd(const fs::path& path) {
    std::error_code noLink;
    const fs::path end = path.parent_path() / fs::read_symlink(path, noLink);
    if (noLink || fs::exists(end) || !liesInRun(end)) return;
    fs::create_directories(end.parent_path());
    writeFile(end, "");
}

void playFile(const std::string& path, const std::string& text) {
    giveLinkAnEnd(path);
    const std::string played = inOwnFolder(path.substr(path.rfind('/') + 1));
    writeFile(played, text);
    if (mount(played.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0)
        throw UnavailableError(fmt::format("divert: {} cannot be played: {}", path, std::strerror(errno)));
}

bool connects(int port) {
    const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (client < 0) return false;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    inet_pton(AF_INET, LabAddresses::serversIpv4, &address.sin_addr);
    const linger atOnce{1, 0}; // nothing of it is left on the way when packets are diverted
    setsockopt(client, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    const bool connected = connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(client);
    return connected;
}

// A server that is asked for its port once it runs.
struct Server {
    std::string name;
    pid_t process;
    int port;
};

std::string outputOf(const std::string& server) { return inOwnFolder(server + ".output"); }

Server startServer(const std::vector<std::string>& words, int port) {
    return {words[0], startHelper(inServersNetwork(words), outputOf(words[0])), port};
}

void await(const Server& server) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(startSeconds);
    while (!connects(server.port)) {
        if (helperHasEnded(server.process) || std::chrono::steady_clock::now() > limit)
            throw UnavailableError(
                fmt::format("divert: {} does not serve: {}", server.name, firstWords(outputOf(server.name))));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

} // namespace

void startServers(const std::vector<std::string>& hosts) {
    makeFiles();
    makeCertificate(hosts);
    playFile("/etc/hosts", "127.0.0.1 localhost\n::1 localhost\n");
    playFile("/etc/resolv.conf",
             fmt::format("nameserver {}\noptions timeout:1\n", LabAddresses::serversIpv4));
    writeFile(inOwnFolder("nginx.conf"), webConfiguration());
    const Server web =
        startServer({"nginx", "-c", inOwnFolder("nginx.conf"), "-e", inOwnFolder("nginx.errors")}, 443);
    const Server names = startServer(
        {"dnsmasq", "--keep-in-foreground", "--conf-file=/dev/null", "--no-resolv", "--no-hosts", "--no-poll",
         "--user=root", "--pid-file", "--bind-interfaces", "--interface=s0", "--cache-size=0",
         "--dns-forward-max=1000", fmt::format("--address=/#/{}", LabAddresses::serversIpv4),
         fmt::format("--address=/#/{}", LabAddresses::serversIpv6)},
        53);
    await(web);
    await(names);
}

} // namespace lab
