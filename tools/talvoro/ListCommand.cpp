// talvoro list [--json]: the connected cameras. Each camera is opened briefly for its unique ID;
// one that cannot be opened (in use elsewhere) is listed without it.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "Commands.h"
#include "Controls.h"
#include "Json.h"
#include "Session.h"

namespace talvoro_tool {

using namespace Talvoro;

namespace {

struct Row {
    std::string index, serial, name, node, usbId, uniqueId;
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

void printTable(const std::vector<Row>& rows) {
    const Row heading{"INDEX", "SERIAL", "NAME", "NODE", "USB ID", "UNIQUE ID"};
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
        std::printf("%-*s  %-*s  %-*s  %-*s  %-*s  %s\n", int(width[0]), r.index.c_str(),
                    int(width[1]), r.serial.c_str(), int(width[2]), r.name.c_str(), int(width[3]),
                    r.node.c_str(), int(width[4]), r.usbId.c_str(),
                    r.uniqueId.empty() ? "-" : r.uniqueId.c_str());
    };
    print(heading);
    for (const Row& r : rows)
        print(r);
}

}  // namespace

int listCommand(Args& args) {
    const bool json = args.flag("json");
    args.finish();

    Session session;
    const std::vector<DeviceInfo> cameras = session.cameras();
    std::vector<Row> rows;
    for (std::size_t i = 0; i < cameras.size(); ++i) {
        const DeviceInfo& c = cameras[i];
        rows.push_back({std::to_string(i), c.serialNo, c.deviceName, c.devicePath,
                        std::string(c.vid) + ":" + c.pid, uniqueIdOf(session, c)});
    }

    if (json) {
        Json out;
        out.beginObject().key("cameras").beginArray();
        for (std::size_t i = 0; i < rows.size(); ++i) {
            const Row& r = rows[i];
            out.beginObject()
                .field("index", static_cast<int64_t>(i))
                .field("serial", r.serial)
                .field("name", r.name)
                .field("node", r.node)
                .field("vid", cameras[i].vid)
                .field("pid", cameras[i].pid)
                .field("unique_id", r.uniqueId)
                .endObject();
        }
        out.endArray().endObject();
        std::fputs(out.text().c_str(), stdout);
    } else if (rows.empty()) {
        std::printf("No Talvoro camera connected.\n");
    } else {
        printTable(rows);
    }
    return kExitOk;
}

}  // namespace talvoro_tool
