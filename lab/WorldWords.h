#pragma once

// The messages between a program under machost and whoever plays its world: words, each with a zero byte behind it.

#include <string>
#include <vector>

namespace lab {

using Words = std::vector<std::string>;

// The next message of the connection; no words when it has ended.
Words readWords(int connection);

void say(int connection, const Words& words);

} // namespace lab
