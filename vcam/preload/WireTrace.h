// The wire trace: every extension-unit query and every HID report, both directions, one line
// each, appended to the scenario's trace file (off when the scenario names none).
//
//   video2 > XU 3 1 SET_CUR 1A 00 01 00 02 00 00 00     query with its data, host to camera
//   video2 < XU 3 2 GET_CUR 05 00 00 ...                 answer data, camera to host
//   video2 ! XU 3 1 SET_CUR EPIPE                        the query failed
//   hidraw0 > B3 02 03 00 ...                            report written by the host
//   hidraw0 < B3 02 03 00 ...                            report sent by the camera
#ifndef TALVORO_VCAM_WIRE_TRACE_H
#define TALVORO_VCAM_WIRE_TRACE_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace vcam {

// "B3 02 03": bytes in upper-case hex, separated by blanks.
std::string hexBytes(const uint8_t* data, std::size_t size);

// "video2" for "/dev/video2".
std::string nodeName(const std::string& devPath);

// Appends one line (the newline is added). Each line is written with a single append, so the
// lines of concurrent processes and threads never interleave.
void traceLine(const std::string& line);

}  // namespace vcam

#endif
