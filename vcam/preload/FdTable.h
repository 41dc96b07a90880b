// Which application descriptors refer to emulated nodes.
#ifndef TALVORO_VCAM_FD_TABLE_H
#define TALVORO_VCAM_FD_TABLE_H

#include <memory>

#include "Node.h"

namespace vcam {

// Cheap test used on every wrapped call: false means certainly not ours. It costs one relaxed
// load for a process that never opened a camera node.
bool mayBeOurs(int fd);

// The open file behind `fd`, or null. A stale entry (the descriptor was closed behind our back,
// e.g. by close_range, and its number reused) is dropped here.
std::shared_ptr<OpenFile> lookupFd(int fd);

void insertFd(int fd, std::shared_ptr<OpenFile> file);
void eraseFd(int fd);

}  // namespace vcam

#endif
