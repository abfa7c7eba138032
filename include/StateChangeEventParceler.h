/*
 * Parcel form of a state change: timestamp, flag as int32, then the tracking state's form.
 */
#pragma once

#include <binder/Parcel.h>
#include <tovarin/HeadTrackingTypes.h>
#include <utils/Errors.h>

namespace morvel::tovarin::binder {

class StateChangeEventParceler {
public:
    static android::status_t parcel(const StateChangeEvent& event, android::Parcel& parcel);
    static void unparcel(StateChangeEvent& event, const android::Parcel& parcel);
};

}  // namespace morvel::tovarin::binder
