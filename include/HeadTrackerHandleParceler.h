/*
 * Parcel forms of a head tracker handle and of a head tracking configuration.
 *
 * The configuration's form lives here rather than in a class of its own because the service
 * interface names it as part of the handle's parceler.
 */
#pragma once

#include <binder/Parcel.h>
#include <tovarin/HeadTrackingTypes.h>
#include <utils/Errors.h>

namespace morvel::tovarin::binder {

class HeadTrackerHandleParceler {
public:
    // Longest debugString a writer sends; longer strings are cut, silently.
    static constexpr size_t kMaxDebugStringLength = 256;

    // Writes `id` only. Returns the status of the write.
    static android::status_t parcel(const HeadTrackerHandle& handle, android::Parcel& parcel);
    // A fresh handle: `id` from the parcel, `secondaryId` always -1 (that word never crosses
    // processes). A short parcel gives id 0.
    static HeadTrackerHandle unparcel(const android::Parcel& parcel);

    // fidelity, filter, then the first 256 characters of debugString as an 8-bit string.
    // Stops at the first failed write and returns its status.
    static android::status_t parcel(const HeadTrackingConfiguration& configuration,
                                    android::Parcel& parcel);
    // Replaces every field. debugString is the received string up to its first NUL; a string
    // that cannot be read (past the end, unterminated) reads as empty.
    static void unparcel(HeadTrackingConfiguration& configuration, const android::Parcel& parcel);
};

}  // namespace morvel::tovarin::binder
