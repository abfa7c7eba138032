/*
 * Parcel form of one head tracking sample: timestamp, three float components, two flags as
 * int32, the scalar, then `text` as a NUL-terminated C string.
 */
#pragma once

#include <binder/Parcel.h>
#include <tovarin/HeadTrackingTypes.h>
#include <utils/Errors.h>

namespace morvel::tovarin::binder {

class HeadTrackingEventParceler {
public:
    // Stops at the first failed write and returns its status. `text` is sent up to its first
    // NUL, so the sender keeps it terminated.
    static android::status_t parcel(const HeadTrackingEvent& event, android::Parcel& parcel);
    // Never fails visibly: a short parcel leaves zeros. `text` receives at most 255 characters
    // and is always NUL-terminated; an unreadable text (past the end, unterminated) is empty.
    static void unparcel(HeadTrackingEvent& event, const android::Parcel& parcel);
};

}  // namespace morvel::tovarin::binder
