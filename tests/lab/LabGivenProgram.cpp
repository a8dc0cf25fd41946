#include "lab/LabGivenProgram.h"

#include "lab/LabCaptures.h"
#include "lab/Namespaces.h"
#include "support/Sanitizers.h"

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

namespace labtest {
namespace {

namespace fs = std::filesystem;

bool mayHaveMounts() {
    const pid_t child = fork();
    if (child == 0) _exit(lab::unshareAsRoot(CLONE_NEWNS | CLONE_NEWPID) ? 0 : 1);
    int status = 0;
    return waitpid(child, &status, 0) == child && status == 0;
}

} // namespace

void GivenProgram::SetUp() {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers' library must be the first of a program";
    if (!mayHaveMounts()) GTEST_SKIP() << "this user may have no mount namespace";
    CaptureWriter writer(capture_);
    addExchange(writer, 0, Talk(50000), get("allowed.example"));
    addExchange(writer, 40, Talk(50001), get("blocked.example"));
    addExchange(writer, 200, Talk(50001, true), get("blocked.example"));
    testsupport::writeAll(policy_, "block http://blocked.example* http://localhost:6543/why\nallow *\n");
}

LabRun GivenProgram::replay(const std::vector<std::string>& options,
                            const std::function<void(pid_t)>& meanwhile) {
    std::vector<std::string> arguments = {"replay", capture_, "--policy", policy_};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return runLab(arguments, meanwhile);
}

namespace {

// By the path that the process itself sees, whose root lies in the folder of a view.
std::string programOf(const fs::path& process) {
    std::error_code gone;
    const std::string root = fs::read_symlink(process / "root", gone);
    const std::string program = fs::read_symlink(process / "exe", gone);
    return root.size() > 1 && program.rfind(root + "/", 0) == 0 ? program.substr(root.size()) : program;
}

} // namespace

int processesOf(const std::string& program) {
    int count = 0;
    std::error_code gone;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc", gone))
        count += programOf(entry.path()) == program;
    return count;
}

} // namespace labtest
