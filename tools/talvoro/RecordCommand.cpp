// talvoro record SERIAL [--mode N] [--frames K] --out FILE
// Records K frames (0: until Ctrl-C) exactly as the camera sent them, with the calibration
// blobs the camera serves, in the virtual camera's recording format (docs/vcam.md), so that
// `talvoro replay FILE -- COMMAND` plays them to any program.
//
// The frames are copied on the capture thread as each one is announced (GetRawFrame), into a
// few preallocated slots that the main thread writes out: a slow disk costs frames, counted and
// reported, never the camera's pace.
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "Command.h"
#include "DataModes.h"
#include "FrameFeed.h"
#include "Json.h"
#include "Recording.h"
#include "Session.h"
#include "Terminal.h"

namespace talvoro_tool {

using namespace Talvoro;

namespace {

constexpr std::size_t kSlots = 8;

class RawFrameQueue {
  public:
    struct Slot {
        std::vector<uint8_t> data;
        RawFrameInfo info{};
    };

    RawFrameQueue(const DeviceHandle& camera, std::size_t bytes) : camera_(camera), slots_(kSlots) {
        for (std::size_t i = 0; i < kSlots; ++i) {
            slots_[i].data.resize(bytes);
            free_.push_back(i);
        }
    }

    // On the capture thread: copies the frame just announced into a free slot.
    void capture() {
        std::size_t index;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopped_) return;
            if (free_.empty()) {
                ++dropped_;
                return;
            }
            index = free_.front();
            free_.pop_front();
        }
        Slot& slot = slots_[index];
        const int result = GetRawFrame(camera_, slot.data.data(),
                                       static_cast<uint32_t>(slot.data.size()), &slot.info);
        std::lock_guard<std::mutex> lock(mutex_);
        if (result == Ok) {
            ready_.push_back(index);
        } else {
            // Not this mode's size (or already gone): it cannot be recorded.
            ++dropped_;
            free_.push_back(index);
        }
    }

    // The oldest copied frame, or null; give it back with release().
    const Slot* take(std::size_t* index) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (ready_.empty()) return nullptr;
        *index = ready_.front();
        ready_.pop_front();
        return &slots_[*index];
    }
    void release(std::size_t index) {
        std::lock_guard<std::mutex> lock(mutex_);
        free_.push_back(index);
    }
    void stop() {
        std::lock_guard<std::mutex> lock(mutex_);
        stopped_ = true;
    }
    uint64_t dropped() {
        std::lock_guard<std::mutex> lock(mutex_);
        return dropped_;
    }

  private:
    const DeviceHandle camera_;
    std::vector<Slot> slots_;
    std::mutex mutex_;
    std::deque<std::size_t> free_;
    std::deque<std::size_t> ready_;
    uint64_t dropped_ = 0;
    bool stopped_ = false;
};

std::string utcNow() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

// Copies the three calibration blobs the camera serves; a missing one is reported and skipped.
int recordCalibration(const DeviceHandle& camera, vcam::rec::RecordingWriter* writer) {
    struct Block {
        uint8_t type;  // as the camera numbers them
        const char* name;
        Result (*request)(DeviceHandle, int*);
        Result (*read)(DeviceHandle, int*, unsigned char*);
    };
    const Block blocks[] = {
        {0, "colour intrinsics", CalibReadReqRGBIntrinsic, CalibReadRGBIntrinsic},
        {1, "depth intrinsics", CalibReadReqDepthIntrinsic, CalibReadDepthIntrinsic},
        {2, "extrinsics", CalibReadReqExtrinsic, CalibReadExtrinsic},
    };
    int recorded = 0;
    for (const Block& b : blocks) {
        CalibValidFlag flag = Calib_VGA_Only;
        int size = 0;
        int result = GetCalibrationDataValidFlag(camera, b.type, &flag);
        if (result == Ok) result = b.request(camera, &size);
        std::vector<unsigned char> data(size > 0 ? static_cast<std::size_t>(size) : 0);
        if (result == Ok && size > 0) result = b.read(camera, &size, data.data());
        if (result != Ok || size <= 0) {
            std::fprintf(stderr, "talvoro: the camera serves no %s (%s); not recorded\n", b.name,
                         resultText(result).c_str());
            continue;
        }
        vcam::rec::Calibration blob;
        blob.type = b.type;
        blob.validFlag = static_cast<uint8_t>(flag);
        blob.data.assign(data.begin(), data.end());
        if (!writer->writeCalibration(blob)) return -1;
        ++recorded;
    }
    return recorded;
}

