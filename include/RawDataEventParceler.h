/*
 * Parcel form of a raw data event: timestamp, the camera frame event, two head tracking
 * samples and two head locations.
 *
 * The parceler owns one CameraFrameEventParceler, whose buffer receives the frame pixels: an
 * event read through this parceler points into it (see CameraFrameEventParceler). Not
 * thread-safe: one parceler serves one reader at a time.
 */
#pragma once

#include <CameraFrameEventParceler.h>

#include <binder/Parcel.h>
#include <tovarin/RawDataEvent.h>
#include <utils/Errors.h>

namespace morvel::tovarin::binder {

class RawDataEventParceler {
public:
    // Items of a head location on the wire (4 bytes each); localIndex is not among them.
    static constexpr size_t kHeadLocationItems = 44;

    // Statuses of the nested forms are not looked at; both always return OK.
    android::status_t parcel(const RawDataEvent& event, android::Parcel& parcel);
    android::status_t unparcel(RawDataEvent& event, const android::Parcel& parcel);
    // The same form, read with a camera frame reader lent by the caller: the frame pixels land
    // in that reader's buffer (a listener stub keeps one reader for all its events).
    static android::status_t unparcel(RawDataEvent& event, const android::Parcel& parcel,
                                      CameraFrameEventParceler& frameReader);

    // flag0, flag1, value, orientation[4], hasVector8, vector8[8], hasVector27, vector27[27];
    // the arrays are carried whole whatever their flags say. localIndex is neither written nor
    // read: a receiver keeps its own. Both always return OK.
    android::status_t parcelHeadLocation(const HeadLocation& location, android::Parcel& parcel);
    android::status_t unparcelHeadLocation(HeadLocation& location, const android::Parcel& parcel);

private:
    CameraFrameEventParceler mCameraFrameEventParceler;
};

}  // namespace morvel::tovarin::binder
