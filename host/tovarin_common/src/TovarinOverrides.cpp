#include <tovarin/TovarinOverrides.h>

namespace morvel {
namespace tovarin {

TovarinOverrides* TovarinOverrides::getInstance() {
    // Never destroyed, like the diagnostics stores.
    static TovarinOverrides* const sInstance = new TovarinOverrides();
    return sInstance;
}

}  // namespace tovarin
}  // namespace morvel