vcam::rec::FrameInfo frameInfo(const RawFrameInfo& raw, uint16_t depthRange) {
    const ModeInfo& m = modeInfo(raw.data_mode);
    vcam::rec::FrameInfo f;
    f.pixelFormat = m.fourcc;
    f.width = m.width;
    f.height = m.height;
    f.frameModeFirst = m.frameModeFirst;
    f.frameModeSecond = m.frameModeSecond;
    f.depthRange = static_cast<uint8_t>(depthRange);
    f.sequence = raw.sequence;
    f.timestampNs = raw.time_stamp_ns;
    return f;
}

// What a recording cut short by a write error still holds, for the message: "it holds frames
// 1 to 37 (sequence 112 to 148) and plays as it is", or empty when it holds none.
std::string whatRemains(const std::string& path) {
    vcam::rec::RecordingReader reader;
    std::string error;
    if (!reader.open(path, &error) || reader.frames().empty()) return "";
    const auto& f = reader.frames();
    return "it holds frames 1 to " + std::to_string(f.size()) + " (sequence " +
           std::to_string(f.front().info.sequence) + " to " +
           std::to_string(f.back().info.sequence) + ") and plays as it is";
}

std::string progressJson(int64_t recorded, uint64_t dropped, double seconds) {
    Json out(Json::Layout::OneLine);
    out.beginObject()
        .field("recorded", recorded)
        .field("dropped", static_cast<int64_t>(dropped))
        .field("seconds", seconds)
        .endObject();
    return out.text();
}

