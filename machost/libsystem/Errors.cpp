#include "machost/libsystem/Errors.h"

namespace machost::libsystem {
namespace {

struct Row {
    int mac;
    int host;
    const char* text;
};

// Numbers of <sys/errno.h> and texts of errlst.c in Apple's Libc.
constexpr Row rows[] = {
    {0, 0, "Undefined error: 0"},
    {1, EPERM, "Operation not permitted"},
    {2, ENOENT, "No such file or directory"},
    {3, ESRCH, "No such process"},
    {4, EINTR, "Interrupted system call"},
    {5, EIO, "Input/output error"},
    {6, ENXIO, "Device not configured"},
    {7, E2BIG, "Argument list too long"},
    {8, ENOEXEC, "Exec format error"},
    {9, EBADF, "Bad file descriptor"},
    {10, ECHILD, "No child processes"},
    {11, EDEADLK, "Resource deadlock avoided"},
    {12, ENOMEM, "Cannot allocate memory"},
    {13, EACCES, "Permission denied"},
    {14, EFAULT, "Bad address"},
    {15, ENOTBLK, "Block device required"},
    {16, EBUSY, "Resource busy"},
    {17, EEXIST, "File exists"},
    {18, EXDEV, "Cross-device link"},
    {19, ENODEV, "Operation not supported by device"},
    {20, ENOTDIR, "Not a directory"},
    {21, EISDIR, "Is a directory"},
    {22, EINVAL, "Invalid argument"},
    {23, ENFILE, "Too many open files in system"},
    {24, EMFILE, "Too many open files"},
    {25, ENOTTY, "Inappropriate ioctl for device"},
    {26, ETXTBSY, "Text file busy"},
    {27, EFBIG, "File too large"},
    {28, ENOSPC, "No space left on device"},
    {29, ESPIPE, "Illegal seek"},
    {30, EROFS, "Read-only file system"},
    {31, EMLINK, "Too many links"},
    {32, EPIPE, "Broken pipe"},
    {33, EDOM, "Numerical argument out of domain"},
    {34, ERANGE, "Result too large"},
    {35, EAGAIN, "Resource temporarily unavailable"},
    {36, EINPROGRESS, "Operation now in progress"},
    {37, EALREADY, "Operation already in progress"},
    {38, ENOTSOCK, "Socket operation on non-socket"},
    {39, EDESTADDRREQ, "Destination address required"},
    {40, EMSGSIZE, "Message too long"},
    {41, EPROTOTYPE, "Protocol wrong type for socket"},
    {42, ENOPROTOOPT, "Protocol not available"},
    {43, EPROTONOSUPPORT, "Protocol not supported"},
    {44, ESOCKTNOSUPPORT, "Socket type not supported"},
    {45, ENOTSUP, "Operation not supported"},
    {46, EPFNOSUPPORT, "Protocol family not supported"},
    {47, EAFNOSUPPORT, "Address family not supported by protocol family"},
    {48, EADDRINUSE, "Address already in use"},
    {49, EADDRNOTAVAIL, "Can't assign requested address"},
    {50, ENETDOWN, "Network is down"},
    {51, ENETUNREACH, "Network is unreachable"},
    {52, ENETRESET, "Network dropped connection on reset"},
    {53, ECONNABORTED, "Software caused connection abort"},
    {54, ECONNRESET, "Connection reset by peer"},
    {55, ENOBUFS, "No buffer space available"},
    {56, EISCONN, "Socket is already connected"},
    {57, ENOTCONN, "Socket is not connected"},
    {58, ESHUTDOWN, "Can't send after socket shutdown"},
    {59, ETOOMANYREFS, "Too many references: can't splice"},
    {60, ETIMEDOUT, "Operation timed out"},
    {61, ECONNREFUSED, "Connection refused"},
    {62, ELOOP, "Too many levels of symbolic links"},
    {63, ENAMETOOLONG, "File name too long"},
    {64, EHOSTDOWN, "Host is down"},
    {65, EHOSTUNREACH, "No route to host"},
    {66, ENOTEMPTY, "Directory not empty"},
    {68, EUSERS, "Too many users"},
    {69, EDQUOT, "Disc quota exceeded"},
    {70, ESTALE, "Stale NFS file handle"},
    {77, ENOLCK, "No locks available"},
    {78, ENOSYS, "Function not implemented"},
    {84, EOVERFLOW, "Value too large to be stored in data type"},
    {89, ECANCELED, "Operation canceled"},
    {90, EIDRM, "Identifier removed"},
    {91, ENOMSG, "No message of desired type"},
    {92, EILSEQ, "Illegal byte sequence"},
    {94, EBADMSG, "Bad message"},
    {95, EMULTIHOP, "EMULTIHOP (Reserved)"},
    {96, ENODATA, "No message available on STREAM"},
    {97, ENOLINK, "ENOLINK (Reserved)"},
    {98, ENOSR, "No STR resources"},
    {99, ENOSTR, "Not a STREAM"},
    {100, EPROTO, "Protocol error"},
    {101, ETIME, "STREAM ioctl timeout"},
    {104, ENOTRECOVERABLE, "State not recoverable"},
    {105, EOWNERDEAD, "Previous owner died"},
};

// EOPNOTSUPP is a number of its own on the Mac, where this system has one for both.
constexpr int macNotSupportedOnSocket = 102;

} // namespace

int macError(int host) {
    for (const Row& row : rows)
        if (row.host == host) return row.mac;
    return EIO;
}

int hostError(int mac) {
    if (mac == macNotSupportedOnSocket) return EOPNOTSUPP;
    for (const Row& row : rows)
        if (row.mac == mac) return row.host;
    return EIO;
}

int& programError() {
    static thread_local int number = 0;
    return number;
}

int failWith(int host) {
    programError() = macError(host);
    return -1;
}

const char* macErrorText(int mac) {
    if (mac == macNotSupportedOnSocket) return "Operation not supported on socket";
    for (const Row& row : rows)
        if (row.mac == mac) return row.text;
    return nullptr;
}

} // namespace machost::libsystem
