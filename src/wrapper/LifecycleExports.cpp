// Exported library lifecycle and camera-list queries.
#include <string>

#include "wrapper/TalvoroWrapper.h"

namespace Talvoro {

using namespace wrapper;

namespace {

// Rescans and registers cameras not known yet. Takes the registry lock.
Result countDevices(uint32_t* count) {
    Registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.mutex);
    reg.is_init = reg.enumerate->initialize();
    if (reg.is_init == NotInitialized) return NotInitialized;
    unsigned int found = 0;
    const Result result = reg.enumerate->getDeviceCount(&found);
    if (result < 0) return result;
    if (found > reg.maxDeviceCount && found >= 1) {
        for (unsigned int i = 0; i < found; ++i) {
            DeviceInfo info{};
            // A camera that vanished between the count and this query is not registered.
            if (reg.enumerate->getDeviceInfo(i, &info) != Ok) continue;
            const std::string serial = serialOf(info.serialNo);
            // Appended unless it equals every registered serial: with one camera registered
            // that admits exactly the new ones; with more, a known camera can come in again
            // (its second entry is never reached: handles resolve to the first).
            bool append = reg.deviceListInfo.empty();
            for (const DeviceInfo& known : reg.deviceListInfo) {
                if (serialOf(known.serialNo) != serial) {
                    append = true;
                    break;
                }
            }
            if (append) reg.append(info, i);
        }
    }
    *count = found;
    return result;
}

// The list queries: the library must be initialised and the number pass the enumeration's own
// check before the query runs.
template <typename F>
Result listQuery(uint32_t number, bool argumentGiven, F&& query) {
    Registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.mutex);
    if (reg.is_init == NotInitialized) return NotInitialized;
    reg.status = reg.enumerate->isValidIndex(number);
    if (reg.status != Ok) return static_cast<Result>(reg.status);
    if (!argumentGiven) return InvalidValue;
    reg.status = query(*reg.enumerate);
    return static_cast<Result>(reg.status);
}

}  // namespace

extern "C" {

TALVORO_API Result Initialize() {
    return boundary("Initialize", [] {
        {
            Registry& reg = registry();
            std::lock_guard<std::mutex> lock(reg.mutex);
            reg.is_init = reg.enumerate->isInitialized();
            if (reg.is_init != NotInitialized) return Ok;
            reg.is_init = reg.enumerate->initialize();
            reg.logFileName = "Log" + Log::GetTimestamp() + ".txt";
        }
        uint32_t count = 0;
        countDevices(&count);
        Registry& reg = registry();
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
        Registry& reg = registry();
        std::lock_guard<std::mutex> lock(reg.mutex);
        return reg.enumerate->getSDKVersion(major, minor, patch);
    });
}

}  // extern "C"

}  // namespace Talvoro
