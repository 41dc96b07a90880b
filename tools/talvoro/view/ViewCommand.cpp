// talvoro view [SERIAL...] [--port 8080] [--bind 127.0.0.1] [--max-viewers 8]
// Serves a live view of the cameras to a browser until Ctrl-C: depth, IR and colour, the
// camera's readings, its controls, snapshots and a 3D view of the point cloud.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "../Command.h"
#include "../Json.h"
#include "../Session.h"
#include "CameraHub.h"
#include "LiveBoard.h"
#include "ViewServer.h"

namespace talvoro_tool {

namespace {

std::string urlHost(const std::string& bind) {
    if (bind == "0.0.0.0" || bind == "::") {
        char name[256] = {};
        if (gethostname(name, sizeof name - 1) == 0 && name[0]) return name;
        return "localhost";
    }
    return bind.find(':') != std::string::npos ? "[" + bind + "]" : bind;
}

int viewCommand(Args& args, const Context& context) {
    ServerOptions options;
    if (const std::optional<std::string> port = args.option("port"))
        options.port = static_cast<int>(parseNumber(*port, 0, 65535, "--port"));
    if (const std::optional<std::string> bind = args.option("bind")) options.bind = *bind;
    if (const std::optional<std::string> viewers = args.option("max-viewers"))
        options.maxViewers = static_cast<int>(parseNumber(*viewers, 1, 64, "--max-viewers"));
    std::vector<std::string> serials;
    while (const std::optional<std::string> serial = args.optionalPositional())
        serials.push_back(*serial);
    args.finish();

    // Ctrl-C and SIGTERM are taken by sigwait below; every thread started from here on, the
    // library's included, leaves them alone. A viewer that goes away must not end the tool.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    Session session;
    LiveBoard board;
    CameraHub hub(&session, &board, serials);
    ViewServer server(&hub, &board, options, makeToken());
    server.start();

    const std::vector<std::string> shown = hub.serials();
    const std::string url = "http://" + urlHost(options.bind) + ":" +
                            std::to_string(server.port()) + "/?token=" + server.token();
    if (context.json) {
        Json out(Json::Layout::OneLine);
        out.beginObject().field("url", url).key("cameras").beginArray();
        for (const std::string& s : shown)
            out.value(s);
        std::fputs(out.endArray().endObject().text().c_str(), stdout);
    } else if (shown.empty()) {
        std::printf("No camera connected yet: cameras appear in the viewer when plugged in.\n");
    } else {
        std::string list;
        for (const std::string& s : shown)
            list += (list.empty() ? "" : ", ") + s;
        std::printf("Viewing %s.\n", list.c_str());
    }
    if (!context.json) std::printf("Open %s in a browser (Ctrl-C stops).\n", url.c_str());
    std::fflush(stdout);

    int signal = 0;
    sigwait(&stopSignals, &signal);
    board.close();
    server.stop();
    // Stopped the only way it stops: the status says which signal did it, like every command.
    return 128 + signal;
}

const bool registered = registerCommand({
    "view",
    "[SERIAL...] [OPTIONS]",
    "live view in a browser (prints the URL)",
    "Serves a live view of the cameras (all of them, or the serials given) to a browser until "
    "Ctrl-C: depth, IR and colour images, the camera's readings, its controls, snapshots and a "
    "3D view of the point cloud. Cameras plugged in later appear in the page. It prints the URL "
    "to open, with a token that only viewers given the URL know; with --json one object with "
    "\"url\" and \"cameras\". Ctrl-C stops it (exit status 130).",
    {{"--port", "N", "listen on port N (default 8080; 0: any free port)"},
     {"--bind", "ADDRESS", "listen on ADDRESS (default 127.0.0.1; 0.0.0.0: every interface)"},
     {"--max-viewers", "N", "serve at most N browsers at once (1 to 64, default 8)"}},
    {Operand::Serial},
    viewCommand,
    75,
});

}  // namespace

}  // namespace talvoro_tool
