#include "platform/host/iic/bytelocks.h"

#include <cerrno>

#include "platform/host/iic/sharedfolder.h"

#ifndef F_OFD_SETLK
#define F_OFD_GETLK 36
#define F_OFD_SETLK 37
#endif

namespace kest::host::iic
{
namespace
{

struct flock byteLock(short kind, off_t byte)
{
    struct flock request {
    };
    request.l_type = kind;
    request.l_whence = SEEK_SET;
    request.l_start = byte;
    request.l_len = 1;
    return request;
}

} // namespace

int setByteLock(int descriptor, short kind, off_t byte)
{
    struct flock request = byteLock(kind, byte);
    int error = 0;
    do {
        error = fcntl(descriptor, F_OFD_SETLK, &request) == 0 ? 0 : errno;
    } while (error == EINTR);
    return error == EACCES || error == EAGAIN ? EAGAIN : errnoOfFolder(error);
}

bool isByteLocked(int descriptor, short kind, off_t byte)
{
    struct flock request = byteLock(kind, byte);
    return fcntl(descriptor, F_OFD_GETLK, &request) == 0 && request.l_type != F_UNLCK;
}

} // namespace kest::host::iic
