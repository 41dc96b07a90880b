#include "VideoControls.h"

namespace vcam {

// No controls yet: every request falls through to the video node.
int videoControlIoctl(Camera&, unsigned long, void*, bool* handled) {
    *handled = false;
    return 0;
}

}  // namespace vcam
