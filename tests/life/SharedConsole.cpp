#include "life/SharedConsole.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <new>
#include <stdexcept>

namespace life {

SharedConsole::SharedConsole() {
    void* memory = mmap(nullptr, sizeof *seated_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED || pipe2(notices_, O_CLOEXEC) != 0)
        throw std::runtime_error("no memory or pipe for the console");
    seated_ = new (memory) std::atomic<int>(0);
}

SharedConsole::~SharedConsole() {
    munmap(seated_, sizeof *seated_);
    close(notices_[0]);
    close(notices_[1]);
}

void SharedConsole::seat(int number) {
    *seated_ = number;
    const char notice = 'c';
    if (write(notices_[1], &notice, 1) != 1) throw std::runtime_error("the console's watch takes no notice");
}

bool SharedConsole::copyName(char* buffer, std::size_t size) {
    const int number = *seated_;
    const std::string name = nameOf(number);
    if (number == 0 || name.size() >= size) return false;
    std::memcpy(buffer, name.c_str(), name.size() + 1);
    return true;
}

platform::ConsoleUser::Watch* SharedConsole::create(const char*, Callback changed) {
    changed_ = changed;
    return reinterpret_cast<Watch*>(this);
}

void SharedConsole::run(Watch*) {
    for (char notice; read(notices_[0], &notice, 1) == 1;)
        changed_(nullptr, nullptr, nullptr);
}

void SharedConsole::release(Watch*) {}

} // namespace life
