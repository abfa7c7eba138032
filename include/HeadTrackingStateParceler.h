/*
 * Parcel form of the tracking state: two int32 state codes.
 */
#pragma once

#include <binder/Parcel.h>
#include <tovarin/HeadTrackingTypes.h>
#include <utils/Errors.h>

namespace morvel::tovarin::binder {

class HeadTrackingStateParceler {
public:
    static android::status_t parcel(const HeadTrackingState& state, android::Parcel& parcel);
    static void unparcel(HeadTrackingState& state, const android::Parcel& parcel);
};

}  // namespace morvel::tovarin::binder
