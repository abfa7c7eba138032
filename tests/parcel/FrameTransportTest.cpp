// Camera frames between real processes: pixels through the sender's shared frame ring, one copy
// per frame however many receivers, one receive buffer for a steady stream, and hostile frames.
//
// Every frame with pixels this process writes is 640x480: the ring takes its slot size from
// the first one.

#include <CameraFrameEventParceler.h>
#include <IMemoryMap.h>
#include <RawDataEventParceler.h>

#include <binder/Binder.h>
#include <binder/IMemory.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/MemoryDealer.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>
#include <hostbinder_test/Roles.h>

#include <stdio.h>
#include <string.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

using namespace android;

namespace morvel::tovarin::binder {
namespace {

enum : uint32_t {
    kReadCameraFrame = 1,  // data: a CameraFrameEvent
    kReadRawData = 2,      // data: a RawDataEvent
};

// What the receiver answers about each event it reads, sent as raw bytes.
struct FrameReport {
    int32_t height = 0;
    int32_t sampleCount = 0;
    uint64_t checksum = 0;    // of the pixels read, 0 without pixels
    int64_t dataAddress = 0;  // where the receiver's copy lives (its parceler's buffer)
    int64_t timestamp = 0;    // raw data only
    int32_t openFds = 0;      // the receiver's open file and memory descriptors after reading
};

// FNV-1a over the pixels.
uint64_t checksumOf(const unsigned char* data, size_t size) {
    uint64_t hash = 1469598103934665603ull;
    for (size_t i = 0; i < size; ++i) hash = (hash ^ data[i]) * 1099511628211ull;
    return hash;
}

// Reads each event sent to it through one long-lived parceler and answers a FrameReport.
class FrameReceiver : public BBinder {
protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        std::lock_guard<std::mutex> lock(mLock);
        RawDataEvent event;  // a camera frame is read into its cameraFrameEvent
        if (code == kReadCameraFrame) {
            mCameraParceler.unparcel(event.cameraFrameEvent, data);
        } else if (code == kReadRawData) {
            mRawParceler.unparcel(event, data);
        } else {
            return BBinder::onTransact(code, data, reply, flags);
        }
        const CameraFrameEvent& frame = event.cameraFrameEvent;
        FrameReport report;
        report.height = frame.height;
        report.sampleCount = static_cast<int32_t>(frame.sensorData.size());
        if (frame.data != nullptr) {
            report.checksum = checksumOf(frame.data, static_cast<size_t>(frame.width) *
                                                             static_cast<size_t>(frame.height));
        }
        report.dataAddress = reinterpret_cast<intptr_t>(frame.data);
        report.timestamp = event.timestamp;
        report.openFds = hostbinder_test::openFileFdCount();
        return reply->write(&report, sizeof(report));
    }

private:
    std::mutex mLock;
    CameraFrameEventParceler mCameraParceler;
    RawDataEventParceler mRawParceler;
};

// args: the name to register the receiver under.
TEST_ROLE(frame_receiver) {
    if (defaultServiceManager()->addService(String16(args.at(0).c_str()), new FrameReceiver()) !=
        OK) {
        fprintf(stderr, "cannot register %s\n", args[0].c_str());
        return 1;
    }
    ProcessState::self()->startThreadPool();
    hostbinder_test::ready();
    IPCThreadState::self()->joinThreadPool();
    return 0;
}

constexpr int32_t kWidth = 640;
constexpr int32_t kHeight = 480;
constexpr size_t kArea = kWidth * kHeight;

std::vector<unsigned char> framePixels(unsigned seed) {
    std::vector<unsigned char> pixels(kArea);
    for (size_t i = 0; i < kArea; ++i) {
        pixels[i] = static_cast<unsigned char>((i % kWidth) + (i / kWidth) * 3 + seed * 17);
    }
    return pixels;
}

CameraFrameEvent frameWith(int64_t timestamp, std::vector<unsigned char>& pixels) {
    CameraFrameEvent frame;
    frame.timestamp = timestamp;
    frame.width = kWidth;
    frame.height = kHeight;
    frame.data = pixels.data();
    SensorData sample;
    sample.timestamp = timestamp - 1;
    frame.sensorData = {sample, sample};
    return frame;
}

FrameReport send(const sp<IBinder>& receiver, uint32_t code, const Parcel& data) {
    Parcel reply;
    EXPECT_EQ(OK, receiver->transact(code, data, &reply));
    FrameReport report;
    EXPECT_EQ(OK, reply.read(&report, sizeof(report)));
    return report;
}

FrameReport sendFrame(const sp<IBinder>& receiver, const CameraFrameEvent& frame) {
    Parcel data;
    CameraFrameEventParceler().parcel(frame, data);
    return send(receiver, kReadCameraFrame, data);
}

// Two receiver processes. A raw data event, then a stream longer than the ring with each frame
// sent to both, arrive through shared memory: one copy per frame in this process, one receive
// buffer in each receiver and no descriptors left behind. Hostile frames are read without
// pixels and leave that buffer to the next good frame.
TEST(FrameTransportTest, FramesReachOtherProcessesThroughSharedMemory) {
    hostbinder_test::RuntimeInstance runtime;
    ProcessState::self()->startThreadPool();  // the receivers map our memory through us
    std::unique_ptr<hostbinder_test::ChildProcess> processes[2];
    sp<IBinder> receivers[2];
    for (int r = 0; r < 2; ++r) {
        const std::string name = "parcel.receiver." + std::to_string(r);
        processes[r] = hostbinder_test::startRole("frame_receiver", {name});
        ASSERT_TRUE(processes[r]);
        receivers[r] = defaultServiceManager()->checkService(String16(name.c_str()));
        ASSERT_NE(nullptr, receivers[r]);
    }
    std::vector<unsigned char> pixels = framePixels(4);
    RawDataEvent event;
    event.timestamp = 777;
    event.cameraFrameEvent = frameWith(4000, pixels);
    Parcel data;
    RawDataEventParceler().parcel(event, data);
    EXPECT_LT(data.dataSize(), 2048u) << "the pixels are not in the parcel";
    const FrameReport raw = send(receivers[1], kReadRawData, data);
    EXPECT_EQ(checksumOf(pixels.data(), kArea), raw.checksum);
    EXPECT_EQ(2, raw.sampleCount);
    EXPECT_EQ(777, raw.timestamp);

    FrameReport first[2];
    for (int r = 0; r < 2; ++r) first[r] = sendFrame(receivers[r], frameWith(4000, pixels));
    for (unsigned i = 1; i <= 12; ++i) {
        SCOPED_TRACE(i);
        std::vector<unsigned char> next = framePixels(10 + i);
        for (int r = 0; r < 2; ++r) {
            const FrameReport report = sendFrame(receivers[r], frameWith(4000 + i, next));
            EXPECT_EQ(checksumOf(next.data(), kArea), report.checksum);
            EXPECT_EQ(first[r].dataAddress, report.dataAddress);
            EXPECT_EQ(first[r].openFds, report.openFds) << "the receiver holds on to frame memory";
        }
    }
    // The last frame is in the slot keyed by its timestamp, where the second send found it.
    std::vector<unsigned char> other = framePixels(3);
    const sp<IMemory> slot = IMemoryMap::getInstance()->getMemoryWithData(4012, other.data());
    ASSERT_NE(nullptr, slot);
    EXPECT_EQ(0, memcmp(framePixels(22).data(), slot->pointer(), kArea));

    sp<MemoryDealer> dealer = new MemoryDealer(64 * 1024);
    const sp<IMemory> small = dealer->allocate(1000);
    ASSERT_NE(nullptr, small);
    const struct {
        const char* name;
        int32_t height;
        sp<IBinder> binder;
        int32_t sampleCount;
    } hostile[] = {
            {"foreign binder", kHeight, new BBinder(), 1},
            {"memory smaller than the frame", kHeight, IInterface::asBinder(small), 1},
            {"frame larger than the slot", kHeight + 1, IInterface::asBinder(slot), 1},
            {"huge sample count", kHeight, new BBinder(), 0x7fffffff},
    };
    for (const auto& c : hostile) {
        SCOPED_TRACE(c.name);
        Parcel data;
        CameraFrameEventParceler writer;
        data.writeInt64(99);
        data.writeInt64(1);
        data.writeInt32(kWidth);
        data.writeInt32(c.height);
        data.writeInt32(1);
        data.writeStrongBinder(c.binder);
        writer.parcelCameraSettings(CameraSettings(), data);
        data.writeInt32(c.sampleCount);
        writer.parcelSensorData(SensorData(), data);
        const FrameReport report = send(receivers[0], kReadCameraFrame, data);
        EXPECT_EQ(0u, report.checksum);
        EXPECT_EQ(c.height, report.height);
        EXPECT_EQ(1, report.sampleCount);
    }
    const FrameReport good = sendFrame(receivers[0], frameWith(5000, pixels));
    EXPECT_EQ(checksumOf(pixels.data(), kArea), good.checksum);
    EXPECT_EQ(first[0].dataAddress, good.dataAddress);
}

}  // namespace
}  // namespace morvel::tovarin::binder
