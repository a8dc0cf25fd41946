#pragma once

// Watches of what can change around the program.

#include <memory>
#include <optional>
#include <string>

namespace machost::world {

class Watch {
public:
    virtual ~Watch() = default;

    // Blocks until something has changed since the last call, or since the watch was made. False once it has ended.
    virtual bool next() = 0;

    // Ends the watch: a blocked `next` answers. From any thread.
    virtual void end() = 0;
};

// Null, with an error number, when there can be none. The name is what the program calls its watch.
std::unique_ptr<Watch> watchConsole(const std::string& name, int& error);
std::unique_ptr<Watch> watchNetwork(const std::string& name, int& error);

// Who is at the console; nothing for nobody.
std::optional<std::string> consoleUser();

} // namespace machost::world
