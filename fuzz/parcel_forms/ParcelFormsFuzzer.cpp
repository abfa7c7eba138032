// Feeds arbitrary bytes to every parcel reader of the wire value types. The frame readers are
// long-lived, as in a listener process, so that their receive buffer carries over from input
// to input.

#include <CameraFrameEventParceler.h>
#include <HeadTrackerHandleParceler.h>
#include <HeadTrackingEventParceler.h>
#include <HeadTrackingStateParceler.h>
#include <RawDataEventParceler.h>
#include <StateChangeEventParceler.h>

#include <binder/Parcel.h>
#include <tovarin/TovarinLogger.h>

#include <android/log.h>

#include <stddef.h>
#include <stdint.h>
#include <string.h>

using android::Parcel;
using namespace morvel::tovarin;
using namespace morvel::tovarin::binder;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    TovarinLogger::setGlobalMaxLevel(ANDROID_LOG_SILENT);  // rejected frames are logged
    __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static CameraFrameEventParceler* cameraReader = new CameraFrameEventParceler();
    static RawDataEventParceler* rawReader = new RawDataEventParceler();

    Parcel parcel;
    if (parcel.setData(data, size) != android::OK) return 0;

    parcel.setDataPosition(0);
    HeadTrackerHandle handle = HeadTrackerHandleParceler::unparcel(parcel);
    (void)handle;

    parcel.setDataPosition(0);
    HeadTrackingConfiguration configuration;
    HeadTrackerHandleParceler::unparcel(configuration, parcel);

    parcel.setDataPosition(0);
    HeadTrackingEvent event;
    HeadTrackingEventParceler::unparcel(event, parcel);
    if (strnlen(event.text, sizeof(event.text)) >= sizeof(event.text)) __builtin_trap();

    parcel.setDataPosition(0);
    HeadTrackingState state;
    HeadTrackingStateParceler::unparcel(state, parcel);

    parcel.setDataPosition(0);
    StateChangeEvent change;
    StateChangeEventParceler::unparcel(change, parcel);

    parcel.setDataPosition(0);
    CameraFrameEvent frame;
    cameraReader->unparcel(frame, parcel);
    if (frame.sensorData.size() > size / CameraFrameEventParceler::kSensorDataSize) {
        __builtin_trap();
    }

    parcel.setDataPosition(0);
    RawDataEvent raw;
    rawReader->unparcel(raw, parcel);
    if (raw.headLocation0.localIndex != -1 || raw.headLocation1.localIndex != -1) {
        __builtin_trap();
    }
    return 0;
}
