#include "ViewServer.h"

#include <sys/random.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <thread>

#include <httplib.h>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "../Cli.h"
#include "../PointCloud.h"
#include "CameraHub.h"
#include "LiveBoard.h"
#include "PageFiles.h"

namespace talvoro_tool {

using namespace Talvoro;
using nlohmann::json;

namespace {

constexpr std::chrono::milliseconds kCallTimeout{10000};
constexpr std::chrono::milliseconds kFrameTimeout{10000};
// A live stream sends something at least this often, so that a viewer that went away is noticed.
constexpr std::chrono::milliseconds kPing{1000};
// Requests that are not live streams: the page's own, a snapshot or two, the controls.
constexpr int kOtherRequests = 8;

bool sameToken(const std::string& given, const std::string& token) {
    // Compared in constant time, so that the answer's timing tells nothing about the token.
    if (given.size() != token.size()) return false;
    unsigned char diff = 0;
    for (std::size_t i = 0; i < token.size(); ++i)
        diff |= static_cast<unsigned char>(given[i] ^ token[i]);
    return diff == 0;
}

void send(httplib::Response& res, const Reply& reply) {
    res.status = reply.status;
    res.set_content(reply.body, reply.type);
    if (!reply.filename.empty())
        res.set_header("Content-Disposition", "attachment; filename=\"" + reply.filename + "\"");
}

void sendError(httplib::Response& res, int status, const std::string& message) {
    send(res, Reply::error(status, message));
}

const char* contentType(const std::string& name) {
    const auto ends = [&](const char* suffix) {
        const std::size_t n = std::strlen(suffix);
        return name.size() >= n && name.compare(name.size() - n, n, suffix) == 0;
    };
    if (ends(".html")) return "text/html; charset=utf-8";
    if (ends(".css")) return "text/css; charset=utf-8";
    if (ends(".js")) return "text/javascript; charset=utf-8";
    return "application/octet-stream";
}

// The frame's image as a PNG: 16-bit depth and IR as they are, colour converted to BGR.
Reply pngSnapshot(const HeldFrame& frame, const std::string& name, const std::string& serial) {
    cv::Mat image;
    if (name == "depth-colormap.png") image = frame.colormap;
    if (name == "depth.png") image = frame.depth;
    if (name == "ir.png") image = frame.ir;
    if (name == "colour.png" && !frame.colour.empty())
        cv::cvtColor(frame.colour, image, cv::COLOR_YUV2BGR_UYVY);
    if (image.empty())
        return Reply::error(409, "data mode " + std::to_string(frame.mode) + " has no " +
                                     name.substr(0, name.size() - 4) + " image");
    std::vector<uchar> png;
    // OpenCV's default is its fastest: a snapshot should not hold up the camera's thread.
    if (!cv::imencode(".png", image, png)) return Reply::error(500, "cannot encode " + name);
    return {200, "image/png", std::string(png.begin(), png.end()),
            serial + "-" + std::to_string(frame.frame) + "-" + name};
}

// Why the frame has no point cloud; empty when it has one.
std::string cloudProblem(const HeldFrame& frame, const HeldFrame::Cloud& cloud) {
    switch (cloud.result) {
        case Ok:
            return "";
        case NotSupportedInDataMode:
            return "data mode " + std::to_string(frame.mode) + " has no depth";
        case CalibrationDataNotFound:
            return "the camera has no calibration to make points with";
        default:
            return "no point cloud: " + resultText(cloud.result);
    }
}

bool pointAt(const HeldFrame::Cloud& cloud, int x, int y, float out[3]) {
    if (x < 0 || y < 0 || x >= cloud.width || y >= cloud.height) return false;
    const float* p = &cloud.xyz[(std::size_t(y) * cloud.width + x) * 3];
    if (std::isnan(p[0]) || std::isnan(p[1]) || std::isnan(p[2])) return false;
    std::copy(p, p + 3, out);
    return true;
}

Reply plySnapshot(const HeldFrame& frame, const HeldFrame::Cloud& cloud,
                  const std::string& serial) {
    std::vector<CloudPoint> points;
    points.reserve(static_cast<std::size_t>(cloud.width) * cloud.height);
    const bool colourMap = cloud.rgb.empty() && frame.colormap.size() == frame.depth.size() &&
                           frame.depth.cols == cloud.width && frame.depth.rows == cloud.height;
    for (int y = 0; y < cloud.height; ++y) {
        for (int x = 0; x < cloud.width; ++x) {
            float p[3];
            if (!pointAt(cloud, x, y, p)) continue;
            CloudPoint c{p[0] * 1000.0f, p[1] * 1000.0f, p[2] * 1000.0f, 128, 128, 128};
            const std::size_t i = std::size_t(y) * cloud.width + x;
            if (!cloud.rgb.empty()) {
                c.red = cloud.rgb[i * 3], c.green = cloud.rgb[i * 3 + 1];
                c.blue = cloud.rgb[i * 3 + 2];
            } else if (colourMap) {
                const cv::Vec3b bgr = frame.colormap.at<cv::Vec3b>(y, x);
                c.red = bgr[2], c.green = bgr[1], c.blue = bgr[0];
            }
            points.push_back(c);
        }
    }
    const std::string camera = cloud.colourCamera ? "colour" : "depth";
    return {200, "application/octet-stream",
            plyBytes(points,
                     {"TalvoroSDK point cloud of camera " + serial + ", frame " +
                          std::to_string(frame.frame) + ", data mode " + std::to_string(frame.mode),
                      camera + " camera coordinates in metres: x right, y down, z forward"}),
            serial + "-" + std::to_string(frame.frame) + "-cloud.ply"};
}

Reply cloudForView(const HeldFrame::Cloud& cloud, int step) {
    std::vector<float> xyz;
    std::vector<uint8_t> rgb;
    for (int y = 0; y < cloud.height; y += step) {
        for (int x = 0; x < cloud.width; x += step) {
            float p[3];
            if (!pointAt(cloud, x, y, p)) continue;
            xyz.insert(xyz.end(), p, p + 3);
            if (!cloud.rgb.empty()) {
                const uint8_t* c = &cloud.rgb[(std::size_t(y) * cloud.width + x) * 3];
                rgb.insert(rgb.end(), c, c + 3);
            }
        }
    }
    const uint32_t header[2] = {static_cast<uint32_t>(xyz.size() / 3), rgb.empty() ? 0u : 1u};
    std::string body(reinterpret_cast<const char*>(header), sizeof header);
    body.append(reinterpret_cast<const char*>(xyz.data()), xyz.size() * sizeof(float));
    body.append(reinterpret_cast<const char*>(rgb.data()), rgb.size());
    return {200, "application/octet-stream", std::move(body), ""};
}

// The live stream of one viewer: whatever is newest on the board, when the viewer is ready for
// it. A write blocks only this viewer; one that stops reading is cut off by the write time-out.
class LiveStream {
  public:
    explicit LiveStream(LiveBoard* board) : board_(board) {}

