// Exported library lifecycle and camera-list queries.
#include <string>

#include "wrapper/TalvoroWrapper.h"

namespace Talvoro {

using namespace wrapper;

namespace {

// Rescans (outside the registry lock) and registers cameras not known yet (under it).
Result countDevices(uint32_t* count) {
    Registry& reg = registry();
    TALVOROEnumerator& enumerator = *reg.enumerate;
    uint32_t known = 0;
    {
        std::lock_guard<std::mutex> lock(reg.mutex);
        known = reg.maxDeviceCount();
    }
    const Result initialized = enumerator.initialize();
    unsigned int found = 0;
    Result result = NotInitialized;
    std::vector<ScannedCamera> scanned;
    if (initialized != NotInitialized) {
        result = enumerator.getDeviceCount(&found);
        // Described only when the registry may grow. Should it shrink meanwhile, the next
        // count registers what this one leaves.
        if (result >= 0 && found > known) {
            for (unsigned int i = 0; i < found; ++i) {
                DeviceInfo info{};
                // A camera that vanished between the count and this query is not registered.
                if (enumerator.getDeviceInfo(i, &info) == Ok) scanned.push_back({i, info});
            }
        }
    }
    std::lock_guard<std::mutex> lock(reg.mutex);
    reg.is_init = initialized;
    if (initialized == NotInitialized) return NotInitialized;
    if (result < 0) return result;
    reg.merge(found, scanned);
    *count = found;
    return result;
}

// The list queries: the library must be initialised and the number pass the enumeration's own
// check before the query runs. The enumeration rescans, so neither runs under the lock.
template <typename F>
Result listQuery(uint32_t number, bool argumentGiven, F&& query) {
    Registry& reg = registry();
    {
        std::lock_guard<std::mutex> lock(reg.mutex);
        if (reg.is_init == NotInitialized) return NotInitialized;
    }
    const Result valid = reg.enumerate->isValidIndex(number);
    Result answer = valid;
    if (valid == Ok) answer = argumentGiven ? query(*reg.enumerate) : InvalidValue;
    std::lock_guard<std::mutex> lock(reg.mutex);
    // status keeps the enumeration's last answer; a refused argument is not one.
    if (valid != Ok || argumentGiven) reg.status = answer;
    return answer;
}

}  // namespace

extern "C" {

TALVORO_API Result Initialize() {
    return boundary("Initialize", [] {
        Registry& reg = registry();
        {
            std::lock_guard<std::mutex> lock(reg.mutex);
            reg.is_init = reg.enumerate->isInitialized();
            if (reg.is_init != NotInitialized) return Ok;
        }
        const Result initialized = reg.enumerate->initialize();  // a udev scan: not locked
        {
            std::lock_guard<std::mutex> lock(reg.mutex);
            reg.is_init = initialized;
            reg.logFileName = "Log" + Log::GetTimestamp() + ".txt";
        }
        uint32_t count = 0;
        countDevices(&count);
        std::lock_guard<std::mutex> lock(reg.mutex);
        return static_cast<Result>(reg.is_init);
    });
}

TALVORO_API Result DeInitialize() {
    return boundary("DeInitialize", [] {
        const OpenCloseLock openClose;
        if (!openClose.owns()) return OperationFailed;
        std::vector<std::shared_ptr<void>> released;
        {
            Registry& reg = registry();
            std::lock_guard<std::mutex> lock(reg.mutex);
            reg.is_init = reg.enumerate->isInitialized();
            if (reg.is_init != NotDeInitialized) return Ok;
            reg.is_init = reg.enumerate->deInitialize();
            reg.clear(&released);
            reg.is_init = NotInitialized;
        }
        // Outside the lock: releasing a Device stops and joins its capture thread.
        released.clear();
        return Ok;
    });
}

TALVORO_API Result GetDeviceCount(uint32_t* count) {
    return boundary("GetDeviceCount", [&] {
        if (!count) return InvalidValue;
        return countDevices(count);
    });
}

TALVORO_API Result GetDeviceListInfo(uint32_t count, DeviceInfo* list) {
    return boundary("GetDeviceListInfo", [&] {
        return listQuery(count, list || count == 0,
                         [&](TALVOROEnumerator& e) { return e.getDeviceListInfo(count, list); });
    });
}

TALVORO_API Result GetDeviceInfo(uint32_t index, DeviceInfo* info) {
    return boundary("GetDeviceInfo", [&] {
        return listQuery(index, info != nullptr,
                         [&](TALVOROEnumerator& e) { return e.getDeviceInfo(index, info); });
    });
}

TALVORO_API Result GetSDKVersion(uint8_t* major, uint8_t* minor, uint16_t* patch) {
    return boundary("GetSDKVersion", [&] {
        if (!major || !minor || !patch) return InvalidValue;
        return registry().enumerate->getSDKVersion(major, minor, patch);
    });
}

}  // extern "C"

}  // namespace Talvoro
