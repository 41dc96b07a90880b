// Run-time choice of the frame kernels' instruction set.
#ifndef TALVORO_FRAME_CPU_H
#define TALVORO_FRAME_CPU_H

#if defined(__x86_64__)
#define TALVORO_X86_64 1
#else
#define TALVORO_X86_64 0
#endif

#if !defined(__BYTE_ORDER__) || __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "the raw frame layouts are little-endian; a big-endian host needs byte swapping"
#endif

namespace Talvoro::frame {

// Ordered: each level includes the ones before it (Avx512: F, BW and VL). Every kernel gives
// bit-identical results at every level; the scalar code is the reference.
enum class Isa { Scalar, Sse2, Ssse3, Avx2, Avx512 };

// The best level the CPU supports, capped by setIsaLimit.
Isa isa();

// Caps the level the kernels use (tests and benchmarks compare the paths). Process-wide.
void setIsaLimit(Isa limit);

}  // namespace Talvoro::frame

#endif
