/*
 * Parcel form of a camera frame event, its camera settings and its sensor samples.
 *
 * Pixels never travel inside the parcel. The writer copies them into a slot of the process's
 * shared frame ring (IMemoryMap) and writes the slot's IMemory binder; the reader copies them
 * out of that memory into a buffer it owns. An event read through a parceler points into that
 * parceler's buffer, so the event's `data` is valid until the next frame of another size is
 * read through the same parceler, or the parceler is destroyed.
 *
 * Not thread-safe: one parceler serves one reader at a time.
 */
#pragma once

#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <tovarin/CameraFrameEvent.h>
#include <tovarin/CameraSettings.h>
#include <utils/Errors.h>

#include <stdint.h>

namespace morvel::tovarin::binder {

class CameraFrameEventParceler {
public:
    // Bytes of one sample on the wire: timestamp, tag, code, three values.
    static constexpr size_t kSensorDataSize = 8 + 8 + 4 + 3 * 4;

    CameraFrameEventParceler();
    virtual ~CameraFrameEventParceler();

    CameraFrameEventParceler(const CameraFrameEventParceler&) = delete;
    CameraFrameEventParceler& operator=(const CameraFrameEventParceler&) = delete;

    // Writes the event. Sets the ring's slot size to width x height first (on every event);
    // when `data` is set, its pixels go into the ring slot keyed by `timestamp` (copied once
    // per distinct timestamp) and the slot's binder is written; a null binder is written when
    // no slot could be had. Always returns OK.
    android::status_t parcel(const CameraFrameEvent& event, android::Parcel& parcel);

    // Reads the event. With pixels, copies width x height bytes out of the received memory
    // into this parceler's buffer (reused while the size stays the same) and points `data` at
    // it. When the pixels cannot be had safely (dimensions not positive or overflowing, no
    // memory object, memory smaller than the frame), `data` is null, the buffer is untouched
    // and the rest of the event is read as usual. Samples are appended to `sensorData`, at
    // most as many as the parcel still holds. Always returns OK.
    android::status_t unparcel(CameraFrameEvent& event, const android::Parcel& parcel);

    // 7 + 1 + 6 int32 items; the flag reads as true when non-zero. Always return OK.
    android::status_t parcelCameraSettings(const CameraSettings& settings, android::Parcel& parcel);
    android::status_t unparcelCameraSettings(CameraSettings& settings,
                                             const android::Parcel& parcel);

    // One sample: timestamp, tag, code, values[0..2]. Always return OK.
    android::status_t parcelSensorData(const SensorData& sample, android::Parcel& parcel);
    android::status_t unparcelSensorData(SensorData& sample, const android::Parcel& parcel);

private:
    // mBuffer filled with the frame's pixels from the memory behind `binder`, or null when they
    // cannot be had safely (the buffer is then untouched).
    unsigned char* copyPixels(const android::sp<android::IBinder>& binder, int32_t width,
                              int32_t height);

    unsigned char* mBuffer;  // malloc'ed, owned; null until the first frame with pixels
    int32_t mBufferSize;
};

}  // namespace morvel::tovarin::binder
