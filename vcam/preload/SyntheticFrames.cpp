#include "SyntheticFrames.h"

#include <list>
#include <map>
#include <mutex>
#include <utility>

#include "RawLayout.h"
#include "Scene.h"

namespace vcam {

namespace {

// Noisy variants per ToF content: enough that a temporal filter sees noise, few enough that
// several cameras in the largest modes stay within tens of megabytes.
constexpr int kToFVariants = 3;
// Frame sets kept; older ones are rendered again when needed.
constexpr std::size_t kMaxSets = 6;

struct Cache {
    std::shared_ptr<const scene::TofImage> tof;
    std::map<std::pair<int, int>, std::vector<uint8_t>> colour;               // UYVY by size
    std::list<std::pair<ContentSpec, std::shared_ptr<const FrameSet>>> sets;  // newest first
};

// Plain storage: no static initialiser runs in a process that never streams.
std::mutex g_mutex;  // constant-initialised
Cache* g_cache = nullptr;

const scene::TofImage& tofImage(Cache& cache) {
    if (!cache.tof) cache.tof = std::make_shared<const scene::TofImage>(scene::renderTof());
    return *cache.tof;
}

const std::vector<uint8_t>& colourImage(Cache& cache, int width, int height) {
    auto it = cache.colour.find({width, height});
    if (it == cache.colour.end())
        it = cache.colour
                 .emplace(std::make_pair(width, height),
                          raw::uyvy(scene::renderColour(width, height)))
                 .first;
    return it->second;
}

std::vector<uint8_t> render(Cache& cache, const ContentSpec& spec, int variant) {
    if (spec.content == Content::Colour)
        return colourImage(cache, spec.colourWidth, spec.colourHeight);
    const uint32_t seed = 0x5EED0000u + static_cast<uint32_t>(variant * 7919 + spec.depthRange);
    const raw::TofCodes codes = raw::quantise(tofImage(cache), spec.depthRange, seed);
    switch (spec.content) {
        case Content::DepthIr:
            return raw::depthIrRows(codes);
        case Content::Depth:
            return raw::rows16(codes.depth);
        case Content::Ir:
            return raw::rows16(codes.ir);
        case Content::MultiplexedVga:
            return raw::multiplexed(codes, colourImage(cache, 640, 480), 640, 480);
        case Content::MultiplexedHd:
            return raw::multiplexed(codes, colourImage(cache, 1280, 720), 1280, 720);
        case Content::Colour:
            break;
    }
    return {};
}

}  // namespace

std::shared_ptr<const FrameSet> syntheticFrames(const ContentSpec& spec) {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (!g_cache) g_cache = new Cache;  // lives as long as the process
    Cache& cache = *g_cache;
    std::shared_ptr<const FrameSet> result;
    for (auto it = cache.sets.begin(); it != cache.sets.end(); ++it) {
        if (it->first == spec) {
            result = it->second;
            cache.sets.splice(cache.sets.begin(), cache.sets, it);
            break;
        }
    }
    if (!result) {
        auto set = std::make_shared<FrameSet>();
        const int variants = spec.content == Content::Colour ? 1 : kToFVariants;
        for (int v = 0; v < variants; ++v)
            set->variants.push_back(render(cache, spec, v));
        result = set;
        cache.sets.emplace_front(spec, result);
        if (cache.sets.size() > kMaxSets) cache.sets.pop_back();
    }
    return result;
}

void lockSyntheticFramesForFork() {
    g_mutex.lock();
}

void unlockSyntheticFramesAfterFork() {
    g_mutex.unlock();
}

}  // namespace vcam
