#include "agent/OstComm.h"

#include "gp/GPLog.h"
#include "platform/UrlSession.h"

#include <atomic>
#include <memory>
#include <string>

namespace {

bool isAscii(const char* text) {
    for (; *text; ++text) {
        if (static_cast<unsigned char>(*text) > 127) return false;
    }
    return true;
}

} // namespace

bool OstComm::postDataUrl(const char* url, char* body) {
    // ASCII text is UTF-8 as it stands; any other text gives no data.
    const bool readable = isAscii(body);
    const std::string data = readable ? body : "";
    logf("postDataUrl size is %d body is %s strbody %s", static_cast<int>(data.size()), body,
         readable ? data.c_str() : "(null)");
    const auto failed = std::make_shared<std::atomic<bool>>(false);
    platform::urlSession().uploadTask(url, "POST", data, [failed](const platform::UrlTaskResult& result) {
        if (result.statusCode >= 200 && result.statusCode <= 299) return;
        const std::string& text = result.localizedDescription;
        logf("postDataUrl server error: %s", text.empty() ? "(null)" : text.c_str());
        *failed = true;
    });
    // The completion is not waited for, so this is nearly always false.
    return *failed;
}
