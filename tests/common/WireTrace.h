// Reads the virtual camera's wire trace (see docs/vcam.md): the lines written since a mark.
#ifndef TALVORO_TESTS_WIRE_TRACE_H
#define TALVORO_TESTS_WIRE_TRACE_H

#include <cstdio>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <string>
#include <vector>

#include "talvoro_vcam.h"

namespace talvoro_test {

class WireTrace {
  public:
    WireTrace() : path_(talvoro_vcam::tracePath()) { mark(); }

    bool available() const { return !path_.empty(); }

    // Forgets everything written so far.
    void mark() { offset_ = size(); }

    // Lines written since the mark, optionally only those starting with `prefix`.
    std::vector<std::string> lines(const std::string& prefix = "") const {
        std::ifstream in(path_, std::ios::binary);
        in.seekg(static_cast<std::streamoff>(offset_));
        std::vector<std::string> out;
        std::string line;
        while (std::getline(in, line))
            if (line.compare(0, prefix.size(), prefix) == 0) out.push_back(line);
        return out;
    }

    // "B3 02 03 00 ..." for the bytes, padded with zero bytes to `size`.
    static std::string hex(std::initializer_list<int> bytes, std::size_t size = 0) {
        std::ostringstream out;
        std::size_t n = 0;
        char buf[4];
        for (int b : bytes) {
            std::snprintf(buf, sizeof buf, "%02X", b & 0xFF);
            out << (n++ ? " " : "") << buf;
        }
        for (; n < size; ++n)
            out << (n ? " " : "") << "00";
        return out.str();
    }

  private:
    std::size_t size() const {
        std::ifstream in(path_, std::ios::binary | std::ios::ate);
        return in ? static_cast<std::size_t>(in.tellg()) : 0;
    }

    std::string path_;
    std::size_t offset_ = 0;
};

}  // namespace talvoro_test

#endif