int recordCommand(Args& args, const Context& context) {
    const int asked = takeModeOption(args);
    const std::optional<std::string> framesArg = args.option("frames");
    const std::optional<std::string> outArg = args.option("out");
    const std::string serial = args.positional("SERIAL");
    const int requested = modeFor(serial, asked);
    args.finish();
    if (!outArg) usageError("missing --out FILE");
    const int64_t frames = framesArg ? parseNumber(*framesArg, 0, 100000000, "--frames") : 30;
    if (requested == No_Image_Mode) usageError("data mode 1 produces no frames to record");
    PendingFile out(absolutePath(*outArg));
    vcam::rec::RecordingWriter writer;
    std::string error;
    if (!writer.open(out.path(), &error)) throw ToolError(error);

    Session session;
    const DeviceInfo info = session.find(serial);
    const DeviceHandle camera = session.open(info);
    const DataMode mode = useDataMode(camera, requested);
    uint16_t depthRange = 0;
    if (modeInfo(mode).depth || modeInfo(mode).ir)
        check(GetDepthRange(camera, &depthRange), "GetDepthRange");

    unsigned long uniqueId = 0;
    GetUniqueID(camera, &uniqueId);
    char id[24];
    std::snprintf(id, sizeof id, "0x%016lX", uniqueId);
    bool written = writer.writeMetadata({{"serial", info.serialNo},
                                         {"product", info.deviceName},
                                         {"unique_id", id},
                                         {"created", utcNow()},
                                         {"data_mode", std::to_string(mode)},
                                         {"depth_range", std::to_string(depthRange)},
                                         {"recorded_by", "talvoro record"}});
    const int blobs = written ? recordCalibration(camera, &writer) : 0;
    written = written && blobs >= 0;

    auto queue = std::make_shared<RawFrameQueue>(camera, rawFrameBytes(mode));
    // The library keeps the callback (and the queue with it) until the camera is unregistered.
    FrameFeed feed(camera, [queue] { queue->capture(); });
    int64_t recorded = 0;
    uint64_t announced = 0, bytes = 0, firstSequence = 0, lastSequence = 0;
    uint64_t firstTime = 0, lastTime = 0;
    const auto started = std::chrono::steady_clock::now();
    auto reported = started;
    {
        Progress progress(context);
        while (written && (frames == 0 || recorded < frames)) {
            std::size_t index = 0;
            const RawFrameQueue::Slot* slot = queue->take(&index);
            if (!slot) {
                const std::optional<uint64_t> count = feed.waitBeyond(announced);
                if (!count) break;  // interrupted
                announced = *count;
                continue;
            }
            written = writer.writeFrame(frameInfo(slot->info, depthRange), slot->data.data(),
                                        slot->info.size);
            queue->release(index);
            if (!written) break;
            if (recorded == 0)
                firstSequence = slot->info.sequence, firstTime = slot->info.time_stamp_ns;
            lastSequence = slot->info.sequence, lastTime = slot->info.time_stamp_ns;
            bytes += slot->info.size;
            ++recorded;
            progress.update("recording: " + std::to_string(recorded) +
                            (frames ? " of " + std::to_string(frames) : "") + " frames");
            const auto now = std::chrono::steady_clock::now();
            if (context.json && now - reported >= std::chrono::seconds(1)) {
                reported = now;
                const std::chrono::duration<double> seconds = now - started;
                std::fputs(progressJson(recorded, queue->dropped(), seconds.count()).c_str(),
                           stdout);
                std::fflush(stdout);
            }
        }
    }
    queue->stop();

    if (written) {
        std::vector<std::pair<std::string, std::string>> summary = {
            {"frames", std::to_string(recorded)}, {"dropped", std::to_string(queue->dropped())}};
        if (recorded > 1 && lastTime > firstTime) {
            const double fps =
                double(lastSequence - firstSequence) * 1e9 / double(lastTime - firstTime);
            summary.push_back({"fps", std::to_string(static_cast<int>(fps + 0.5))});
        }
        written = writer.writeMetadata(summary);
    }
    if (!writer.close(&error) || !written) {
        // The disk filled up (or failed): what reached it stays, if it holds a frame; a reader
        // ignores the record the failure cut short.
        const std::string cause = std::strerror(writer.writeError() ? writer.writeError() : EIO);
        const std::string remains = whatRemains(out.path());
        if (!remains.empty()) out.keep();
        throw ToolError("cannot write '" + out.path() + "': " + cause +
                        (remains.empty() ? "; nothing recorded" : "; " + remains));
    }
    if (recorded == 0) throw ToolError("interrupted before the first frame", interruptStatus());
    out.keep();
    if (context.json) {
        Json result(Json::Layout::OneLine);
        result.beginObject()
            .field("file", out.path())
            .field("serial", info.serialNo)
            .field("data_mode", int(mode))
            .field("frames", recorded)
            .field("dropped", static_cast<int64_t>(queue->dropped()))
            .field("calibration_blobs", blobs)
            .field("bytes", static_cast<int64_t>(bytes))
            .endObject();
        std::fputs(result.text().c_str(), stdout);
        return kExitOk;
    }
    std::printf(
        "recorded %lld frames of data mode %d from %s with %d calibration blobs to %s "
        "(%.1f MB)\n",
        static_cast<long long>(recorded), int(mode), info.serialNo, blobs, out.path().c_str(),
        double(bytes) / 1e6);
    if (queue->dropped())
        std::printf("%llu frames were not recorded: writing did not keep up\n",
                    static_cast<unsigned long long>(queue->dropped()));
    return kExitOk;
}

const bool registered = registerCommand({
    "record",
    "SERIAL --out FILE [OPTIONS]",
    "record raw frames and calibration",
    "Records K frames exactly as the camera sends them, with the calibration blobs it serves, "
    "into FILE in the virtual camera's recording format, so that 'talvoro replay FILE -- "
    "COMMAND' plays them to any program. Frames are copied as they arrive; frames a slow disk "
    "cannot take are counted and reported, never the camera's pace. With --json a JSON object "
    "a second tells how far it got, and one at the end what was written. Ctrl-C or a full disk "
    "end the recording with what was written so far intact and playable.",
    {{"--out", "FILE", "the recording to write (required)", "@file"},
     modeOption(),
     framesOption("record K frames (default 30; 0: until Ctrl-C)")},
    {Operand::Serial},
    recordCommand,
    70,
});

}  // namespace

}  // namespace talvoro_tool
