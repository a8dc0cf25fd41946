// HTTP exchanges of which one system call of the client fails, each call in turn.

#include "support/FileServer.h"
#include "support/HTTPRequestWorld.h"
#include "support/TemporaryFolder.h"
#include "support/TracedCalls.h"

#include <filesystem>

using testsupport::readAll;
using testsupport::writeAll;

namespace {

const std::string body(5000, 'b');

class GPHTTPFailedCalls : public testsupport::CallsFailIn<testsupport::HTTPRequestWorld> {
protected:
    // Runs `exchange` with each of its calls failing in turn, and `lookAt` behind it. It works when nothing fails.
    static long failEachCallOf(const std::function<bool()>& exchange,
                               const std::function<void(bool)>& lookAt) {
        bool done = false;
        return testsupport::failEachCallOf([] {}, [&] { done = exchange(); },
                                           [&] {
                                               lookAt(done);
                                               EXPECT_TRUE(exchange());
                                           });
    }

    const testsupport::FileServer server_{body};
    const std::string url_ = server_.url("file");
    testsupport::TemporaryFolder folder_;
};

TEST_F(GPHTTPFailedCalls, OfAGetGiveTheWholeBodyAPartOfItOrNone) {
    std::string text;
    const long failures = failEachCallOf(
        [&] {
            GPHTTP request(url_.c_str());
            request.startSync();
            text = testsupport::textOf(request.responseString());
            return text != "(null)";
        },
        [&](bool done) { EXPECT_TRUE(!done || body.compare(0, text.size(), text) == 0) << text; });
    EXPECT_GE(failures, 8);
}

TEST_F(GPHTTPFailedCalls, OfADownloadNeverLetAPartOfTheFilePassForTheWhole) {
    const std::string file = folder_.file("file");
    const long failures = failEachCallOf([&] { return GPHTTP::downloadFile(url_.c_str(), file.c_str()); },
                                         [&](bool done) {
                                             EXPECT_TRUE(!done || readAll(file) == body)
                                                 << readAll(file).size();
                                             std::filesystem::remove(file);
                                         });
    EXPECT_GE(failures, 10);
}

} // namespace
