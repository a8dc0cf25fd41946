#include "support/CheckinService.h"

#include "config/CheckinRequest.h"
#include "support/FixedPorts.h"

#include <sys/socket.h>

#include <sstream>

namespace testsupport {

CheckinService::CheckinService(PlayedNames& names) : certificate_(checkinHost()) {
    claimFixedPorts();
    certificate_.trust();
    names.answer(checkinHost(), AF_INET, {"127.0.0.1"});
}

void CheckinService::start(const std::string& locations) {
    server_.emplace(80, 443, certificate_, locations);
}

void CheckinService::reply(const std::string& body) {
    if (!server_) start();
    server_->put("1/checkin", body);
}

void CheckinService::replyWithStatus(int status, const std::string& body) {
    start("location = /1/checkin { return " + std::to_string(status) + " '" + body + "'; }");
}

void CheckinService::takeAndNeverAnswer() {
    silence_.emplace();
    start("location = /1/checkin { proxy_pass http://127.0.0.1:" + std::to_string(silence_->port()) + "; }");
}

std::vector<std::string> CheckinService::requests(const std::string& path) const {
    std::vector<std::string> targets;
    if (!server_) return targets;
    std::istringstream lines(server_->accessLog());
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string method, target;
        words >> method >> target;
        if (target.rfind(path, 0) == 0) targets.push_back(method + " " + target);
    }
    return targets;
}

} // namespace testsupport
