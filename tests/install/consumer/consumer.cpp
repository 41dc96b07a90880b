// An application built outside the project against the installed library.
#include <TalvoroSDK.h>

#include <cstdio>

int main() {
    using namespace Talvoro;
    if (SetLogLevel(0) != Ok || SetLogging(0) != Ok) return 1;
    if (SetLogLevel(9) != OperationFailed) return 1;
    if (PrintLog(7, "consumer") != Ok || pError("consumer") != Ok) return 1;
    std::puts("consumer: ok");
    return 0;
}
