#include <HeadTrackingEventParceler.h>

#include <string.h>

using android::OK;
using android::Parcel;
using android::status_t;

namespace morvel::tovarin::binder {

namespace {

constexpr size_t kTextSize = sizeof(HeadTrackingEvent::text);

}  // namespace

status_t HeadTrackingEventParceler::parcel(const HeadTrackingEvent& event, Parcel& parcel) {
    if (status_t s = parcel.writeInt64(event.timestamp); s != OK) return s;
    if (status_t s = parcel.writeFloat(event.component0); s != OK) return s;
    if (status_t s = parcel.writeFloat(event.component1); s != OK) return s;
    if (status_t s = parcel.writeFloat(event.component2); s != OK) return s;
    if (status_t s = parcel.writeInt32(event.flag0 ? 1 : 0); s != OK) return s;
    if (status_t s = parcel.writeInt32(event.flag1 ? 1 : 0); s != OK) return s;
    if (status_t s = parcel.writeFloat(event.scalar); s != OK) return s;
    if (memchr(event.text, '\0', kTextSize) != nullptr) return parcel.writeCString(event.text);
    // A sender that filled the whole array without a terminator: send the array, as if a NUL
    // followed it, without reading past it.
    char terminated[kTextSize + 1];
    memcpy(terminated, event.text, kTextSize);
    terminated[kTextSize] = '\0';
    return parcel.writeCString(terminated);
}

void HeadTrackingEventParceler::unparcel(HeadTrackingEvent& event, const Parcel& parcel) {
    event.timestamp = parcel.readInt64();
    event.component0 = parcel.readFloat();
    event.component1 = parcel.readFloat();
    event.component2 = parcel.readFloat();
    event.flag0 = parcel.readInt32() != 0;
    event.flag1 = parcel.readInt32() != 0;
    event.scalar = parcel.readFloat();
    // Null when the string runs past the end of the data: read as empty.
    const char* text = parcel.readCString();
    strncpy(event.text, text != nullptr ? text : "", kTextSize);
    event.text[kTextSize - 1] = '\0';
}

}  // namespace morvel::tovarin::binder
