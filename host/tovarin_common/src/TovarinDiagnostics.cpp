#include <tovarin/TovarinDiagnostics.h>

namespace morvel {
namespace tovarin {

TovarinDiagnostics* TovarinDiagnostics::getInstance(Type type) {
    // Never destroyed: callers may use the stores from static destructors and detached threads.
    static TovarinDiagnostics* const sDebug = new TovarinDiagnostics(true);
    static TovarinDiagnostics* const sError = new TovarinDiagnostics(true);
    static TovarinDiagnostics* const sInert = new TovarinDiagnostics(false);
    switch (static_cast<int32_t>(type)) {
        case DEBUG:
            return sDebug;
        case ERROR:
            return sError;
        default:
            return sInert;
    }
}

}  // namespace tovarin
}  // namespace morvel
