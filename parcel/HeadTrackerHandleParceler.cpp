#include <HeadTrackerHandleParceler.h>

#include <string.h>

#include <algorithm>
#include <string>

using android::OK;
using android::Parcel;
using android::status_t;
using android::String8;

namespace morvel::tovarin::binder {

namespace {

// An 8-bit string as the platform writes it: int32 byte count, then (for a count above 0) the
// bytes and a NUL, padded. Anything that does not read back as such (negative count, bytes
// past the end, no NUL) is taken as empty. Only the characters before the first NUL count.
std::string readString8UpToNul(const Parcel& parcel) {
    int32_t count = 0;
    if (parcel.readInt32(&count) != OK || count <= 0) return std::string();
    if (static_cast<size_t>(count) >= parcel.dataAvail()) return std::string();
    const auto* chars =
            static_cast<const char*>(parcel.readInplace(static_cast<size_t>(count) + 1));
    if (chars == nullptr || chars[count] != '\0') return std::string();
    return std::string(chars, strnlen(chars, static_cast<size_t>(count)));
}

}  // namespace

status_t HeadTrackerHandleParceler::parcel(const HeadTrackerHandle& handle, Parcel& parcel) {
    return parcel.writeInt32(handle.id);
}

HeadTrackerHandle HeadTrackerHandleParceler::unparcel(const Parcel& parcel) {
    HeadTrackerHandle handle;
    handle.id = parcel.readInt32();
    handle.secondaryId = -1;
    return handle;
}

status_t HeadTrackerHandleParceler::parcel(const HeadTrackingConfiguration& configuration,
                                           Parcel& parcel) {
    if (status_t s = parcel.writeInt32(configuration.fidelity); s != OK) return s;
    if (status_t s = parcel.writeInt32(configuration.filter); s != OK) return s;
    // The 8-bit string is the NUL-terminated copy of at most the first 256 characters, so it
    // also ends at an embedded NUL.
    const std::string& text = configuration.debugString;
    const size_t cut = std::min(text.size(), kMaxDebugStringLength);
    return parcel.writeString8(String8(text.data(), strnlen(text.data(), cut)));
}

void HeadTrackerHandleParceler::unparcel(HeadTrackingConfiguration& configuration,
                                         const Parcel& parcel) {
    configuration.fidelity = parcel.readInt32();
    configuration.filter = parcel.readInt32();
    configuration.debugString = readString8UpToNul(parcel);
}

}  // namespace morvel::tovarin::binder
