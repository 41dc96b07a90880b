// Where the library's files go: the log file and the three calibration files. EXTENSION: the
// environment variable TALVORO_DATA_DIR, when set and not empty, names their directory; unset,
// they lie in the working directory as relative names. Read at every use, like the working
// directory, so it follows the process's environment as it stands.
#ifndef TALVORO_COMMON_DATA_DIR_H
#define TALVORO_COMMON_DATA_DIR_H

#include <cstdlib>
#include <string>

namespace Talvoro {

inline std::string dataPath(const std::string& name) {
    const char* dir = std::getenv("TALVORO_DATA_DIR");
    if (!dir || !*dir) return name;
    std::string path = dir;
    if (path.back() != '/') path += '/';
    return path + name;
}

}  // namespace Talvoro

#endif
