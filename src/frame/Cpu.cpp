#include "frame/Cpu.h"

#include <atomic>

namespace Talvoro::frame {

namespace {

Isa detect() {
#if TALVORO_X86_64
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
        __builtin_cpu_supports("avx512vl"))
        return Isa::Avx512;
    if (__builtin_cpu_supports("avx2")) return Isa::Avx2;
    if (__builtin_cpu_supports("ssse3")) return Isa::Ssse3;
    return Isa::Sse2;  // part of every x86-64 CPU
#else
    return Isa::Scalar;
#endif
}

std::atomic<Isa> limit{Isa::Avx512};

}  // namespace

Isa isa() {
    static const Isa supported = detect();
    const Isa cap = limit.load(std::memory_order_relaxed);
    return cap < supported ? cap : supported;
}

void setIsaLimit(Isa cap) {
    limit.store(cap, std::memory_order_relaxed);
}

}  // namespace Talvoro::frame