    bool operator()(httplib::DataSink& sink) {
        std::vector<LiveCamera> cameras;
        auto lastWrite = std::chrono::steady_clock::now();
        while (board_->wait(&seen_, kPing, &cameras)) {
            bool wrote = false;
            for (const LiveCamera& c : cameras) {
                Sent& sent = sent_[c.serial];
                if (c.status && c.statusVersion != sent.status) {
                    sent.status = c.statusVersion;
                    const std::string line = R"({"type":"status","camera":)" +
                                             json(c.serial).dump() + R"(,"status":)" + *c.status +
                                             "}\n";
                    if (!sink.write(line.data(), line.size())) return false;
                    wrote = true;
                }
                for (int kind = 0; kind < kImageKinds; ++kind) {
                    const LiveImage& image = c.images[static_cast<std::size_t>(kind)];
                    if (image.version == 0 || image.version == sent.images[kind]) continue;
                    sent.images[kind] = image.version;
                    const std::size_t bytes = image.jpeg ? image.jpeg->size() : 0;
                    const std::string line = json({{"type", "image"},
                                                   {"camera", c.serial},
                                                   {"image", imageName(kind)},
                                                   {"frame", image.frame},
                                                   {"width", image.width},
                                                   {"height", image.height},
                                                   {"bytes", bytes}})
                                                 .dump() +
                                             "\n";
                    if (!sink.write(line.data(), line.size())) return false;
                    if (bytes > 0 && !sink.write(image.jpeg->data(), bytes)) return false;
                    wrote = true;
                }
            }
            const auto now = std::chrono::steady_clock::now();
            if (wrote) {
                lastWrite = now;
            } else if (now - lastWrite >= kPing) {
                static const char ping[] = "{\"type\":\"ping\"}\n";
                if (!sink.write(ping, sizeof ping - 1)) return false;
                lastWrite = now;
            }
        }
        sink.done();
        return true;
    }

