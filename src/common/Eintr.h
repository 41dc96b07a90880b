// System calls on device nodes, repeated while a signal interrupts them.
#ifndef TALVORO_COMMON_EINTR_H
#define TALVORO_COMMON_EINTR_H

#include <cerrno>

namespace Talvoro {

// Calls `call` until it does not fail with EINTR; returns its last result, errno as it left it.
// For read, write and the like: `retryOnEintr([&] { return ::read(fd, buf, n); })`.
template <typename Call>
auto retryOnEintr(Call call) {
    auto r = call();
    while (r == -1 && errno == EINTR)
        r = call();
    return r;
}

}  // namespace Talvoro

#endif
