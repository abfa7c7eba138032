#include <HeadTrackingStateParceler.h>

using android::OK;
using android::Parcel;
using android::status_t;

namespace morvel::tovarin::binder {

status_t HeadTrackingStateParceler::parcel(const HeadTrackingState& state, Parcel& parcel) {
    if (status_t s = parcel.writeInt32(state.primary); s != OK) return s;
    return parcel.writeInt32(state.secondary);
}

void HeadTrackingStateParceler::unparcel(HeadTrackingState& state, const Parcel& parcel) {
    state.primary = parcel.readInt32();
    state.secondary = parcel.readInt32();
}

}  // namespace morvel::tovarin::binder
