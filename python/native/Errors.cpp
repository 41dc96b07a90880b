// Failed calls become talvoro.Error subclasses with the Result's code and name.
#include "Native.h"

namespace talvoro_py {

namespace {

// The classes talvoro/__init__.py hands over; never released (they outlive the module's use at
// interpreter exit).
struct ErrorClasses {
    py::object base, byCode, gone, stale;
};
ErrorClasses* classes = nullptr;

py::object classFor(const CallError& e) {
    if (e.kind == CallError::Kind::Gone) return classes->gone;
    if (e.kind == CallError::Kind::Stale) return classes->stale;
    py::dict byCode = classes->byCode;
    py::int_ code(e.code);
    return byCode.contains(code) ? py::object(byCode[code]) : classes->base;
}

}  // namespace

const char* resultName(int code) {
    static const char* const names[] = {"Ok",  // 1
                                        "0",   // not a code
                                        "NotInitialized",
                                        "NotDeInitialized",
                                        "InvalidFrameType",
                                        "NotStreaming",
                                        "AlreadyStreaming",
                                        "InvalidNode",
                                        "CameraNotOpened",
                                        "InvalidDeviceIndex",
                                        "NoDeviceConnected",
                                        "GetValueFailed",
                                        "SetValueFailed",
                                        "SysCallFail",
                                        "InvalidValue",
                                        "HidWriteFail",
                                        "HidReadFail",
                                        "UVCOpenFailed",
                                        "TimeoutError",
                                        "InvalidFrameBuffer",
                                        "CalibrationDataNotFound",
                                        "FrameSeparationFailed",
                                        "FrameCallbackRegistrationFailed",
                                        "CameraAlreadyOpen",
                                        "NotSupportedInDataMode",
                                        "OperationFailed"};
    if (code == -255) return "UnknownError";
    if (code <= 1 && code >= -24) return names[1 - code];
    return "UnknownError";
}

void check(int result, const char* function) {
    if (result >= 0) return;
    throw CallError{result, std::string(function) + " failed: " + resultName(result) + " (" +
                                std::to_string(result) + ")"};
}

void registerErrors(py::module_& m) {
    m.def(
        "_set_error_classes",
        [](py::object base, py::dict byCode, py::object gone, py::object stale) {
            if (!classes) classes = new ErrorClasses;
            *classes = ErrorClasses{base, byCode, gone, stale};
        },
        "Hands the exception classes to the native module (talvoro/__init__.py does it).");
    m.def("result_name", &resultName, py::arg("code"), "The name of a Result code.");
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) std::rethrow_exception(p);
        } catch (const CallError& e) {
            if (!classes) {
                PyErr_SetString(PyExc_RuntimeError, e.message.c_str());
                return;
            }
            py::object cls = classFor(e);
            py::object error = cls(e.message, e.code);
            PyErr_SetObject(cls.ptr(), error.ptr());
        }
    });
}

}  // namespace talvoro_py
