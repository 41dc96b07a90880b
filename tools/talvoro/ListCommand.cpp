// talvoro list: the connected cameras. Each camera is opened briefly for its unique ID; one that
// cannot be opened (in use elsewhere) is listed without it, and one the library cannot describe
// is listed with the reason instead of its details. --watch then prints each camera plugged in
// or unplugged, until SIGINT or SIGTERM.
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Command.h"
#include "Controls.h"
#include "Json.h"
#include "Session.h"
#include "SystemScan.h"

namespace talvoro_tool {

using namespace Talvoro;

namespace {

struct Row {
    std::string index, serial, name, node, usbId, uniqueId;
    std::string problem;  // why the camera has no details; empty for a described one
};

std::string uniqueIdOf(Session& session, const DeviceInfo& info) {
    DeviceHandle handle{};
    if (session.tryOpen(info, &handle) != Ok) return "";
    unsigned long id = 0;
    const int result = GetUniqueID(handle, &id);
    CloseDevice(handle);
    if (result != Ok) return "";
    return formatValue(findControl("unique-id")->fields.front(), static_cast<int64_t>(id));
}

// `problem`: what the system shows wrong with the camera, which the library's description
// then does not show (a camera on a node above 15 is described as another one).
Row rowOf(Session& session, const Session::Camera& camera, const std::string& problem) {
    Row r;
    r.index = std::to_string(camera.index);
    r.problem = problem;
    if (r.problem.empty() && camera.result != Ok)
        r.problem = "the library cannot describe this camera: " + resultText(camera.result);
    if (!r.problem.empty()) return r;
    const DeviceInfo& c = camera.info;
    r.serial = c.serialNo;
    r.name = c.deviceName;
    r.node = c.devicePath;
    r.usbId = std::string(c.vid) + ":" + c.pid;
    r.uniqueId = uniqueIdOf(session, c);
    return r;
}

void printTable(const std::vector<Row>& rows) {
    const Row heading{"INDEX", "SERIAL", "NAME", "NODE", "USB ID", "UNIQUE ID", ""};
    std::vector<std::size_t> width(5, 0);
    auto widen = [&](const Row& r) {
        const std::string* cells[] = {&r.index, &r.serial, &r.name, &r.node, &r.usbId};
        for (std::size_t i = 0; i < 5; ++i)
            width[i] = std::max(width[i], cells[i]->size());
    };
    widen(heading);
    for (const Row& r : rows)
        widen(r);
    auto print = [&](const Row& r) {
        if (!r.problem.empty()) {
            std::printf("%-*s  ! %s\n", int(width[0]), r.index.c_str(), r.problem.c_str());
            return;
        }
        std::printf("%-*s  %-*s  %-*s  %-*s  %-*s  %s\n", int(width[0]), r.index.c_str(),
                    int(width[1]), r.serial.c_str(), int(width[2]), r.name.c_str(), int(width[3]),
                    r.node.c_str(), int(width[4]), r.usbId.c_str(),
                    r.uniqueId.empty() ? "-" : r.uniqueId.c_str());
    };
    print(heading);
    for (const Row& r : rows)
        print(r);
}

void printJson(const std::vector<Session::Camera>& cameras, const std::vector<Row>& rows) {
    Json out;
    out.beginObject().key("cameras").beginArray();
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const Row& r = rows[i];
        out.beginObject();
        if (i < cameras.size())
            out.field("index", static_cast<int64_t>(cameras[i].index));
        else
            out.key("index").null();
        if (r.problem.empty()) {
            out.field("serial", r.serial)
                .field("name", r.name)
                .field("node", r.node)
                .field("vid", cameras[i].info.vid)
                .field("pid", cameras[i].info.pid)
                .field("unique_id", r.uniqueId);
        } else {
            out.field("problem", r.problem);
        }
        out.endObject();
    }
    out.endArray().endObject();
    std::fputs(out.text().c_str(), stdout);
}

// Prints arrivals and departures as the library announces them until SIGINT or SIGTERM: they
// are blocked in every thread (the library's included, which inherit the mask) and awaited here.
class Watch {
  public:
    explicit Watch(bool json) {
        sigemptyset(&signals_);
        sigaddset(&signals_, SIGINT);
        sigaddset(&signals_, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
        check(RegisterDeviceListCallback([json](DeviceListEvent event, const char* serial) {
                  static std::mutex output;
                  std::lock_guard<std::mutex> lock(output);
                  const char* what = event == DeviceArrived ? "arrived" : "left";
                  if (json)
                      std::fputs(Json(Json::Layout::OneLine)
                                     .beginObject()
                                     .field("event", what)
                                     .field("serial", serial)
                                     .endObject()
                                     .text()
                                     .c_str(),
                                 stdout);
                  else
                      std::printf("%s %s\n", what, serial);
                  std::fflush(stdout);
              }),
              "watching cameras");
    }
    // The exit status says which signal ended the watch, as for every command stopped so.
    int untilInterrupted() {
        std::fflush(stdout);
        int signal = 0;
        sigwait(&signals_, &signal);
        RegisterDeviceListCallback(nullptr);
        return 128 + signal;
    }

  private:
    sigset_t signals_;
};

int listCommand(Args& args, const Context& context) {
    const bool watch = args.flag("watch");
    args.finish();

    // Registered before the list is taken, so that no camera plugged in meanwhile is missed.
    std::optional<Watch> watching;
    if (watch) watching.emplace(context.json);
    Session session;
    const std::vector<Session::Camera> cameras = session.scan();
    const SystemScan scan = scanSystem();
    // The library numbers its cameras in the scan's order; when the two disagree (a camera came
    // or went in between), nothing is explained.
    const bool matched = scan.cameras.size() == cameras.size();
    std::vector<Row> rows;
    for (const Session::Camera& camera : cameras)
        rows.push_back(
            rowOf(session, camera, matched ? cameraProblem(scan.cameras[camera.index]) : ""));
    // Cameras the library does not count at all, because their node cannot be opened.
    if (scan.cameras.size() > cameras.size()) {
        for (const CameraNode& node : scan.cameras) {
            const std::string problem = permissionProblem(node);
            if (problem.empty()) continue;
            Row r;
            r.index = "-";
            r.problem = "camera on " + node.devnode + ": " + problem + ": " + kUdevRuleHint;
            rows.push_back(r);
        }
    }

    if (context.json)
        printJson(cameras, rows);
    else if (rows.empty())
        std::printf("No Talvoro camera connected.\n");
    else
        printTable(rows);
    if (watching) return watching->untilInterrupted();
    return kExitOk;
}

const bool registered = registerCommand({
    "list",
    "",
    "the connected cameras",
    "Lists the connected cameras: index, serial number, name, video node, USB ID and unique ID. "
    "Each camera is opened briefly for its unique ID; one in use elsewhere is listed without it. "
    "A camera the library cannot describe is listed with the reason, marked with '!', and the "
    "others as usual. With --watch it then prints each camera plugged in or unplugged as it "
    "happens (\"arrived SERIAL\" or \"left SERIAL\"; with --json one object per line) until "
    "Ctrl-C or SIGTERM (exit status 130 or 143).",
    {{"--watch", nullptr, "then print cameras plugged in or out, until Ctrl-C"}},
    {},
    listCommand,
    10,
});

}  // namespace

}  // namespace talvoro_tool
