#pragma once

// Kernel control sockets: how the daemon finds and speaks to a kernel extension. Packets and results then
// travel over the connected descriptor with plain recv and send, one record a message.
//
// On the Mac two things of that are the extension's part. Its controls must be registered for streams, since the
// socket's type is the number 1, which is a stream there (the name that goes with this number elsewhere stands for 2);
// to any other control the connect is refused. And it must mark the end of each record that it enqueues: a stream
// without marks hands out whatever is there, records run together or in pieces.

#include "platform/Service.h"

#include <sys/socket.h>

#include <cstdint>

namespace platform {

class KernelControl {
public:
    // Opens a kernel control socket. The caller owns the descriptor; -1 with errno on failure.
    virtual int open() = 0;

    // Finds the control that an extension registered under `name`. 0 with `id` filled, or -1 with errno.
    virtual int controlId(int socket, const char* name, std::uint32_t& id) = 0;

    // Connects the socket to the control `id`, in the next free unit. 0, or -1 with errno.
    virtual int connect(int socket, std::uint32_t id) = 0;

    // Sets an option of the extension on a connected socket. 0, or -1 with errno.
    virtual int setOption(int socket, int option, const void* value, socklen_t length) = 0;

    // Reads an option into `value`; `length` is the room there and afterwards what came. 0, or -1 with
    // errno.
    virtual int getOption(int socket, int option, void* value, socklen_t& length) = 0;

protected:
    ~KernelControl() = default;
};

extern Service<KernelControl> kernelControlService;

inline KernelControl& kernelControl() { return kernelControlService.get(); }

} // namespace platform
