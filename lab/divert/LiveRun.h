#pragma once

// The run of one command through the daemon: diverts the packets, and meanwhile reports, watches what the daemon holds
// and restarts the agent, as asked for.

#include "lab/CsvFile.h"
#include "lab/Stage.h"
#include "lab/TableReport.h"
#include "lab/divert/DivertCommand.h"
#include "lab/divert/Diverter.h"
#include "lab/divert/Recorder.h"

#include <chrono>
#include <cstdio>
#include <memory>

namespace lab {

class LiveRun {
public:
    // How often a run looks at what is due.
    static constexpr int glanceMilliseconds = 100;

    // Over a stage that has been raised. Throws InputError and UnavailableError.
    LiveRun(const DivertOptions& options, const PolicyFacts& facts, Stage& stage);

    // Runs the command to its end: its exit status, or 1 when the daemon has gone or left packets unanswered.
    int play();

private:
    using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
    using Moment = std::chrono::steady_clock::time_point;

    static File openFile(const std::string& path);
    void watch(Moment now);
    void restartAgent(Moment now);
    void finish();

    const DivertOptions& options_;
    Stage& stage_;
    const File tableFile_; // none for standard error
    const File json_;
    const File watch_;
    CsvFile csv_;
    TableReport table_;
    Diverter diverter_;
    std::unique_ptr<Recorder> recorder_;
    const Moment start_ = std::chrono::steady_clock::now();
    Moment watched_ = start_;
    Moment restarted_ = start_;
    long restarts_ = 0;
};

} // namespace lab
