#pragma once

// The kernel's controls, played by Unix sockets below the root: the control NAME is the listening SOCK_SEQPACKET
// socket /var/run/fernhill/NAME, each message a record, and its options are served at NAME.options, a connection for
// each call: u32 operation (1 set, 2 get), u32 option, u32 length and the value goes out, i32 status and u32 length
// and the value come in. Follows kern_control.c of xnu. These calls answer as system calls, with this system's errno.

#include "machost/libsystem/SocketLayouts.h"

#include <sys/socket.h>

#include <mutex>

namespace machost::libsystem {

int openControl(int type);
int controlInfo(mac::ControlInfo& info);
int connectControl(int descriptor, const mac::AddressControl& address, socklen_t length);
int setControlOption(int descriptor, int option, const void* value, socklen_t length);
int getControlOption(int descriptor, int option, void* value, socklen_t* length);

// Held around a fork, so that the child finds the lock free.
std::unique_lock<std::mutex> lockControls();

} // namespace machost::libsystem
