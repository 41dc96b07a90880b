// After the first frame of a mode, processing a frame allocates no memory. Counts every
// allocation of the process, on every thread, by standing in for the C allocator (so this
// binary is not built with the sanitizers, which bring their own).
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

#include "FrameTestSupport.h"
#include "SampleCalibration.h"

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
}

namespace {
std::atomic<bool> counting{false};
std::atomic<long> allocations{0};
inline void count() {
    if (counting.load(std::memory_order_relaxed)) allocations.fetch_add(1);
}
}  // namespace

extern "C" {
void* malloc(size_t n) {
    count();
    return __libc_malloc(n);
}
void* calloc(size_t a, size_t n) {
    count();
    return __libc_calloc(a, n);
}
void* realloc(void* p, size_t n) {
    count();
    return __libc_realloc(p, n);
}
void* memalign(size_t alignment, size_t n) {
    count();
    return __libc_memalign(alignment, n);
}
void* aligned_alloc(size_t alignment, size_t n) {
    return memalign(alignment, n);
}
int posix_memalign(void** p, size_t alignment, size_t n) {
    *p = memalign(alignment, n);
    return *p ? 0 : ENOMEM;
}
}

using namespace talvoro_test;
using Talvoro::TalvoroFrame;

namespace {

long allocationsPerFrame(TalvoroFrame& f, int mode, const Bytes& raw) {
    f.initFrame(mode);
    for (int i = 0; i < 2; ++i) {  // the first frame of a mode may allocate
        f.setupFrame(const_cast<uint8_t*>(raw.data()), int(raw.size()));
        EXPECT_EQ(f.processFrame(), 1);
    }
    allocations = 0;
    counting = true;
    for (int i = 0; i < 3; ++i) {
        f.setupFrame(const_cast<uint8_t*>(raw.data()), int(raw.size()));
        f.processFrame();
    }
    counting = false;
    return allocations;
}

Bytes frameFor(int mode) {
    const auto depth = [](int r, int c) { return c == 0 ? 0x10 : 500 + (r * 3 + c) % 3000; };
    switch (mode) {
        case 0:
            return rowPairs(depth, depth);
        case 4:
        case 5:
            return multiplexed(mode == 5, depth, depth);
        case 7:
            return Bytes(1280 * 720 * 2, 0x80);
        default:
            return image16(depth);
    }
}

}  // namespace

TEST(NoAllocation, PlainProcessing) {
    TalvoroFrame f;
    f.updateColorMap(0, 4000, 4);
    for (int mode : {0, 1, 2, 3, 4, 5, 6, 7})
        EXPECT_EQ(allocationsPerFrame(f, mode, frameFor(mode)), 0) << "mode " << mode;
}

TEST(NoAllocation, OwnStagesOn) {
    TalvoroFrame f;
    talvoro_sample::loadBoth(f);
    f.createThetaMat();
    f.setPlanarization(1);
    f.setFilterType(1, true);
    f.setFilterType(0, true);
    f.setFilterType(2, true);
    f.updateDepthRange(1);
    f.setProcessingFlags(TalvoroFrame::kUndistortion | TalvoroFrame::kFlyingPixel, true);
    for (int mode : {0, 2, 4})
        EXPECT_EQ(allocationsPerFrame(f, mode, frameFor(mode)), 0) << "mode " << mode;
    f.setProcessingFlags(TalvoroFrame::kRgbdMapping, true);
    for (int mode : {4, 5})
        EXPECT_EQ(allocationsPerFrame(f, mode, frameFor(mode)), 0) << "mapped mode " << mode;
    // The averages with their window and labels drawn onto the colour map (the glyphs are
    // drawn once, in the first frames).
    f.setProcessingFlags(TalvoroFrame::kRgbdMapping, false);
    f.setAvgIRDisplay(1);
    f.setAvgRegion(0);
    EXPECT_EQ(allocationsPerFrame(f, 0, frameFor(0)), 0) << "averages drawn";
}
