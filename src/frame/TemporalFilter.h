// The temporal filter's per-pixel average over the depth history.
#ifndef TALVORO_FRAME_TEMPORAL_FILTER_H
#define TALVORO_FRAME_TEMPORAL_FILTER_H

#include <cstddef>
#include <cstdint>

namespace Talvoro::frame {

// For each of the n pixels: the current value and every history value within `threshold` of
// it are added up modulo 65536 (the 16-bit wrap is part of the design) and divided by their
// count. history holds historyCount (at most 255) images of n values each.
void temporalAverage(uint16_t* depth, const uint16_t* const* history, size_t historyCount,
                     uint16_t threshold, size_t n);
void temporalAverageScalar(uint16_t* depth, const uint16_t* const* history, size_t historyCount,
                           uint16_t threshold, size_t n);

}  // namespace Talvoro::frame

#endif