  private:
    struct Sent {
        uint64_t status = 0;
        uint64_t images[kImageKinds] = {0, 0, 0};
    };
    LiveBoard* board_;
    uint64_t seen_ = 0;
    std::map<std::string, Sent> sent_;
};

}  // namespace

std::string makeToken() {
    unsigned char bytes[16];
    std::size_t got = 0;
    while (got < sizeof bytes) {
        const ssize_t n = getrandom(bytes + got, sizeof bytes - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw ToolError("no random numbers for the access token");
        got += static_cast<std::size_t>(n);
    }
    static const char digits[] = "0123456789abcdef";
    std::string token;
    for (unsigned char b : bytes) {
        token += digits[b >> 4];
        token += digits[b & 15];
    }
    return token;
}

struct ViewServer::Impl {
    CameraHub* hub;
    LiveBoard* board;
    ServerOptions options;
    std::string token;
    httplib::Server server;
    std::thread thread;
    int port = 0;

    Impl(CameraHub* h, LiveBoard* b, ServerOptions o, std::string t)
        : hub(h), board(b), options(std::move(o)), token(std::move(t)) {}

    // The camera of the request's first path match; null (and the reply made) when unknown.
    CameraWorker* camera(const httplib::Request& req, httplib::Response& res) {
        CameraWorker* w = hub->find(req.matches[1]);
        if (!w)
            sendError(res, 404, "no camera '" + std::string(req.matches[1]) + "' in this viewer");
        return w;
    }

    // The JSON body of a POST; null (and the reply made) when it is not a JSON object.
    static std::optional<json> body(const httplib::Request& req, httplib::Response& res) {
        if (req.get_header_value("Content-Type").rfind("application/json", 0) != 0) {
            sendError(res, 415, "the body must be JSON (Content-Type: application/json)");
            return std::nullopt;
        }
        json j = json::parse(req.body, nullptr, false);
        if (j.is_discarded() || !j.is_object()) {
            sendError(res, 400, "the body is not a JSON object");
            return std::nullopt;
        }
        return j;
    }

    httplib::Server::HandlerResponse admit(const httplib::Request& req, httplib::Response& res) {
        const std::string given = req.has_param("token") ? req.get_param_value("token")
                                                         : req.get_header_value("X-Talvoro-Token");
        if (!sameToken(given, token)) {
            sendError(res, 403,
                      "missing or wrong access token: open the URL 'talvoro view' printed");
            return httplib::Server::HandlerResponse::Handled;
        }
        if (req.method == "POST") {
            // The page's own origin only: another site open in the same browser gets nothing done.
            const std::string origin = req.get_header_value("Origin");
            if (origin.empty() || origin != "http://" + req.get_header_value("Host")) {
                sendError(res, 403, "cross-origin request refused");
                return httplib::Server::HandlerResponse::Handled;
            }
        } else if (req.method != "GET" && req.method != "HEAD") {
            sendError(res, 405, "only GET and POST");
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    }

    void page(const httplib::Request& req, httplib::Response& res) {
        const std::string name = req.path == "/" ? "index.html" : req.path.substr(1);
        const PageFile* file = findPageFile(name.c_str());
        if (!file) return sendError(res, 404, "no such page");
        std::string text(reinterpret_cast<const char*>(file->data), file->size);
        // The page names its scripts and styles with the token, so that they load too.
        for (std::size_t at = 0; (at = text.find("{{token}}", at)) != std::string::npos;)
            text.replace(at, 9, token);
        res.set_content(text, contentType(name));
    }

    void cameras(httplib::Response& res) {
        std::string list;
        for (const LiveCamera& c : board->cameras())
            if (c.status) list += (list.empty() ? "" : ",") + *c.status;
        res.set_content(R"({"cameras":[)" + list + R"(],"viewers":)" +
                            std::to_string(board->viewers()) + R"(,"maxViewers":)" +
                            std::to_string(options.maxViewers) + "}",
                        "application/json");
    }

    void live(httplib::Response& res) {
        if (!board->addViewer(options.maxViewers))
            return sendError(res, 503,
                             "too many viewers (at most " + std::to_string(options.maxViewers) +
                                 "): close another viewer of this camera first");
        auto stream = std::make_shared<LiveStream>(board);
        LiveBoard* b = board;
        res.set_header("Cache-Control", "no-store");
        res.set_chunked_content_provider(
            "application/octet-stream",
            [stream](size_t, httplib::DataSink& sink) { return (*stream)(sink); },
            [b](bool) { b->removeViewer(); });
    }

    void controls(const httplib::Request& req, httplib::Response& res) {
        CameraWorker* w = camera(req, res);
        if (!w) return;
        // Jobs capture by value: a caller that gives up leaves before its job has run.
        send(res, w->call(
                      [w](CameraWorker::Access& a) {
                          if (!a.open)
                              return Reply::error(503,
                                                  "camera " + w->serial() + " is disconnected");
                          return Reply::ok(describeControls(a.handle, *a.processing).dump());
                      },
                      kCallTimeout));
    }

    void setControl(const httplib::Request& req, httplib::Response& res) {
        CameraWorker* w = camera(req, res);
        if (!w) return;
        const std::optional<json> request = body(req, res);
        if (!request) return;
        const std::string name = req.matches[2];
        send(res, w->call(
                      [w, name, request](CameraWorker::Access& a) {
                          if (!a.open)
                              return Reply::error(503,
                                                  "camera " + w->serial() + " is disconnected");
                          try {
                              return Reply::ok(
                                  talvoro_tool::setControl(a.handle, a.processing, name, *request)
                                      .dump());
                          } catch (const ControlError& e) {
                              return Reply::error(e.status(), e.what());
                          }
                      },
                      kCallTimeout));
    }

    void pause(const httplib::Request& req, httplib::Response& res) {
        CameraWorker* w = camera(req, res);
        if (!w) return;
        const std::optional<json> request = body(req, res);
        if (!request) return;
        const auto paused = request->find("paused");
        if (paused == request->end() || !paused->is_boolean())
            return sendError(res, 400, "expected {\"paused\": true or false}");
        send(res, w->pause(paused->get<bool>(), kCallTimeout));
    }

    void pixel(const httplib::Request& req, httplib::Response& res) {
        CameraWorker* w = camera(req, res);
        if (!w) return;
        int64_t x = 0, y = 0;
        if (!parseInteger(req.get_param_value("x"), &x) ||
            !parseInteger(req.get_param_value("y"), &y))
            return sendError(res, 400, "expected whole numbers x and y");
        send(res, w->withFrame(
                      [x, y](const HeldFrame& f) {
                          if (f.depth.empty())
                              return Reply::error(
                                  409, "data mode " + std::to_string(f.mode) + " has no depth");
                          if (x < 0 || y < 0 || x >= f.depth.cols || y >= f.depth.rows)
                              return Reply::error(
                                  400, "pixel (" + std::to_string(x) + ", " + std::to_string(y) +
                                           ") is outside the " + std::to_string(f.depth.cols) +
                                           "x" + std::to_string(f.depth.rows) + " depth image");
                          json out = {{"frame", f.frame},
                                      {"sequence", f.sequence},
                                      {"x", x},
                                      {"y", y},
                                      {"depth", f.depth.at<uint16_t>(int(y), int(x))},
                                      {"point", nullptr}};
                          const HeldFrame::Cloud& cloud = f.cloud();
                          if (cloud.result == TimeoutError) return Reply{0, "", "", ""};
                          const std::string problem = cloudProblem(f, cloud);
                          float p[3];
                          if (!problem.empty())
                              out["pointError"] = problem;
                          else if (pointAt(cloud, int(x), int(y), p))
                              out["point"] = {p[0], p[1], p[2]};
                          out["pointFrame"] = cloud.colourCamera ? "colour" : "depth";
                          return Reply::ok(out.dump());
                      },
                      kFrameTimeout));
    }

    void snapshot(const httplib::Request& req, httplib::Response& res) {
        CameraWorker* w = camera(req, res);
        if (!w) return;
        const std::string name = req.matches[2];
        const std::string serial = w->serial();
        send(res, w->withFrame(
                      [name, serial](const HeldFrame& f) {
                          if (name != "cloud.ply") return pngSnapshot(f, name, serial);
                          const HeldFrame::Cloud& cloud = f.cloud();
                          if (cloud.result == TimeoutError) return Reply{0, "", "", ""};
                          const std::string problem = cloudProblem(f, cloud);
                          if (!problem.empty()) return Reply::error(409, problem);
                          return plySnapshot(f, cloud, serial);
                      },
                      kFrameTimeout));
    }

    void cloud(const httplib::Request& req, httplib::Response& res) {
        CameraWorker* w = camera(req, res);
        if (!w) return;
        int64_t step = 1;
        if (req.has_param("step") &&
            (!parseInteger(req.get_param_value("step"), &step) || step < 1 || step > 8))
            return sendError(res, 400, "step must be 1 to 8");
        send(res, w->withFrame(
                      [step](const HeldFrame& f) {
                          const HeldFrame::Cloud& cloud = f.cloud();
                          if (cloud.result == TimeoutError) return Reply{0, "", "", ""};
                          const std::string problem = cloudProblem(f, cloud);
                          if (!problem.empty()) return Reply::error(409, problem);
                          return cloudForView(cloud, static_cast<int>(step));
                      },
                      kFrameTimeout));
    }

    void routes() {
        server.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
            return admit(req, res);
        });
        server.set_post_routing_handler([](const httplib::Request&, httplib::Response& res) {
            res.set_header("Content-Security-Policy",
                           "default-src 'self'; img-src 'self' blob: data:; "
                           "frame-ancestors 'none'; form-action 'none'");
            res.set_header("X-Content-Type-Options", "nosniff");
            res.set_header("Referrer-Policy", "no-referrer");
            if (!res.has_header("Cache-Control")) res.set_header("Cache-Control", "no-store");
        });
        server.set_exception_handler(
            [](const httplib::Request&, httplib::Response& res, std::exception_ptr ep) {
                std::string what = "internal error";
                try {
                    std::rethrow_exception(ep);
                } catch (const std::exception& e) {
                    what = e.what();
                } catch (...) {
                }
                sendError(res, 500, what);
            });
        server.set_error_handler([](const httplib::Request&, httplib::Response& res) {
            if (res.body.empty()) sendError(res, res.status, "no such request");
        });

        using Req = const httplib::Request&;
        using Res = httplib::Response&;
        server.Get(R"(/|/index\.html|/viewer\.js|/viewer\.css|/cloud\.js)",
                   [this](Req req, Res res) { page(req, res); });
        server.Get("/api/cameras", [this](Req, Res res) { cameras(res); });
        server.Get("/api/live", [this](Req, Res res) { live(res); });
        server.Get(R"(/api/cameras/([^/]+)/controls)",
                   [this](Req req, Res res) { controls(req, res); });
        server.Post(R"(/api/cameras/([^/]+)/controls/([^/]+))",
                    [this](Req req, Res res) { setControl(req, res); });
        server.Post(R"(/api/cameras/([^/]+)/pause)", [this](Req req, Res res) { pause(req, res); });
        server.Get(R"(/api/cameras/([^/]+)/pixel)", [this](Req req, Res res) { pixel(req, res); });
        server.Get(
            R"(/api/cameras/([^/]+)/snapshot/(depth-colormap\.png|depth\.png|ir\.png|colour\.png|cloud\.ply))",
            [this](Req req, Res res) { snapshot(req, res); });
        server.Get(R"(/api/cameras/([^/]+)/cloud)", [this](Req req, Res res) { cloud(req, res); });
    }
};

ViewServer::ViewServer(CameraHub* hub, LiveBoard* board, ServerOptions options, std::string token)
    : impl_(std::make_unique<Impl>(hub, board, std::move(options), std::move(token))) {
    impl_->routes();
    const std::size_t threads =
        static_cast<std::size_t>(impl_->options.maxViewers) + kOtherRequests;
    impl_->server.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    impl_->server.set_payload_max_length(64 * 1024);
    impl_->server.set_write_timeout(5, 0);
    impl_->server.set_read_timeout(5, 0);
    // Idle connections of a browser would otherwise hold threads for the default five seconds.
    impl_->server.set_keep_alive_timeout(1);
}

ViewServer::~ViewServer() {
    stop();
}

void ViewServer::start() {
    Impl& s = *impl_;
    const bool bound = s.options.port == 0
                           ? (s.port = s.server.bind_to_any_port(s.options.bind)) > 0
                           : s.server.bind_to_port(s.options.bind, s.options.port);
    if (!bound)
        throw ToolError("cannot listen on " + s.options.bind + ":" +
                        std::to_string(s.options.port) +
                        " (is the port in use, or the address not this machine's?)");
    if (s.options.port != 0) s.port = s.options.port;
    s.thread = std::thread([&s] { s.server.listen_after_bind(); });
}

void ViewServer::stop() {
    if (!impl_->thread.joinable()) return;
    impl_->server.stop();
    impl_->thread.join();
}

int ViewServer::port() const {
    return impl_->port;
}

const std::string& ViewServer::token() const {
    return impl_->token;
}

}  // namespace talvoro_tool
