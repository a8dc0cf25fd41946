#include "support/AnswerServer.h"

#include <cstdlib>
#include <utility>

namespace testsupport {
namespace {

// How many bytes follow the request's headers.
std::size_t bodyLength(const std::string& headers) {
    const std::string name = "Content-Length: ";
    const auto at = headers.find(name);
    return at == std::string::npos ? 0 : std::strtoul(headers.c_str() + at + name.size(), nullptr, 10);
}

} // namespace

AnswerServer::AnswerServer(std::vector<std::string> answers, Afterwards afterwards, int port)
    : listener_(port), answers_(std::move(answers)), afterwards_(afterwards), thread_([this] { serve(); }) {}

AnswerServer::~AnswerServer() { requests(); }

std::string AnswerServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port()) + path;
}

const std::vector<std::string>& AnswerServer::requests() {
    if (thread_.joinable()) thread_.join();
    return requests_;
}

void AnswerServer::serve() {
    for (const std::string& answer : answers_) {
        Peer peer = listener_.accept();
        if (!peer.isOpen()) return;
        std::string request = peer.readUntil("\r\n\r\n");
        request += peer.read(bodyLength(request));
        requests_.push_back(std::move(request));
        peer.send(answer);
        if (afterwards_ == Afterwards::stalls) kept_.push_back(std::move(peer));
    }
}

} // namespace testsupport
