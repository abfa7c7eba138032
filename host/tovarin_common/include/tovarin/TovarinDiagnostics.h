/*
 * Diagnostics stores: named text values that the service records about itself. One store per
 * type: DEBUG and ERROR. Any other type value selects one shared read-only store that stays
 * empty (set() returns -1), so a bad type from a peer cannot crash or grow anything.
 */
#pragma once

#include <stdint.h>

#include <tovarin/KeyValueStore.h>

namespace morvel {
namespace tovarin {

class TovarinDiagnostics : public KeyValueStore {
public:
    // Fixed underlying type: any 32-bit value from a peer is a valid Type value.
    enum Type : int32_t { DEBUG = 0, ERROR = 1 };

    // Never null. The stores live until the process ends.
    static TovarinDiagnostics* getInstance(Type type);

private:
    explicit TovarinDiagnostics(bool writable) : KeyValueStore(writable) {}
};

}  // namespace tovarin
}  // namespace morvel
