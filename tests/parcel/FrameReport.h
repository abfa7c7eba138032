/*
 * What the frame receiver helper answers about each event it reads: the reply layout shared by
 * the helper and the tests that drive it.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace morvel::tovarin::binder::test {

enum FrameReceiverCode : uint32_t {
    kReadCameraFrame = 1,  // data: a CameraFrameEvent
    kReadRawData = 2,      // data: a RawDataEvent
};

// Sent as raw bytes: the helper and the tests are built from the same source.
struct FrameReport {
    int32_t hasData = 0;
    int32_t width = 0;
    int32_t height = 0;
    uint64_t checksum = 0;      // of width x height pixels, 0 without pixels
    int64_t dataAddress = 0;    // where the receiver's copy lives (its parceler's buffer)
    int64_t memoryOffset = -1;  // offset of the received memory in its heap, -1 without one
    int32_t sampleCount = 0;
    int64_t timestamp = 0;
    int32_t locationValue = 0;       // raw data only: headLocation0.value
    int32_t locationLocalIndex = 0;  // raw data only: headLocation0.localIndex
    char text[256] = {};             // raw data only: headTrackingEvent0.text
    int32_t openFds = 0;             // the receiver's open descriptors after reading
};

// FNV-1a over the pixels.
inline uint64_t checksumOf(const unsigned char* data, size_t size) {
    uint64_t hash = 1469598103934665603ull;
    for (size_t i = 0; i < size; ++i) {
        hash ^= data[i];
        hash *= 1099511628211ull;
    }
    return hash;
}

}  // namespace morvel::tovarin::binder::test
