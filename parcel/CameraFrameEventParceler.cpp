#include <CameraFrameEventParceler.h>

#include <IMemoryMap.h>

#include <binder/IMemory.h>
#include <tovarin/TovarinLogger.h>

#include <android/log.h>

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <limits>

using android::IBinder;
using android::IInterface;
using android::IMemory;
using android::OK;
using android::Parcel;
using android::sp;
using android::status_t;

namespace morvel::tovarin::binder {

namespace {

constexpr const char* kTag = "TovarinCameraFrameEventParceler";
int32_t sModuleLogState = -1;

// width x height as the int the frame ring takes; 0 when the product does not fit.
int frameArea(int32_t width, int32_t height) {
    const int64_t area = static_cast<int64_t>(width) * height;
    if (area > std::numeric_limits<int>::max() || area < std::numeric_limits<int>::min()) {
        return 0;
    }
    return static_cast<int>(area);
}

}  // namespace

CameraFrameEventParceler::CameraFrameEventParceler() : mBuffer(nullptr), mBufferSize(0) {}

CameraFrameEventParceler::~CameraFrameEventParceler() {
    free(mBuffer);
}

status_t CameraFrameEventParceler::parcel(const CameraFrameEvent& event, Parcel& parcel) {
    parcel.writeInt64(event.timestamp);
    parcel.writeInt64(event.tag);
    const int area = frameArea(event.width, event.height);
    IMemoryMap::setFilesize(area);
    parcel.writeInt32(event.width);
    parcel.writeInt32(event.height);
    parcel.writeInt32(event.data != nullptr ? 1 : 0);
    if (event.data != nullptr) {
        // Exactly the frame's width x height bytes are read from `data`. A frame without a
        // positive size never builds the ring (and so never fixes its slot size); it and a
        // frame larger than a slot leave without pixels. The parcel holds the slot's binder
        // from here on; our reference is dropped at once.
        sp<IMemory> memory;
        if (event.width > 0 && event.height > 0 && area > 0) {
            memory = IMemoryMap::getInstance()->getMemoryWithData(event.timestamp, event.data,
                                                                  static_cast<size_t>(area));
        }
        parcel.writeStrongBinder(memory != nullptr ? IInterface::asBinder(memory) : nullptr);
    }
    parcelCameraSettings(event.settings, parcel);
    parcel.writeInt32(static_cast<int32_t>(event.sensorData.size()));
    for (const SensorData& sample : event.sensorData) parcelSensorData(sample, parcel);
    return OK;
}

status_t CameraFrameEventParceler::unparcel(CameraFrameEvent& event, const Parcel& parcel) {
    event.timestamp = parcel.readInt64();
    event.tag = parcel.readInt64();
    event.width = parcel.readInt32();
    event.height = parcel.readInt32();
    if (parcel.readInt32() != 0) {
        event.data = copyPixels(parcel.readStrongBinder(), event.width, event.height);
    } else {
        event.data = nullptr;
    }
    unparcelCameraSettings(event.settings, parcel);

    const int32_t count = parcel.readInt32();
    if (count < 1) return OK;
    // A count is only a claim: read no more samples than the parcel still holds.
    const size_t fit = parcel.dataAvail() / kSensorDataSize;
    const size_t n = std::min(static_cast<size_t>(count), fit);
    if (n < static_cast<size_t>(count) &&
        TovarinLogger::getInstance()->shouldLog(kTag, ANDROID_LOG_WARN)) {
        rendel_log_write2(ANDROID_LOG_WARN, &sModuleLogState, 2, kTag,
                          "frame claims %d sensor samples, parcel holds %zu", count, n);
    }
    event.sensorData.reserve(event.sensorData.size() + n);
    for (size_t i = 0; i < n; ++i) {
        SensorData sample;
        unparcelSensorData(sample, parcel);
        event.sensorData.push_back(sample);
    }
    return OK;
}

unsigned char* CameraFrameEventParceler::copyPixels(const sp<IBinder>& binder, int32_t width,
                                                    int32_t height) {
    const char* refusal = nullptr;
    const int64_t area = static_cast<int64_t>(width) * height;
    sp<IMemory> memory;
    const unsigned char* pixels = nullptr;
    if (width <= 0 || height <= 0) {
        refusal = "dimensions not positive";
    } else if (area > std::numeric_limits<int32_t>::max()) {
        refusal = "frame size overflows";
    } else if ((memory = IMemory::asInterface(binder)) == nullptr) {
        refusal = "no memory object";
    } else if (memory->size() < static_cast<size_t>(area)) {
        refusal = "memory smaller than the frame";
    } else if ((pixels = static_cast<const unsigned char*>(memory->pointer())) == nullptr) {
        refusal = "memory not mappable";
    }
    if (refusal != nullptr) {
        if (TovarinLogger::getInstance()->shouldLog(kTag, ANDROID_LOG_WARN)) {
            rendel_log_write2(ANDROID_LOG_WARN, &sModuleLogState, 2, kTag,
                              "frame %dx%d without pixels: %s", width, height, refusal);
        }
        return nullptr;
    }

    const int32_t size = static_cast<int32_t>(area);
    if (mBuffer == nullptr || mBufferSize != size) {
        auto* buffer = static_cast<unsigned char*>(malloc(static_cast<size_t>(size)));
        if (buffer == nullptr) return nullptr;
        free(mBuffer);
        mBuffer = buffer;
        mBufferSize = size;
    }
    memcpy(mBuffer, pixels, static_cast<size_t>(size));
    return mBuffer;
}

status_t CameraFrameEventParceler::parcelCameraSettings(const CameraSettings& settings,
                                                        Parcel& parcel) {
    for (int32_t v : settings.settingsA) parcel.writeInt32(v);
    parcel.writeInt32(settings.settingsFlag ? 1 : 0);
    for (int32_t v : settings.settingsB) parcel.writeInt32(v);
    return OK;
}

status_t CameraFrameEventParceler::unparcelCameraSettings(CameraSettings& settings,
                                                          const Parcel& parcel) {
    for (int32_t& v : settings.settingsA) v = parcel.readInt32();
    settings.settingsFlag = parcel.readInt32() != 0;
    for (int32_t& v : settings.settingsB) v = parcel.readInt32();
    return OK;
}

status_t CameraFrameEventParceler::parcelSensorData(const SensorData& sample, Parcel& parcel) {
    parcel.writeInt64(sample.timestamp);
    parcel.writeInt64(sample.tag);
    parcel.writeInt32(sample.code);
    for (float v : sample.values) parcel.writeFloat(v);
    return OK;
}

status_t CameraFrameEventParceler::unparcelSensorData(SensorData& sample, const Parcel& parcel) {
    sample.timestamp = parcel.readInt64();
    sample.tag = parcel.readInt64();
    sample.code = parcel.readInt32();
    for (float& v : sample.values) v = parcel.readFloat();
    return OK;
}

}  // namespace morvel::tovarin::binder
