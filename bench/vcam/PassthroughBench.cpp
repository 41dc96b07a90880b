// System calls on descriptors and paths that are not camera nodes: the preload wraps every one
// of them, and must cost next to nothing for them (one relaxed load per call on a descriptor).
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

namespace {

void readDevZero(benchmark::State& state) {
    const int fd = ::open("/dev/zero", O_RDONLY);
    char byte;
    for (auto _ : state)
        benchmark::DoNotOptimize(::read(fd, &byte, 1));
    ::close(fd);
}
BENCHMARK(readDevZero);

void pipeRoundTrip(benchmark::State& state) {
    int p[2];
    if (::pipe(p) != 0) state.SkipWithError("pipe");
    char byte = 1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(::write(p[1], &byte, 1));
        benchmark::DoNotOptimize(::read(p[0], &byte, 1));
    }
    ::close(p[0]);
    ::close(p[1]);
}
BENCHMARK(pipeRoundTrip);

void ioctlOnPipe(benchmark::State& state) {
    int p[2];
    if (::pipe(p) != 0) state.SkipWithError("pipe");
    int pending = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(::ioctl(p[0], FIONREAD, &pending));
    ::close(p[0]);
    ::close(p[1]);
}
BENCHMARK(ioctlOnPipe);

void openCloseDevNull(benchmark::State& state) {
    for (auto _ : state)
        ::close(::open("/dev/null", O_RDONLY));
}
BENCHMARK(openCloseDevNull);

void mmapFile(benchmark::State& state) {
    const int fd = ::open("/proc/self/exe", O_RDONLY);
    for (auto _ : state) {
        void* p = ::mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, fd, 0);
        benchmark::DoNotOptimize(p);
        ::munmap(p, 4096);
    }
    ::close(fd);
}
BENCHMARK(mmapFile);

}  // namespace

BENCHMARK_MAIN();
