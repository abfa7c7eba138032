#include <RawDataEventParceler.h>

#include <HeadTrackingEventParceler.h>

using android::OK;
using android::Parcel;
using android::status_t;

namespace morvel::tovarin::binder {

status_t RawDataEventParceler::parcel(const RawDataEvent& event, Parcel& parcel) {
    parcel.writeInt64(event.timestamp);
    mCameraFrameEventParceler.parcel(event.cameraFrameEvent, parcel);
    HeadTrackingEventParceler::parcel(event.headTrackingEvent0, parcel);
    HeadTrackingEventParceler::parcel(event.headTrackingEvent1, parcel);
    parcelHeadLocation(event.headLocation0, parcel);
    parcelHeadLocation(event.headLocation1, parcel);
    return OK;
}

namespace {

void readHeadLocation(HeadLocation& location, const Parcel& parcel) {
    location.flag0 = parcel.readInt32() != 0;
    location.flag1 = parcel.readInt32() != 0;
    location.value = parcel.readInt32();
    for (float& v : location.orientation) v = parcel.readFloat();
    location.hasVector8 = parcel.readInt32() != 0;
    for (float& v : location.vector8) v = parcel.readFloat();
    location.hasVector27 = parcel.readInt32() != 0;
    for (float& v : location.vector27) v = parcel.readFloat();
}

}  // namespace

status_t RawDataEventParceler::unparcel(RawDataEvent& event, const Parcel& parcel) {
    return unparcel(event, parcel, mCameraFrameEventParceler);
}

status_t RawDataEventParceler::unparcel(RawDataEvent& event, const Parcel& parcel,
                                        CameraFrameEventParceler& frameReader) {
    event.timestamp = parcel.readInt64();
    frameReader.unparcel(event.cameraFrameEvent, parcel);
    HeadTrackingEventParceler::unparcel(event.headTrackingEvent0, parcel);
    HeadTrackingEventParceler::unparcel(event.headTrackingEvent1, parcel);
    readHeadLocation(event.headLocation0, parcel);
    readHeadLocation(event.headLocation1, parcel);
    return OK;
}

status_t RawDataEventParceler::parcelHeadLocation(const HeadLocation& location, Parcel& parcel) {
    parcel.writeInt32(location.flag0 ? 1 : 0);
    parcel.writeInt32(location.flag1 ? 1 : 0);
    parcel.writeInt32(location.value);
    for (float v : location.orientation) parcel.writeFloat(v);
    parcel.writeInt32(location.hasVector8 ? 1 : 0);
    for (float v : location.vector8) parcel.writeFloat(v);
    parcel.writeInt32(location.hasVector27 ? 1 : 0);
    for (float v : location.vector27) parcel.writeFloat(v);
    return OK;
}

status_t RawDataEventParceler::unparcelHeadLocation(HeadLocation& location, const Parcel& parcel) {
    readHeadLocation(location, parcel);
    return OK;
}

static_assert(sizeof(HeadLocation::orientation) / sizeof(float) +
                              sizeof(HeadLocation::vector8) / sizeof(float) +
                              sizeof(HeadLocation::vector27) / sizeof(float) + 5 ==
                      RawDataEventParceler::kHeadLocationItems,
              "a head location is 44 items on the wire");

}  // namespace morvel::tovarin::binder
