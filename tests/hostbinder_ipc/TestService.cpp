#include "TestService.h"

#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <utils/String8.h>

#include <hostbinder_test/Roles.h>

#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <vector>

using namespace android;

namespace hostbinder_ipc {
namespace {

void say(const std::string& line) {
    printf("%s\n", line.c_str());
    fflush(stdout);
}

int32_t threadId() {
    return static_cast<int32_t>(syscall(SYS_gettid));
}

class Tracked : public BBinder {
public:
    explicit Tracked(int id) : mId(id) {}
    ~Tracked() override { say("destroyed " + std::to_string(mId)); }

private:
    int mId;
};

class TestService : public BBinder {
public:
    // Writes "dump:" and the arguments, space-separated.
    status_t dump(int fd, const Vector<String16>& args) override {
        std::string text = "dump:";
        for (size_t i = 0; i < args.size(); i++)
            text += std::string(" ") + String8(args[i]).string();
        return dprintf(fd, "%s\n", text.c_str()) > 0 ? NO_ERROR : UNKNOWN_ERROR;
    }

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        IPCThreadState* ipc = IPCThreadState::self();
        std::unique_lock<std::mutex> lock(mLock);
        switch (code) {
            case kEcho:
                return reply->writeInt32(data.readInt32());
            case kWhoCalls:
                reply->writeInt32(ipc->getCallingPid());
                return reply->writeInt32(static_cast<int32_t>(ipc->getCallingUid()));
            case kStore:
                mStored = data.readStrongBinder();
                return NO_ERROR;
            case kGetStored:
                return reply->writeStrongBinder(mStored);
            case kIsStored: {
                sp<IBinder> b = data.readStrongBinder();
                return reply->writeInt32(b != nullptr && b == mStored ? 1 : 0);
            }
            case kOneway: {
                const int32_t sender = data.readInt32();
                const int32_t seq = data.readInt32();
                mGateOpened.wait(lock, [this] { return !mGateClosed; });
                mOnewayReceived++;
                auto it = mLastSeq.find(sender);
                if (seq != (it == mLastSeq.end() ? 0 : it->second + 1)) mOnewayOutOfOrder++;
                mLastSeq[sender] = seq;
                return NO_ERROR;
            }
            case kOnewayStats:
                reply->writeInt32(mOnewayReceived);
                return reply->writeInt32(mOnewayOutOfOrder);
            case kGate:
                mGateClosed = data.readInt32() != 0;
                mGateOpened.notify_all();
                return NO_ERROR;
            case kBounce: {
                lock.unlock();
                sp<IBinder> peer = data.readStrongBinder();
                const int32_t depth = data.readInt32();
                Parcel req, rep;
                if (depth > 0) {
                    req.writeStrongBinder(this);
                    req.writeInt32(depth - 1);
                    const status_t err = peer->transact(kBounce, req, &rep);
                    if (err != NO_ERROR) return err;
                }
                reply->writeInt32(depth > 0 ? rep.readInt32() + 1 : 0);
                reply->writeInt32(threadId());
                while (rep.dataAvail() >= 4) reply->writeInt32(rep.readInt32());
                return NO_ERROR;
            }
            case kReadFd: {
                char buf[256] = {};
                if (pread(data.readFileDescriptor(), buf, sizeof(buf) - 1, 0) < 0) return BAD_VALUE;
                return reply->writeString16(String16(buf));
            }
            case kNewObject:
                return reply->writeStrongBinder(new Tracked(mNextObject++));
            case kSleep:
                lock.unlock();
                say("sleeping");
                usleep(static_cast<useconds_t>(data.readInt32()) * 1000);
                return NO_ERROR;
            case kBlob: {
                const std::vector<uint8_t> bytes(static_cast<size_t>(data.readInt32()), 0x5a);
                return reply->write(bytes.data(), bytes.size());
            }
            case kCallerPermission: {
                lock.unlock();
                int32_t pid = 0, uid = 0;
                reply->writeInt32(checkCallingPermission(data.readString16(), &pid, &uid) ? 1 : 0);
                return reply->writeInt32(uid);
            }
            default:
                return BBinder::onTransact(code, data, reply, flags);
        }
    }

private:
    std::mutex mLock;
    std::condition_variable mGateOpened;
    bool mGateClosed = false;
    sp<IBinder> mStored;
    std::map<int32_t, int32_t> mLastSeq;
    int32_t mOnewayReceived = 0;
    int32_t mOnewayOutOfOrder = 0;
    int mNextObject = 0;
};

}  // namespace

sp<IBinder> newTestService() {
    return new TestService;
}

// serve NAME [MAXTHREADS]: publishes a TestService as NAME and serves until killed.
TEST_ROLE(serve) {
    if (args.size() > 1) ProcessState::self()->setThreadPoolMaxThreadCount(std::stoi(args[1]));
    if (defaultServiceManager()->addService(String16(args.at(0).c_str()), new TestService) !=
        NO_ERROR) {
        return 1;
    }
    ProcessState::self()->startThreadPool();
    hostbinder_test::ready();
    IPCThreadState::self()->joinThreadPool();
    return 0;
}

}  // namespace hostbinder_ipc
