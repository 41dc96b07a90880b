#include "Hotplug.h"

#include <string>

#include "Camera.h"
#include "RunState.h"
#include "World.h"

namespace vcam {

void unplugCamera(Camera& camera) {
    if (camera.state.unplugged) return;
    std::string answer;
    run::request("unplug\n" + camera.spec().serial, &answer);
    camera.disconnect();
    syncWorld();
}

}  // namespace vcam
