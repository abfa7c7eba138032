// Camera frames between real processes: pixels through the sender's shared frame ring, one copy
// per frame however many receivers, one receive buffer for a steady stream, and hostile frames.
//
// Every frame with pixels this process writes is 640x480: the ring takes its slot size from
// the first one.

#include <CameraFrameEventParceler.h>
#include <IMemoryMap.h>
#include <RawDataEventParceler.h>

#include "FrameReport.h"

#include <binder/Binder.h>
#include <binder/IMemory.h>
#include <binder/IServiceManager.h>
#include <binder/MemoryDealer.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>
#include <hostbinder_test/Runtime.h>

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

using namespace android;

namespace morvel::tovarin::binder {
namespace {

using test::checksumOf;
using test::FrameReport;

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
    frame.tag = 5;
    frame.width = kWidth;
    frame.height = kHeight;
    frame.data = pixels.data();
    frame.settings.settingsFlag = true;
    SensorData sample;
    sample.timestamp = timestamp - 1;
    frame.sensorData = {sample, sample};
    return frame;
}

class FrameTransportTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        sRuntime = new hostbinder_test::RuntimeInstance();
        ProcessState::self()->startThreadPool();
    }
    static void TearDownTestSuite() {
        delete sRuntime;
        sRuntime = nullptr;
    }

    void TearDown() override {
        for (auto& receiver : mReceivers) {
            receiver->kill(SIGKILL);
            EXPECT_EQ(128 + SIGKILL, receiver->wait(5000)) << receiver->output();
        }
    }

    // Starts a receiver process and returns its binder.
    sp<IBinder> startReceiver(const std::string& name) {
        const char* path = getenv("PARCEL_FRAME_RECEIVER");
        if (path == nullptr) {
            ADD_FAILURE() << "PARCEL_FRAME_RECEIVER not set";
            return nullptr;
        }
        mReceivers.push_back(std::make_unique<hostbinder_test::ChildProcess>(
                std::vector<std::string>{path, name}));
        if (!mReceivers.back()->waitForOutput("ready", 10000)) {
            ADD_FAILURE() << "receiver not ready: " << mReceivers.back()->output();
            return nullptr;
        }
        return android::defaultServiceManager()->checkService(String16(name.c_str()));
    }

    static FrameReport send(const sp<IBinder>& receiver, uint32_t code, const Parcel& data) {
        Parcel reply;
        EXPECT_EQ(OK, receiver->transact(code, data, &reply));
        FrameReport report;
        EXPECT_EQ(OK, reply.read(&report, sizeof(report)));
        return report;
    }

    static FrameReport sendFrame(const sp<IBinder>& receiver, const CameraFrameEvent& frame) {
        Parcel data;
        CameraFrameEventParceler().parcel(frame, data);
        return send(receiver, test::kReadCameraFrame, data);
    }

    static hostbinder_test::RuntimeInstance* sRuntime;
    std::vector<std::unique_ptr<hostbinder_test::ChildProcess>> mReceivers;
};

hostbinder_test::RuntimeInstance* FrameTransportTest::sRuntime = nullptr;

TEST_F(FrameTransportTest, RawDataEventPixelsArriveThroughSharedMemory) {
    const sp<IBinder> receiver = startReceiver("parcel.receiver.raw");
    ASSERT_NE(nullptr, receiver);
    std::vector<unsigned char> pixels = framePixels(1);
    RawDataEvent event;
    event.timestamp = 777;
    event.cameraFrameEvent = frameWith(1001, pixels);
    strcpy(event.headTrackingEvent0.text, "from the service");
    event.headLocation0.value = 12;
    event.headLocation0.localIndex = 4;
    Parcel data;
    RawDataEventParceler().parcel(event, data);
    // The pixels are not in the parcel.
    EXPECT_LT(data.dataSize(), 2048u);

    const FrameReport report = send(receiver, test::kReadRawData, data);
    EXPECT_EQ(1, report.hasData);
    EXPECT_EQ(kWidth, report.width);
    EXPECT_EQ(kHeight, report.height);
    EXPECT_EQ(checksumOf(pixels.data(), kArea), report.checksum);
    EXPECT_EQ(2, report.sampleCount);
    EXPECT_EQ(777, report.timestamp);
    EXPECT_EQ(12, report.locationValue);
    EXPECT_EQ(-1, report.locationLocalIndex);
    EXPECT_STREQ("from the service", report.text);
}

