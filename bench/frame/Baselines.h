// Straightforward versions of the frame processor's own filters, the yardstick the optimised
// ones are measured against: plain loops over row pointers, as one would first write them.
#ifndef TALVORO_BENCH_FRAME_BASELINES_H
#define TALVORO_BENCH_FRAME_BASELINES_H

#include <cstdint>

namespace bench {

// Per pixel: sum (mod 65536) and count of the value and the history values within the
// threshold, divided.
void temporalBaseline(uint16_t* depth, const uint16_t* const* history, int count, int threshold,
                      int pixels);

// depth = (int)(depth x cosine), kept to 16 bits.
void planarizationBaseline(uint16_t* depth, const double* cosines, int pixels);

// The flying-pixel test over the interior of a width x height image on the calling thread.
void flyingPixelBaseline(const uint16_t* src, uint16_t* dst, int width, int height, int dLow,
                         int dHigh, int tLow, int tHigh);

}  // namespace bench

#endif
