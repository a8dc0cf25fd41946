#pragma once

// Which descriptors a process has, as Linux tells: for the programs that the system under test starts.

#include <map>
#include <string>
#include <sys/types.h>

namespace testsupport {

// Number -> what it stands for, such as "socket:[4711]" or a path.
using DescriptorList = std::map<int, std::string>;

// A command line, for a shell too, whose program prints the descriptors that it was given.
inline constexpr char listDescriptors[] = "ls -l /proc/self/fd";

// The descriptors in that output. Left out is the one that the program itself lists them through.
DescriptorList readDescriptors(const std::string& output);

// The descriptors of a running process.
DescriptorList descriptorsOf(pid_t process);

// Those of this process that a program which it starts now would be given.
DescriptorList handedDown();

// Closes all descriptors above 2. For a forked child: whoever runs the tests may have handed some down.
void closeInheritedDescriptors();

} // namespace testsupport
