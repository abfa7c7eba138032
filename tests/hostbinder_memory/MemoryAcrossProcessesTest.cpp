/*
 * Shared memory between real processes: each test starts its own runtime instance and a
 * memory_peer process, and checks that both sides see the same pages.
 */
#include <binder/IMemory.h>
#include <binder/IServiceManager.h>
#include <binder/MemoryDealer.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include <hostbinder_test/Runtime.h>

#include "MemoryTestUtil.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

using namespace android;
using namespace hostbinder_memory_test;

namespace {

const long kPage = sysconf(_SC_PAGESIZE);

class MemoryAcrossProcessesTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* peerPath = getenv("MEMORY_PEER");
        ASSERT_NE(peerPath, nullptr) << "MEMORY_PEER names the memory_peer helper";
        mRuntime = std::make_unique<hostbinder_test::RuntimeInstance>();
        ProcessState::self()->startThreadPool();
        mPeer = std::make_unique<hostbinder_test::ChildProcess>(
                std::vector<std::string>{peerPath, "serve"});
        ASSERT_TRUE(mPeer->waitForOutput("READY", 10000)) << mPeer->output();
        mService = defaultServiceManager()->checkService(String16("memory.peer"));
        ASSERT_NE(mService, nullptr);
    }

    void TearDown() override {
        if (mService != nullptr) {
            Parcel data, reply;
            EXPECT_EQ(mService->transact(kExit, data, &reply), NO_ERROR);
            mService.clear();
        }
        if (mPeer) {
            EXPECT_EQ(mPeer->wait(5000), 0) << mPeer->output();
        }
    }

    std::unique_ptr<hostbinder_test::RuntimeInstance> mRuntime;
    std::unique_ptr<hostbinder_test::ChildProcess> mPeer;
    sp<IBinder> mService;
};

}  // namespace

TEST_F(MemoryAcrossProcessesTest, ReceiverSeesAndChangesTheSendersPages) {
    const int fdsBefore = hostbinder_test::openFdCount();
    {
        Parcel data, reply;
        ASSERT_EQ(mService->transact(kGetMemories, data, &reply), NO_ERROR);
        sp<IMemory> first = interface_cast<IMemory>(reply.readStrongBinder());
        sp<IMemory> second = interface_cast<IMemory>(reply.readStrongBinder());
        ASSERT_NE(first, nullptr);
        ASSERT_NE(second, nullptr);

        auto* text = static_cast<char*>(first->pointer());
        ASSERT_NE(text, nullptr);
        EXPECT_STREQ(text, "written by the peer");
        EXPECT_EQ(first->size(), 100u);

        // Written here, read by the peer through its own mapping: the same pages, no copy.
        strcpy(text, "written by the test");
        Parcel ask, answer;
        ask.writeString16(String16("written by the test"));
        ASSERT_EQ(mService->transact(kFirstHolds, ask, &answer), NO_ERROR);
        EXPECT_EQ(answer.readInt32(), 1);

        // Both memories live in one heap: one mapping here, shared by both proxies.
        ASSERT_NE(second->pointer(), nullptr);
        EXPECT_EQ(static_cast<char*>(second->pointer()) - text,
                  second->offset() - first->offset());
        EXPECT_EQ(first->getMemory()->getBase(), second->getMemory()->getBase());
        EXPECT_EQ(countMappings("peer-heap"), 1);
        memset(second->pointer(), 0x11, second->size());  // writable to its last byte
    }
    // The last proxy gone, the mapping and its descriptor are gone too.
    EXPECT_EQ(countMappings("peer-heap"), 0);
    EXPECT_EQ(hostbinder_test::openFdCount(), fdsBefore);
}

TEST_F(MemoryAcrossProcessesTest, PeerReadsAndMarksMemoryOfThisProcess) {
    sp<MemoryDealer> dealer = new MemoryDealer(kPage, "test-heap");
    sp<IMemory> memory = dealer->allocate(64);
    ASSERT_NE(memory, nullptr);
    strcpy(static_cast<char*>(memory->pointer()), "written by the test");

    Parcel data, reply;
    data.writeStrongBinder(IInterface::asBinder(memory));
    ASSERT_EQ(mService->transact(kReadAndMark, data, &reply), NO_ERROR);
    EXPECT_EQ(String8(reply.readString16()), String8("written by the test"));
    EXPECT_STREQ(static_cast<char*>(memory->pointer()), "marked by the peer");
}
