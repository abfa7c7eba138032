/*
 * Shared memory between real processes: each test starts its own runtime instance and a peer
 * process, and checks that both sides see the same pages. The peer registers "memory.peer" and
 * serves:
 *   1 kGetMemories   reply: two IMemory of one MemoryDealer heap ("peer-heap"), the first
 *                    holding "written by the peer"
 *   2 kFirstHolds    data: String16; reply: int32 1 when the first memory holds that text
 *   3 kReadAndMark   data: IMemory; reply: String16 of the text it holds; then writes
 *                    "marked by the peer" into it
 *   4 kExit          exits with status 0 after replying
 */
#include <binder/Binder.h>
#include <binder/IMemory.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/MemoryBase.h>
#include <binder/MemoryDealer.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include <hostbinder_test/Roles.h>

#include "MemoryTestUtil.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <thread>

using namespace android;
using namespace hostbinder_memory_test;

namespace {

const int32_t kPage = static_cast<int32_t>(sysconf(_SC_PAGESIZE));

class PeerService : public BBinder {
public:
    PeerService() : mDealer(new MemoryDealer(4 * kPage, "peer-heap")) {
        mFirst = mDealer->allocate(100);
        mSecond = mDealer->allocate(2 * kPage);
        strcpy(static_cast<char*>(mFirst->pointer()), "written by the peer");
    }

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                        uint32_t flags) override {
        switch (code) {
            case kGetMemories:
                reply->writeStrongBinder(IInterface::asBinder(mFirst));
                reply->writeStrongBinder(IInterface::asBinder(mSecond));
                return NO_ERROR;
            case kFirstHolds: {
                String8 expected(data.readString16());
                reply->writeInt32(strcmp(static_cast<const char*>(mFirst->pointer()),
                                         expected.string()) == 0);
                return NO_ERROR;
            }
            case kReadAndMark: {
                sp<IMemory> memory = interface_cast<IMemory>(data.readStrongBinder());
                char* text = memory != nullptr ? static_cast<char*>(memory->pointer()) : nullptr;
                if (text == nullptr || memory->size() < 32) return BAD_VALUE;
                reply->writeString16(String16(text, strnlen(text, memory->size())));
                strcpy(text, "marked by the peer");
                return NO_ERROR;
            }
            case kExit:
                reply->writeInt32(0);
                // Leave once the reply is on its way.
                std::thread([] {
                    usleep(100 * 1000);
                    _exit(0);
                }).detach();
                return NO_ERROR;
            default:
                return BBinder::onTransact(code, data, reply, flags);
        }
    }

private:
    sp<MemoryDealer> mDealer;
    sp<IMemory> mFirst, mSecond;
};

TEST_ROLE(memory_peer) {
    if (defaultServiceManager()->addService(String16("memory.peer"), new PeerService()) != NO_ERROR) {
        fprintf(stderr, "cannot register memory.peer\n");
        return 1;
    }
    ProcessState::self()->startThreadPool();
    hostbinder_test::ready();
    IPCThreadState::self()->joinThreadPool();
    return 0;
}

class MemoryAcrossProcessesTest : public ::testing::Test {
protected:
    void SetUp() override {
        mRuntime = std::make_unique<hostbinder_test::RuntimeInstance>();
        ProcessState::self()->startThreadPool();
        mPeer = hostbinder_test::startRole("memory_peer");
        ASSERT_TRUE(mPeer);
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
