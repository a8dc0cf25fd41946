#include "support/WebServer.h"

#include "support/LoopbackPeer.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace testsupport {
namespace {

std::string configuration(const std::string& folder, const std::string& listeners,
                          const std::string& locations) {
    // A server of the superuser would otherwise hand its folders to somebody else.
    const std::string user = geteuid() == 0 ? "user root root; " : "";
    return user + "daemon off; master_process off; pid " + folder + "/pid; error_log " + folder +
           "/errors;\nevents {}\nhttp {\n"
           "log_format line '$request_method $request_uri $status $http_user_agent $scheme';\n"
           "access_log " +
           folder + "/access line;\n" + "client_body_temp_path " + folder + "/t1; proxy_temp_path " + folder +
           "/t2; fastcgi_temp_path " + folder + "/t3; uwsgi_temp_path " + folder + "/t4; scgi_temp_path " +
           folder + "/t5;\nserver {\nserver_name localhost;\n" + listeners + "root " + folder + "/www;\n" +
           locations + "\n}\n}\n";
}

} // namespace

WebServer::WebServer(int port, int tlsPort, const Certificate& certificate, const std::string& locations) {
    std::string listeners = "listen 127.0.0.1:" + std::to_string(port) + ";\n";
    if (tlsPort != 0)
        listeners += "listen 127.0.0.1:" + std::to_string(tlsPort) + " ssl;\nssl_certificate " +
                     certificate.certificateFile() + ";\nssl_certificate_key " + certificate.keyFile() +
                     ";\n";
    writeAll(folder_.file("nginx.conf"), configuration(folder_.path(), listeners, locations));
    put("index.html", "<p>index</p>\n");

    std::fflush(nullptr);
    process_ = fork();
    if (process_ == 0) {
        const std::string file = folder_.file("nginx.conf");
        const std::string errors = folder_.file("errors");
        if (!std::freopen(folder_.file("output").c_str(), "w", stderr)) _exit(126);
        execlp("nginx", "nginx", "-c", file.c_str(), "-e", errors.c_str(), static_cast<char*>(nullptr));
        execl("/usr/sbin/nginx", "nginx", "-c", file.c_str(), "-e", errors.c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    // It opens its ports one after the other.
    if (process_ < 0 || !connectTo(port).isOpen() || (tlsPort != 0 && !connectTo(tlsPort).isOpen()))
        throw std::runtime_error("no web server: " + readAll(folder_.file("output")) +
                                 readAll(folder_.file("errors")));
}

WebServer::~WebServer() {
    if (process_ <= 0) return;
    kill(process_, SIGTERM);
    waitpid(process_, nullptr, 0);
}

void WebServer::put(const std::string& name, const std::string& content) {
    writeAll(folder_.file("www/" + name), content);
}

std::string WebServer::accessLog() const { return readAll(folder_.file("access")); }

} // namespace testsupport
