/*
 * The overrides store: named text values that override the service's tuning.
 */
#pragma once

#include <tovarin/KeyValueStore.h>

namespace morvel {
namespace tovarin {

class TovarinOverrides : public KeyValueStore {
public:
    // Never null. The store lives until the process ends.
    static TovarinOverrides* getInstance();

private:
    TovarinOverrides() : KeyValueStore(true) {}
};

}  // namespace tovarin
}  // namespace morvel
