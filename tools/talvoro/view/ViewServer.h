// The viewer's HTTP server (cpp-httplib): the page, a JSON interface per camera and the live
// stream. Every request needs the access token (query parameter `token`, or the header
// X-Talvoro-Token); requests that change anything are POSTs with a JSON body from the page's
// own origin. The number of live streams is bounded.
//
// Interface (SERIAL a camera the viewer shows):
//   GET  /                                     the page (index.html), viewer.js, viewer.css,
//   cloud.js GET  /api/cameras                          {"cameras": [status...], "viewers": n,
//   "maxViewers": m} GET  /api/live                             the live stream (below) GET
//   /api/cameras/SERIAL/controls          every control with its fields and current value POST
//   /api/cameras/SERIAL/controls/NAME     {"value": "V1,V2"} or {"values": [...]}: sets it POST
//   /api/cameras/SERIAL/pause             {"paused": true|false} GET
//   /api/cameras/SERIAL/pixel?x=X&y=Y     depth (mm) of a depth-image pixel and its 3D point GET
//   /api/cameras/SERIAL/snapshot/FILE     depth-colormap.png, depth.png (16-bit mm), ir.png
//                                              (16-bit), colour.png or cloud.ply, of the next frame
//   GET  /api/cameras/SERIAL/cloud?step=N      the point cloud for the 3D view: uint32 count,
//                                              uint32 flags (1: colours follow), count x 3 float32
//                                              xyz (metres), then count x 3 uint8 rgb
// Errors are {"error": "message"} with a 4xx or 5xx status.
//
// The live stream is a sequence of messages, each one line of JSON, a newline, and as many bytes
// as its "bytes" member says (0 when absent):
//   {"type": "status", "camera": SERIAL, "status": {...}}
//   {"type": "image", "camera": SERIAL, "image": "depth"|"ir"|"colour", "frame": N, "width": W,
//    "height": H, "bytes": B} followed by a JPEG file (B = 0: the data mode has no such image)
//   {"type": "ping"} when nothing else was sent for a while
#ifndef TALVORO_TOOL_VIEW_VIEW_SERVER_H
#define TALVORO_TOOL_VIEW_VIEW_SERVER_H

#include <memory>
#include <string>

namespace talvoro_tool {

class CameraHub;
class LiveBoard;

struct ServerOptions {
    std::string bind = "127.0.0.1";
    int port = 8080;  // 0: any free port
    int maxViewers = 8;
};

// A fresh random access token: 32 hexadecimal digits.
std::string makeToken();

class ViewServer {
  public:
    ViewServer(CameraHub* hub, LiveBoard* board, ServerOptions options, std::string token);
    ~ViewServer();
    ViewServer(const ViewServer&) = delete;
    ViewServer& operator=(const ViewServer&) = delete;

    // Binds and serves on a thread of its own; throws ToolError when the address is not free.
    void start();
    // Ends the live streams (close the board first) and the server.
    void stop();
    int port() const;
    const std::string& token() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace talvoro_tool

#endif
