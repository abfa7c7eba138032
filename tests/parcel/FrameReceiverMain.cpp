// Helper process for the frame transport tests: registers a binder under the name given as its
// only argument, reads each camera frame or raw data event sent to it through one long-lived
// parceler, and answers what it read (see FrameReport.h). Prints "ready" once registered.

#include <CameraFrameEventParceler.h>
#include <RawDataEventParceler.h>

#include "FrameReport.h"

#include <binder/Binder.h>
#include <binder/IMemory.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <hostbinder_test/Runtime.h>

#include <stdio.h>
#include <string.h>

#include <mutex>

using namespace android;
using morvel::tovarin::CameraFrameEvent;
using morvel::tovarin::RawDataEvent;
using morvel::tovarin::binder::CameraFrameEventParceler;
using morvel::tovarin::binder::RawDataEventParceler;
using namespace morvel::tovarin::binder::test;

namespace {

class FrameReceiver : public BBinder {
protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        std::lock_guard<std::mutex> lock(mLock);
        FrameReport report;
        if (code == kReadCameraFrame) {
            report.memoryOffset = peekMemoryOffset(data, data.dataPosition());
            CameraFrameEvent event;
            mCameraParceler.unparcel(event, data);
            describe(event, report);
        } else if (code == kReadRawData) {
            report.memoryOffset = peekMemoryOffset(data, data.dataPosition() + 8);
            RawDataEvent event;
            mRawParceler.unparcel(event, data);
            describe(event.cameraFrameEvent, report);
            report.timestamp = event.timestamp;
            report.locationValue = event.headLocation0.value;
            report.locationLocalIndex = event.headLocation0.localIndex;
            static_assert(sizeof(report.text) == sizeof(event.headTrackingEvent0.text));
            memcpy(report.text, event.headTrackingEvent0.text, sizeof(report.text));
        } else {
            return BBinder::onTransact(code, data, reply, flags);
        }
        report.openFds = hostbinder_test::openFdCount();
        return reply->write(&report, sizeof(report));
    }

private:
    // Offset of the memory a frame form starting at `frameStart` carries, -1 when none.
    static int64_t peekMemoryOffset(const Parcel& data, size_t frameStart) {
        const size_t start = data.dataPosition();
        data.setDataPosition(frameStart + 8 + 8 + 4 + 4);
        int64_t offset = -1;
        if (data.readInt32() != 0) {
            sp<IMemory> memory = IMemory::asInterface(data.readStrongBinder());
            if (memory != nullptr && memory->pointer() != nullptr) offset = memory->offset();
        }
        data.setDataPosition(start);
        return offset;
    }

    static void describe(const CameraFrameEvent& event, FrameReport& report) {
        report.hasData = event.data != nullptr;
        report.width = event.width;
        report.height = event.height;
        if (event.data != nullptr) {
            report.checksum = checksumOf(event.data, static_cast<size_t>(event.width) *
                                                             static_cast<size_t>(event.height));
        }
        report.dataAddress = reinterpret_cast<intptr_t>(event.data);
        report.sampleCount = static_cast<int32_t>(event.sensorData.size());
        report.timestamp = event.timestamp;
    }

    std::mutex mLock;
    CameraFrameEventParceler mCameraParceler;
    RawDataEventParceler mRawParceler;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s SERVICE_NAME\n", argv[0]);
        return 2;
    }
    sp<FrameReceiver> receiver = new FrameReceiver();
    const status_t status = defaultServiceManager()->addService(String16(argv[1]), receiver);
    if (status != OK) {
        fprintf(stderr, "addService(%s) failed: %d\n", argv[1], status);
        return 1;
    }
    ProcessState::self()->startThreadPool();
    printf("ready\n");
    fflush(stdout);
    IPCThreadState::self()->joinThreadPool();
    return 0;
}
