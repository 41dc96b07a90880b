#include "CalibrationSource.h"

#include <memory>
#include <mutex>
#include <string>

#include "CameraModel.h"
#include "Recording.h"

namespace vcam {

namespace {

// A blob a broken or hostile camera could serve: its 3 x 3 matrices declare an enormous size
// (with nine values of data), or their first value is NaN in the plain and 0 in the HD set.
void spoil(BlobKind kind, std::string* yaml) {
    const std::string size = "rows: 3\n   cols: 3", square = size + "\n   dt: d\n   data: [ ";
    bool plain = true;  // plain keys come before HD keys
    for (std::size_t at = yaml->find(square); at != std::string::npos;
         at = yaml->find(square, at + 1), plain = false) {
        if (kind == BlobKind::Huge) {
            yaml->replace(at, size.size(), "rows: 100000\n   cols: 100000");
        } else {
            const std::size_t value = at + square.size();
            yaml->replace(value, yaml->find(',', value) - value, plain ? ".nan" : "0.");
        }
    }
}

}  // namespace

CalibrationSource modelCalibration(const FirmwareSpec& spec) {
    const FirmwareSpec copy = spec;
    return [copy](int blobType) {
        CalibrationBlob blob;
        if (blobType < 0 || blobType > 2) return blob;
        const BlobKind kind = copy.calib[blobType];
        if (kind == BlobKind::Missing) return blob;
        blob.present = true;
        blob.flag = kind == BlobKind::Vga ? 0 : kind == BlobKind::Hd ? 1 : 2;
        if (kind == BlobKind::Empty) return blob;
        blob.bytes = model::calibrationYaml(blobType, blob.flag);
        if (kind == BlobKind::Huge || kind == BlobKind::BadFocal) spoil(kind, &blob.bytes);
        if (kind == BlobKind::Unending) {
            // A key indented, then a line indented less: OpenCV 4's reader loops on it.
            blob.bytes.insert(blob.bytes.find("---\n") + 4, " s: 3\n4, -\n\n");
        }
        if (kind == BlobKind::NoHeader) {
            // An older storage format: the same keys under a different first line.
            blob.bytes = "# Talvoro calibration\n" + blob.bytes.substr(blob.bytes.find('\n') + 1);
        }
        return blob;
    };
}

CalibrationSource recordingCalibration(const std::string& path) {
    struct Loaded {
        std::once_flag once;
        rec::RecordingReader reader;
        bool ok = false;
    };
    auto loaded = std::make_shared<Loaded>();
    return [loaded, path](int blobType) {
        std::call_once(loaded->once, [&] {
            std::string error;
            loaded->ok = loaded->reader.open(path, &error);
        });
        CalibrationBlob blob;
        const rec::Calibration* c = loaded->ok ? loaded->reader.calibration(blobType) : nullptr;
        if (!c) return blob;
        blob.present = true;
        blob.bytes = c->data;
        blob.flag = c->validFlag;
        return blob;
    };
}

}  // namespace vcam
