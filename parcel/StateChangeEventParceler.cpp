#include <StateChangeEventParceler.h>

#include <HeadTrackingStateParceler.h>

using android::OK;
using android::Parcel;
using android::status_t;

namespace morvel::tovarin::binder {

status_t StateChangeEventParceler::parcel(const StateChangeEvent& event, Parcel& parcel) {
    if (status_t s = parcel.writeInt64(event.timestamp); s != OK) return s;
    if (status_t s = parcel.writeInt32(event.flag ? 1 : 0); s != OK) return s;
    return HeadTrackingStateParceler::parcel(event.state, parcel);
}

void StateChangeEventParceler::unparcel(StateChangeEvent& event, const Parcel& parcel) {
    event.timestamp = parcel.readInt64();
    event.flag = parcel.readInt32() != 0;
    HeadTrackingStateParceler::unparcel(event.state, parcel);
}

}  // namespace morvel::tovarin::binder