TEST_F(FrameTransportTest, FrameSentToSeveralReceiversIsCopiedOnce) {
    std::vector<sp<IBinder>> receivers;
    for (int i = 0; i < 3; ++i) {
        receivers.push_back(startReceiver("parcel.receiver.fan" + std::to_string(i)));
        ASSERT_NE(nullptr, receivers.back());
    }
    std::vector<unsigned char> pixels = framePixels(2);
    const CameraFrameEvent frame = frameWith(2002, pixels);
    std::vector<FrameReport> reports;
    for (const sp<IBinder>& receiver : receivers) reports.push_back(sendFrame(receiver, frame));

    for (const FrameReport& report : reports) {
        EXPECT_EQ(1, report.hasData);
        EXPECT_EQ(checksumOf(pixels.data(), kArea), report.checksum);
        EXPECT_EQ(reports[0].memoryOffset, report.memoryOffset) << "another slot was used";
    }
    ASSERT_GE(reports[0].memoryOffset, 0);
    // The slot still holds the frame and is not written again for the same frame.
    std::vector<unsigned char> other = framePixels(3);
    const sp<IMemory> slot = IMemoryMap::getInstance()->getMemoryWithData(2002, other.data());
    ASSERT_NE(nullptr, slot);
    EXPECT_EQ(reports[0].memoryOffset, static_cast<int64_t>(slot->offset()));
    EXPECT_EQ(0, memcmp(pixels.data(), slot->pointer(), kArea));

    // The next frame takes another slot.
    const FrameReport next = sendFrame(receivers[0], frameWith(2003, other));
    EXPECT_EQ(checksumOf(other.data(), kArea), next.checksum);
    EXPECT_NE(reports[0].memoryOffset, next.memoryOffset);
}

TEST_F(FrameTransportTest, SteadyStreamReusesOneReceiveBuffer) {
    const sp<IBinder> receiver = startReceiver("parcel.receiver.stream");
    ASSERT_NE(nullptr, receiver);
    int64_t firstAddress = 0;
    int32_t firstFds = 0;
    for (unsigned i = 0; i < 15; ++i) {  // more frames than slots: the ring wraps
        SCOPED_TRACE(i);
        std::vector<unsigned char> pixels = framePixels(10 + i);
        const FrameReport report = sendFrame(receiver, frameWith(3000 + i, pixels));
        ASSERT_EQ(1, report.hasData);
        EXPECT_EQ(checksumOf(pixels.data(), kArea), report.checksum);
        if (i == 0) {
            firstAddress = report.dataAddress;
            firstFds = report.openFds;
        }
        EXPECT_EQ(firstAddress, report.dataAddress);
        EXPECT_EQ(firstFds, report.openFds) << "the receiver holds on to frame memory";
    }
}

TEST_F(FrameTransportTest, HostileFramesLeaveTheReceiverReadingTheRest) {
    const sp<IBinder> receiver = startReceiver("parcel.receiver.hostile");
    ASSERT_NE(nullptr, receiver);
    std::vector<unsigned char> pixels = framePixels(4);
    // A slot of the ring, legitimately holding a 640x480 frame.
    const sp<IMemory> slot = IMemoryMap::getInstance()->getMemoryWithData(4004, pixels.data());
    ASSERT_NE(nullptr, slot);
    sp<MemoryDealer> dealer = new MemoryDealer(64 * 1024);
    const sp<IMemory> small = dealer->allocate(1000);
    ASSERT_NE(nullptr, small);

    struct Case {
        const char* name;
        int32_t width;
        int32_t height;
        sp<IBinder> binder;
        int32_t sampleCount;
    };
    const std::vector<Case> cases = {
            {"foreign binder", kWidth, kHeight, new BBinder(), 1},
            {"null binder", kWidth, kHeight, nullptr, 1},
            {"memory smaller than the frame", kWidth, kHeight, IInterface::asBinder(small), 1},
            {"frame larger than the slot", kWidth, kHeight + 1, IInterface::asBinder(slot), 1},
            {"negative height", kWidth, -kHeight, IInterface::asBinder(slot), 1},
            {"overflowing size", 1 << 16, 1 << 16, IInterface::asBinder(slot), 1},
            {"huge sample count", kWidth, kHeight, new BBinder(), 0x7fffffff},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Parcel data;
        data.writeInt64(99);
        data.writeInt64(1);
        data.writeInt32(c.width);
        data.writeInt32(c.height);
        data.writeInt32(1);
        data.writeStrongBinder(c.binder);
        CameraFrameEventParceler writer;
        writer.parcelCameraSettings(CameraSettings(), data);
        data.writeInt32(c.sampleCount);
        writer.parcelSensorData(SensorData(), data);
        const FrameReport report = send(receiver, test::kReadCameraFrame, data);
        EXPECT_EQ(0, report.hasData);
        EXPECT_EQ(c.height, report.height);
        EXPECT_EQ(1, report.sampleCount);
    }
    // The receiver is still there and reads good frames.
    const FrameReport good = sendFrame(receiver, frameWith(4005, pixels));
    EXPECT_EQ(1, good.hasData);
    EXPECT_EQ(checksumOf(pixels.data(), kArea), good.checksum);
}

}  // namespace
}  // namespace morvel::tovarin::binder
