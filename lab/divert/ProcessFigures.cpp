#include "lab/divert/ProcessFigures.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace lab {

ProcessFigures figuresOf(pid_t process) {
    const std::string folder = "/proc/" + std::to_string(process);
    ProcessFigures figures;
    std::ifstream status(folder + "/status");
    for (std::string word; status >> word;) {
        if (word == "Threads:") status >> figures.threads;
        if (word == "VmRSS:") status >> figures.residentKilobytes;
    }
    std::error_code ignored;
    const std::filesystem::directory_iterator descriptors(folder + "/fd", ignored);
    figures.descriptors = std::distance(begin(descriptors), end(descriptors));
    return figures;
}

} // namespace lab
