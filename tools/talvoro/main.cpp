// talvoro: command-line tool for Talvoro cameras. For now it lists the connected cameras.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "enumerator/Enumerator.h"

namespace {

int listCameras() {
    Talvoro::Enumerator enumerator;
    if (enumerator.initialize() != Talvoro::Ok) {
        std::fprintf(stderr,
                     "talvoro: camera enumeration failed (udev unavailable, or a video "
                     "capture node that is not on USB)\n");
        return 1;
    }
    unsigned int count = 0;
    if (enumerator.getDeviceCount(&count) != Talvoro::Ok) {
        std::printf("No Talvoro camera connected.\n");
        return 0;
    }
    std::vector<Talvoro::DeviceInfo> infos(count);
    if (enumerator.getDeviceListInfo(count, infos.data()) != Talvoro::Ok) {
        std::fprintf(stderr, "talvoro: cannot read the camera list\n");
        return 1;
    }
    std::printf("%-5s  %-16s  %-24s  %-12s  %s\n", "INDEX", "SERIAL", "NAME", "NODE", "USB ID");
    for (unsigned int i = 0; i < count; ++i) {
        const auto& d = infos[i];
        std::printf("%-5u  %-16s  %-24s  %-12s  %s:%s\n", i, d.serialNo, d.deviceName, d.devicePath,
                    d.vid, d.pid);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || std::strcmp(argv[1], "list") == 0) return listCameras();
    std::fprintf(stderr, "usage: talvoro list\n");
    return 2;
}
