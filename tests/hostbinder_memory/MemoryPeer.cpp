/*
 * The other process of the shared-memory tests. `memory_peer serve` registers "memory.peer",
 * prints READY and serves:
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

#include "MemoryTestUtil.h"

#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
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

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || strcmp(argv[1], "serve") != 0) {
        fprintf(stderr, "usage: memory_peer serve\n");
        return 2;
    }
    sp<IServiceManager> sm = defaultServiceManager();
    if (sm == nullptr || sm->addService(String16("memory.peer"), new PeerService()) != NO_ERROR) {
        fprintf(stderr, "memory_peer: cannot register memory.peer\n");
        return 1;
    }
    ProcessState::self()->startThreadPool();
    printf("READY\n");
    fflush(stdout);
    IPCThreadState::self()->joinThreadPool();
    return 0;
}
