// A fresh temporary directory, optionally made the working directory for the test's lifetime.
#ifndef TALVORO_TESTS_TEMP_DIR_H
#define TALVORO_TESTS_TEMP_DIR_H

#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace talvoro_test {

class TempDir {
  public:
    explicit TempDir(bool enter = false) {
        std::string tmpl = std::filesystem::temp_directory_path() / "talvoro-test-XXXXXX";
        path_ = mkdtemp(tmpl.data()) ? tmpl : std::string();
        if (enter) {
            char cwd[PATH_MAX];
            if (getcwd(cwd, sizeof cwd)) previous_ = cwd;
            if (chdir(path_.c_str()) != 0) path_.clear();
        }
    }
    ~TempDir() {
        if (!previous_.empty() && chdir(previous_.c_str()) != 0) {
        }
        std::error_code ec;
        if (!path_.empty()) std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
    std::string previous_;
};

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

}  // namespace talvoro_test

#endif
