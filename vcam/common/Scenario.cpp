#include "Scenario.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>

namespace vcam {

namespace {

std::string trim(const std::string& s) {
    const auto b = s.find_first_not_of(" \t\r");
    if (b == std::string::npos) return "";
    const auto e = s.find_last_not_of(" \t\r");
    return s.substr(b, e - b + 1);
}

std::vector<std::string> splitList(const std::string& s, char sep) {
    std::vector<std::string> out;
    std::string item;
    std::istringstream in(s);
    while (std::getline(in, item, sep)) {
        item = trim(item);
        if (!item.empty()) out.push_back(item);
    }
    return out;
}

bool parseInt(const std::string& value, int* out, long max = 255) {
    char* end = nullptr;
    const long v = std::strtol(value.c_str(), &end, 10);
    if (value.empty() || *end != '\0' || v < 0 || v > max) return false;
    *out = static_cast<int>(v);
    return true;
}

bool parseYesNo(const std::string& value, bool* out) {
    if (value != "yes" && value != "no") return false;
    *out = value == "yes";
    return true;
}

bool parseSeed(const std::string& value, long* out) {
    char* end = nullptr;
    const long long v = std::strtoll(value.c_str(), &end, 10);
    if (value.empty() || *end != '\0' || v < 0 || v > 0xFFFFFFFFLL) return false;
    *out = static_cast<long>(v);
    return true;
}

bool parseScene(const std::string& value, std::string* out) {
    if (value != "moving" && value != "still") return false;
    *out = value;
    return true;
}

bool parseFps(const std::string& value, double* out) {
    char* end = nullptr;
    const double v = std::strtod(value.c_str(), &end);
    if (value.empty() || *end != '\0' || !(v > 0) || v > 1000) return false;
    *out = v;
    return true;
}

bool setCameraKey(CameraSpec* cam, const std::string& key, const std::string& value,
                  std::string* error) {
    bool ok = true;
    if (key == "serial")
        cam->serial = value;
    else if (key == "product")
        cam->product = value;
    else if (key == "vendor")
        cam->vendorId = value;
    else if (key == "product_id")
        cam->productId = value;
    else if (key == "omit") {
        for (auto& a : splitList(value, ' ')) {
            if (a != "serial" && a != "product") {
                *error = "omit: unknown attribute '" + a + "' (serial, product)";
                return false;
            }
            cam->omit.push_back(a);
        }
    } else if (key == "video")
        ok = parseInt(value, &cam->video);
    else if (key == "meta")
        ok = parseInt(value, &cam->meta);
    else if (key == "hidraw")
        ok = parseInt(value, &cam->hidraw);
    else if (key == "hidraw_imu")
        ok = parseInt(value, &cam->hidrawImu);
    else if (key == "usb")
        cam->usbPort = value;
    else if (key == "fps")
        ok = parseFps(value, &cam->fps);
    else if (key == "replay")
        cam->replay = value;
    else if (key == "seed")
        ok = parseSeed(value, &cam->seed);
    else if (key == "scene")
        ok = parseScene(value, &cam->scene);
    else if (key == "plugged")
        ok = parseYesNo(value, &cam->plugged);
    else if (key == "replugs")
        ok = parseInt(value, &cam->replugs, 1000000);
    else if (key == "fault") {
        FaultSpec fault;
        if (!parseFault(value, &fault, error)) return false;
        cam->faults.push_back(value);
    } else if (isFirmwareKey(key)) {
        return setFirmwareKey(&cam->firmware, key, value, error);
    } else {
        *error = "unknown camera key '" + key + "'";
        return false;
    }
    if (!ok) *error = "bad value for " + key + ": '" + value + "'";
    return ok;
}

bool setNodeKey(NodeSpec* node, const std::string& key, const std::string& value,
                std::string* error) {
    if (key == "type") {
        if (value != "platform" && value != "usb-other") {
            *error = "node type must be platform or usb-other, not '" + value + "'";
            return false;
        }
        node->type = value;
        return true;
    }
    if (key == "video") {
        if (!parseInt(value, &node->video)) {
            *error = "bad value for video: '" + value + "'";
            return false;
        }
        return true;
    }
    *error = "unknown node key '" + key + "'";
    return false;
}

// Each camera's own noise, reproducible from the run's seed: FNV-1a of the serial, mixed with it.
long cameraSeed(long runSeed, const std::string& serial) {
    uint32_t h = 2166136261u ^ static_cast<uint32_t>(runSeed);
    for (unsigned char ch : serial)
        h = (h ^ ch) * 16777619u;
    return static_cast<long>(h);
}

// Takes the lowest number not in `used`.
int lowestFree(std::set<int>* used) {
    int n = 0;
    while (used->count(n))
        ++n;
    used->insert(n);
    return n;
}

// The highest node number a scenario file can name.
constexpr int kMaxNode = 255;

// Assigns the camera's node numbers left open (-1), the lowest free ones; false when they run
// out.
bool assignNodes(CameraSpec* c, std::set<int>* video, std::set<int>* hid, std::string* error) {
    if (c->video < 0) c->video = lowestFree(video);
    if (c->meta < 0) {
        // The metadata node follows the capture node when that number is free.
        c->meta = video->insert(c->video + 1).second ? c->video + 1 : lowestFree(video);
    }
    if (c->hidraw < 0) c->hidraw = lowestFree(hid);
    if (c->hidrawImu < 0) c->hidrawImu = lowestFree(hid);
    if (std::max({c->video, c->meta, c->hidraw, c->hidrawImu}) <= kMaxNode) return true;
    *error = "no free node numbers for camera " + c->serial + " (at most " +
             std::to_string(kMaxNode) + ")";
    return false;
}

// "k=v,k=v" into pairs; ';' inside a value is kept (faults use it).
bool splitOptions(const std::string& options, std::vector<std::pair<std::string, std::string>>* out,
                  std::string* error) {
    for (const auto& item : splitList(options, ',')) {
        const auto eq = item.find('=');
        if (eq == std::string::npos) {
            *error = "expected key=value, got '" + item + "'";
            return false;
        }
        out->emplace_back(trim(item.substr(0, eq)), trim(item.substr(eq + 1)));
    }
    return true;
}

}  // namespace

const std::vector<std::string>& knownFaults() {
    static const std::vector<std::string> names = {
        "unplug",         // the camera disappears at a frame
        "stall",          // no frames
        "short",          // frames with bytesused below the buffer length
        "malformed",      // multiplexed frames with a 481st depth line
        "reqbufs",        // REQBUFS grants ARG buffers, whatever was asked
        "eintr",          // ioctls fail once with EINTR before they succeed
        "hid-silence",    // the HID command interface does not answer
        "hid-nak",        // HID answers carry a negative acknowledgement
        "xu-fail",        // extension-unit queries fail
        "hid-open-fail",  // the hidraw nodes refuse to open (EACCES)
        "long",           // DQBUF: bytesused beyond the buffer's length
        "bad-index",      // DQBUF: an index beyond the buffers
        "format-size",    // S_FMT and TRY_FMT answer a size of their own
        "zero-length",    // buffers reported with length 0
    };
    return names;
}

bool parseFault(const std::string& text, FaultSpec* fault, std::string* error) {
    FaultSpec f;
    std::string rest = trim(text);
    const auto at = rest.find('@');
    if (at != std::string::npos) {
        const std::string frame = rest.substr(at + 1);
        char* end = nullptr;
        f.atFrame = std::strtol(frame.c_str(), &end, 10);
        if (frame.empty() || *end != '\0' || f.atFrame < 0) {
            *error = "bad frame number in fault '" + text + "'";
            return false;
        }
        rest = rest.substr(0, at);
    }
    const auto colon = rest.find(':');
    f.name = rest.substr(0, colon);
    if (colon != std::string::npos) f.arg = rest.substr(colon + 1);
    const auto& known = knownFaults();
    if (std::find(known.begin(), known.end(), f.name) == known.end()) {
        *error = "unknown fault '" + f.name + "'";
        return false;
    }
    *fault = f;
    return true;
}

bool CameraSpec::omits(const std::string& attribute) const {
    return std::find(omit.begin(), omit.end(), attribute) != omit.end();
}

std::string CameraSpec::stateName() const {
    return replugs == 0 ? serial : serial + "@" + std::to_string(replugs);
}

CameraSpec* Scenario::camera(const std::string& serial) {
    for (auto& c : cameras)
        if (c.serial == serial) return &c;
    return nullptr;
}

bool Scenario::parse(const std::string& text, std::string* error) {
    std::istringstream in(text);
    std::string line;
    int lineNo = 0;
    enum { Global, Camera, Node } section = Global;
    while (std::getline(in, line)) {
        ++lineNo;
        const auto hash = line.find('#');
        if (hash != std::string::npos) line.erase(hash);
        line = trim(line);
        if (line.empty()) continue;
        const std::string where = "line " + std::to_string(lineNo) + ": ";
        if (line == "[camera]") {
            cameras.emplace_back();
            section = Camera;
            continue;
        }
        if (line == "[node]") {
            nodes.emplace_back();
            section = Node;
            continue;
        }
        if (line.front() == '[') {
            *error = where + "unknown section " + line;
            return false;
        }
        const auto eq = line.find('=');
        if (eq == std::string::npos) {
            *error = where + "expected key = value";
            return false;
        }
        const std::string key = trim(line.substr(0, eq));
        const std::string value = trim(line.substr(eq + 1));
        std::string why;
        bool ok = true;
        if (section == Camera)
            ok = setCameraKey(&cameras.back(), key, value, &why);
        else if (section == Node)
            ok = setNodeKey(&nodes.back(), key, value, &why);
        else if (key == "fps") {
            ok = parseFps(value, &fps);
            if (!ok) why = "bad fps '" + value + "'";
        } else if (key == "trace") {
            trace = value;
        } else if (key == "seed" || key == "scene") {
            ok = key == "seed" ? parseSeed(value, &seed) : parseScene(value, &scene);
            if (!ok) why = "bad value for " + key + ": '" + value + "'";
        } else if (key == "cameras") {
            int n = 0;
            ok = parseInt(value, &n) && n <= 16;
            if (ok)
                cameras.resize(cameras.size() + n);
            else
                why = "bad camera count '" + value + "'";
        } else {
            ok = false;
            why = "unknown key '" + key + "'";
        }
        if (!ok) {
            *error = where + why;
            return false;
        }
    }
    return true;
}

bool Scenario::addCameraFromOptions(const std::string& options, std::string* error) {
    std::vector<std::pair<std::string, std::string>> pairs;
    if (!splitOptions(options, &pairs, error)) return false;
    CameraSpec cam;
    for (const auto& [k, v] : pairs) {
        // Several faults are separated with ';' on the command line.
        if (k == "fault") {
            for (const auto& f : splitList(v, ';'))
                if (!setCameraKey(&cam, k, f, error)) return false;
            continue;
        }
        if (!setCameraKey(&cam, k, v, error)) return false;
    }
    cameras.push_back(cam);
    return true;
}

bool Scenario::addNodeFromOptions(const std::string& options, std::string* error) {
    std::vector<std::pair<std::string, std::string>> pairs;
    if (!splitOptions(options, &pairs, error)) return false;
    NodeSpec node;
    for (const auto& [k, v] : pairs)
        if (!setNodeKey(&node, k, v, error)) return false;
    nodes.push_back(node);
    return true;
}

bool Scenario::resolve(std::string* error) {
    std::set<int> videoUsed, hidUsed;
    std::set<std::string> serials, ports;
    auto claim = [&](std::set<int>& used, int n, const char* what) {
        if (n < 0) return true;
        if (!used.insert(n).second) {
            *error = std::string(what) + std::to_string(n) + " is used twice";
            return false;
        }
        return true;
    };
    for (const auto& c : cameras) {
        if (!claim(videoUsed, c.video, "video") || !claim(videoUsed, c.meta, "video") ||
            !claim(hidUsed, c.hidraw, "hidraw") || !claim(hidUsed, c.hidrawImu, "hidraw"))
            return false;
        if (!c.usbPort.empty()) ports.insert(c.usbPort);
    }
    for (const auto& n : nodes)
        if (!claim(videoUsed, n.video, "video")) return false;

    int portNo = 1;
    for (std::size_t i = 0; i < cameras.size(); ++i) {
        CameraSpec& c = cameras[i];
        if (!assignNodes(&c, &videoUsed, &hidUsed, error)) return false;
        if (c.serial.empty()) {
            char buf[32];
            std::snprintf(buf, sizeof buf, "TLV%07zu", i + 1);
            c.serial = buf;
        }
        if (!c.omits("serial") && !serials.insert(c.serial).second) {
            *error = "serial " + c.serial + " is used twice";
            return false;
        }
        if (c.usbPort.empty()) {
            while (ports.count("1-" + std::to_string(portNo)))
                ++portNo;
            c.usbPort = "1-" + std::to_string(portNo);
            ports.insert(c.usbPort);
        }
        if (c.fps <= 0) c.fps = fps;
        if (c.scene.empty()) c.scene = scene;
        if (c.seed < 0) c.seed = cameraSeed(seed, c.serial);
    }
    for (auto& n : nodes) {
        if (n.video < 0) n.video = lowestFree(&videoUsed);
        if (n.video > kMaxNode) {
            *error = "no free node number for a node (at most " + std::to_string(kMaxNode) + ")";
            return false;
        }
    }
    return true;
}

bool Scenario::renumber(std::size_t index, std::string* error) {
    std::set<int> video, hid;
    for (const auto& c : cameras) {
        video.insert({c.video, c.meta});
        hid.insert({c.hidraw, c.hidrawImu});
    }
    for (const auto& n : nodes)
        video.insert(n.video);
    CameraSpec c = cameras[index];
    c.video = c.meta = c.hidraw = c.hidrawImu = -1;
    if (!assignNodes(&c, &video, &hid, error)) return false;
    cameras[index] = c;
    return true;
}

std::string Scenario::serialize() const {
    std::ostringstream out;
    out << "fps = " << fps << "\n";
    out << "seed = " << seed << "\nscene = " << scene << "\n";
    if (!trace.empty()) out << "trace = " << trace << "\n";
    for (const auto& c : cameras) {
        out << "\n[camera]\n";
        out << "serial = " << c.serial << "\n";
        out << "product = " << c.product << "\n";
        out << "vendor = " << c.vendorId << "\n";
        out << "product_id = " << c.productId << "\n";
        if (!c.omit.empty()) {
            out << "omit =";
            for (const auto& a : c.omit)
                out << " " << a;
            out << "\n";
        }
        out << "video = " << c.video << "\nmeta = " << c.meta << "\n";
        out << "hidraw = " << c.hidraw << "\nhidraw_imu = " << c.hidrawImu << "\n";
        out << "usb = " << c.usbPort << "\n";
        out << "fps = " << c.fps << "\n";
        if (c.seed >= 0) out << "seed = " << c.seed << "\n";
        if (!c.scene.empty()) out << "scene = " << c.scene << "\n";
        if (!c.replay.empty()) out << "replay = " << c.replay << "\n";
        if (!c.plugged) out << "plugged = no\n";
        if (c.replugs) out << "replugs = " << c.replugs << "\n";
        for (const auto& f : c.faults)
            out << "fault = " << f << "\n";
        out << serializeFirmware(c.firmware);
    }
    for (const auto& n : nodes) {
        out << "\n[node]\ntype = " << n.type << "\nvideo = " << n.video << "\n";
    }
    return out.str();
}

bool loadScenarioFile(const std::string& path, Scenario* scenario, std::string* error) {
    std::ifstream in(path);
    if (!in) {
        *error = "cannot read scenario file " + path;
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    return scenario->parse(text.str(), error) && scenario->resolve(error);
}

}  // namespace vcam
