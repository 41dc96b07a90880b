// talvoro publish [SERIAL...] [--domain N] [--namespace NS] [--mode N] [--filters LIST]
//                 [--planarize] [--undistort] [--map] [--color rgb8|yuv422] [--duration S]
// Publishes the cameras (all connected ones when none is named) as ROS 2 topics over Cyclone DDS
// until Ctrl-C or the end of --duration, then prints what each topic sent. An unplugged camera's
// topics go quiet; the camera list is polled every second and publishing resumes when it returns.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CameraPublisher.h"
#include "Command.h"
#include "DataModes.h"
#include "Json.h"
#include "Processing.h"
#include "RosNames.h"
#include "Session.h"
#include "Terminal.h"

namespace talvoro_tool {

using namespace Talvoro;

namespace {

using Clock = std::chrono::steady_clock;

// Cyclone's port numbers (7400 + 250 x domain) allow domains 0 to 232.
constexpr int64_t kMaxDomain = 232;

int takeDomain(Args& args) {
    if (const std::optional<std::string> domain = args.option("domain"))
        return static_cast<int>(parseNumber(*domain, 0, kMaxDomain, "--domain"));
    // ROS 2 programs take their domain from the environment.
    const char* ros = std::getenv("ROS_DOMAIN_ID");
    if (ros && *ros) return static_cast<int>(parseNumber(ros, 0, kMaxDomain, "ROS_DOMAIN_ID"));
    return 0;
}

// With --json the lines along the way go to standard error, so that standard output holds the
// report alone.
void printTopics(std::FILE* out, const CameraPublisher& camera) {
    std::fprintf(out, "camera %s, data mode %d:\n", camera.serial().c_str(), int(camera.mode()));
    for (const Topic* t : camera.topics())
        std::fprintf(out, "  %s  %s\n", t->name().c_str(), rosTypeName(t->typeName()).c_str());
}

void printReport(const std::vector<std::unique_ptr<CameraPublisher>>& cameras, bool json) {
    if (json) {
        Json out;
        out.beginObject().key("cameras").beginArray();
        for (const auto& c : cameras) {
            out.beginObject()
                .field("serial", c->serial())
                .field("frames", static_cast<int64_t>(c->captured()))
                .field("processed", static_cast<int64_t>(c->processed()))
                .field("unplugs", c->unplugs())
                .key("topics")
                .beginArray();
            for (const Topic* t : c->topics())
                out.beginObject()
                    .field("name", t->name())
                    .field("type", rosTypeName(t->typeName()))
                    .field("built", static_cast<int64_t>(t->built()))
                    .field("sent", static_cast<int64_t>(t->sent()))
                    .endObject();
            out.endArray().endObject();
        }
        std::fputs(out.endArray().endObject().text().c_str(), stdout);
        return;
    }
    for (const auto& c : cameras) {
        std::printf("%s: %llu frames, %llu processed, %d unplug%s\n", c->serial().c_str(),
                    static_cast<unsigned long long>(c->captured()),
                    static_cast<unsigned long long>(c->processed()), c->unplugs(),
                    c->unplugs() == 1 ? "" : "s");
        for (const Topic* t : c->topics())
            std::printf("  %s: %llu built, %llu sent\n", t->name().c_str(),
                        static_cast<unsigned long long>(t->built()),
                        static_cast<unsigned long long>(t->sent()));
    }
}

// Ends the capture threads however the command ends, before the cameras they use go.
struct InterruptOnExit {
    ~InterruptOnExit() { interrupt(); }
};

std::vector<OptionSpec> publishOptions() {
    std::vector<OptionSpec> options = {
        {"--domain", "N", "the DDS domain (0 to 232; default $ROS_DOMAIN_ID, else 0)"},
        {"--namespace", "NS", "the topics' namespace (default /talvoro)"},
        modeOption()};
    // The processing of stream, without a colour map: ROS readers colour depth themselves.
    for (const OptionSpec& o : processingOptions(true))
        if (std::string(o.name) != "--colormap") options.push_back(o);
    options.push_back({"--color", "FORMAT", "rgb8 (default), or yuv422 as the camera delivers it",
                       "rgb8 yuv422"});
    options.push_back({"--duration", "S", "stop after S seconds (default 0: at Ctrl-C)"});
    return options;
}

int publishCommand(Args& args, const Context& context) {
    std::FILE* talk = context.json ? stderr : stdout;
    PublishOptions options;
    options.mode = takeModeOption(args);
    const int domain = takeDomain(args);
    options.ns = rosNamespace(args.option("namespace").value_or("/talvoro"));
    const std::string colour = args.option("color").value_or("rgb8");
    const std::optional<std::string> durationArg = args.option("duration");
    options.processing = takeProcessing(args, true);
    std::vector<std::string> serials;
    while (const std::optional<std::string> serial = args.optionalPositional())
        if (std::find(serials.begin(), serials.end(), *serial) == serials.end())
            serials.push_back(*serial);
    args.finish();
    if (colour != "rgb8" && colour != "yuv422")
        usageError("--color: expected rgb8 or yuv422, got '" + colour + "'");
    options.yuv = colour == "yuv422";
    if (options.processing.colourMin >= 0) usageError("--colormap: publish sends no colour map");
    if (options.mode == No_Image_Mode) usageError("data mode 1 produces no images");
    const int64_t duration = durationArg ? parseNumber(*durationArg, 0, 1000000, "--duration") : 0;

    catchInterrupts();
    Session session;
    const DdsEntity participant(checkDds(dds_create_participant(domain, nullptr, nullptr),
                                         "cannot join DDS domain " + std::to_string(domain)));
    StaticTransforms transforms(participant.get());

    std::vector<DeviceInfo> found;
    if (serials.empty()) {
        found = session.cameras();
        if (found.empty()) throw ToolError("no camera connected");
    } else {
        for (const std::string& serial : serials)
            found.push_back(session.find(serial));
    }
    std::vector<std::unique_ptr<CameraPublisher>> cameras;
    const InterruptOnExit stopThreads;
    auto startCamera = [&](const DeviceInfo& info) {
        cameras.push_back(std::make_unique<CameraPublisher>(participant.get(), info.serialNo,
                                                            options, &transforms));
        cameras.back()->start(session, info);
        printTopics(talk, *cameras.back());
    };
    for (const DeviceInfo& info : found)
        startCamera(info);
    std::fprintf(
        talk, "Publishing on DDS domain %d until %s\n", domain,
        duration > 0 ? ("the end of " + std::to_string(duration) + " s").c_str() : "Ctrl-C");
    std::fflush(talk);

    const Clock::time_point begin = Clock::now();
    Clock::time_point nextPoll = begin + std::chrono::seconds(1);
    Progress status(context);
    // Per camera: the unplugs reported, whether its first frame since the last start was, and
    // the counts at the last status line.
    struct Seen {
        int unplugs = 0;
        uint64_t startFrames = 0;
        bool streaming = false;
        uint64_t captured = 0, processed = 0;
    };
    std::map<const CameraPublisher*, Seen> seen;
    auto note = [&](const std::string& text) {
        status.finish();
        std::fprintf(talk, "%s\n", text.c_str());
        std::fflush(talk);
    };
    auto started = [&](const CameraPublisher* c) {
        seen[c].startFrames = c->captured();
        seen[c].streaming = false;
    };
    for (const auto& c : cameras)
        started(c.get());
    while (!interrupted()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const Clock::time_point now = Clock::now();
        if (duration > 0 && now - begin >= std::chrono::seconds(duration)) break;
        bool missing = serials.empty();
        for (const auto& c : cameras) {
            Seen& s = seen[c.get()];
            missing = missing || !c->running();
            if (c->unplugs() > s.unplugs) {
                s.unplugs = c->unplugs();
                note("camera " + c->serial() +
                     " unplugged: its topics stay quiet until it is back");
            }
            if (c->running() && !s.streaming && c->captured() > s.startFrames) {
                s.streaming = true;
                note("camera " + c->serial() + ": frames arriving");
            }
        }
        if (now < nextPoll) continue;
        nextPoll += std::chrono::seconds(1);

        // Unplugged cameras come back, and without named serials new ones join.
        if (missing) {
            for (const DeviceInfo& info : session.cameras()) {
                CameraPublisher* camera = nullptr;
                for (const auto& c : cameras)
                    if (c->serial() == info.serialNo) camera = c.get();
                try {
                    if (!camera && serials.empty()) {
                        status.finish();
                        startCamera(info);
                        started(cameras.back().get());
                    } else if (camera && !camera->running()) {
                        camera->start(session, info);
                        started(camera);
                        note("camera " + camera->serial() + " is back");
                    }
                } catch (const ToolError& e) {
                    note("camera " + std::string(info.serialNo) + ": " + e.what() +
                         " (trying again)");
                }
            }
        }
        // Frames per second captured, and processed for readers.
        std::string line;
        for (const auto& c : cameras) {
            Seen& s = seen[c.get()];
            line += (line.empty() ? "" : " | ") + c->serial() + ": " +
                    (c->running() ? std::to_string(c->captured() - s.captured) + " fps, " +
                                        std::to_string(c->processed() - s.processed) + " published"
                                  : "gone");
            s.captured = c->captured();
            s.processed = c->processed();
        }
        status.update(line);
    }
    status.finish();
    interrupt();
    for (const auto& c : cameras)
        c->join();
    printReport(cameras, context.json);
    return kExitOk;
}

const bool registered = registerCommand({
    "publish",
    "[SERIAL...] [OPTIONS]",
    "the cameras as ROS 2 topics over DDS",
    "Publishes the cameras (every connected one unless serials are named) as ROS 2 topics over "
    "Cyclone DDS: depth, IR and colour images with their camera info, point clouds, the IMU and "
    "/tf_static, under NS/SERIAL. A topic is built only while a reader is matched. An unplugged "
    "camera's topics go quiet until it returns. It runs until Ctrl-C (exit status 130) or the "
    "end of --duration, reports the rates once a second on standard error, and at the end prints "
    "what each topic built and sent (with --json as one object).",
    publishOptions(),
    {Operand::Serial},
    publishCommand,
    78,
});

}  // namespace

}  // namespace talvoro_tool
