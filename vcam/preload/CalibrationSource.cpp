#include "CalibrationSource.h"

#include <memory>
#include <mutex>

#include "CameraModel.h"
#include "Recording.h"

namespace vcam {

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
