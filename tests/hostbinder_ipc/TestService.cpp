#include "TestService.h"

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <utils/String8.h>

#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <vector>

using namespace android;

namespace hostbinder_ipc {

Tracked::~Tracked() {
    printf("destroyed %d\n", mId);
    fflush(stdout);
}

class TestService::Recipient : public IBinder::DeathRecipient {
public:
    Recipient(TestService* owner, int index) : mOwner(owner), mIndex(index) {}
    void binderDied(const wp<IBinder>&) override {
        Mutex::Autolock _l(mOwner->mLock);
        if (!mOwner->mDeathLog.empty()) mOwner->mDeathLog += ",";
        mOwner->mDeathLog += std::to_string(mIndex);
    }

private:
    TestService* mOwner;
    int mIndex;
};

TestService::TestService() {}

status_t TestService::dump(int fd, const Vector<String16>& args) {
    std::string text = "dump:";
    for (size_t i = 0; i < args.size(); i++) {
        text += " ";
        text += String8(args[i]).string();
    }
    text += "\n";
    return write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? NO_ERROR
                                                                                    : UNKNOWN_ERROR;
}

status_t TestService::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                 uint32_t flags) {
    IPCThreadState* ipc = IPCThreadState::self();
    switch (code) {
        case kEcho:
            return reply->writeInt32(data.readInt32());
        case kWhoCalls:
            reply->writeInt32(ipc->getCallingPid());
            return reply->writeInt32(static_cast<int32_t>(ipc->getCallingUid()));
        case kStore: {
            sp<IBinder> b = data.readStrongBinder();
            Mutex::Autolock _l(mLock);
            mStored = b;
            return NO_ERROR;
        }
        case kGetStored: {
            Mutex::Autolock _l(mLock);
            return reply->writeStrongBinder(mStored);
        }
        case kClearStored: {
            sp<IBinder> old;
            {
                Mutex::Autolock _l(mLock);
                old = mStored;
                mStored.clear();
            }
            return NO_ERROR;
        }
        case kIsStored: {
            sp<IBinder> b = data.readStrongBinder();
            Mutex::Autolock _l(mLock);
            return reply->writeInt32(b != nullptr && b == mStored ? 1 : 0);
        }
        case kOneway: {
            const int32_t sender = data.readInt32();
            const int32_t seq = data.readInt32();
            Mutex::Autolock _l(mLock);
            while (mGateClosed) mGateOpened.wait(mLock);
            mOnewayReceived++;
            auto it = mLastSeq.find(sender);
            const int32_t expected = it == mLastSeq.end() ? 0 : it->second + 1;
            if (seq != expected) mOnewayOutOfOrder++;
            mLastSeq[sender] = seq;
            return NO_ERROR;
        }
        case kOnewayStats: {
            Mutex::Autolock _l(mLock);
            reply->writeInt32(mOnewayReceived);
            return reply->writeInt32(mOnewayOutOfOrder);
        }
        case kBounce: {
            // Calls the peer back with depth-1. The reply is the hop count, then the serving
            // thread of this hop and of every hop below it.
            sp<IBinder> peer = data.readStrongBinder();
            const int32_t depth = data.readInt32();
            const int32_t tid = static_cast<int32_t>(syscall(SYS_gettid));
            if (depth <= 0 || peer == nullptr) {
                reply->writeInt32(0);
                return reply->writeInt32(tid);
            }
            Parcel req, rep;
            req.writeStrongBinder(this);
            req.writeInt32(depth - 1);
            status_t err = peer->transact(kBounce, req, &rep);
            if (err != NO_ERROR) return err;
            reply->writeInt32(rep.readInt32() + 1);
            reply->writeInt32(tid);
            while (rep.dataAvail() >= 4) reply->writeInt32(rep.readInt32());
            return NO_ERROR;
        }
        case kReadFd: {
            int fd = data.readFileDescriptor();
            if (fd < 0) return BAD_VALUE;
            char buf[256] = {};
            ssize_t n = pread(fd, buf, sizeof(buf) - 1, 0);
            if (n < 0) return UNKNOWN_ERROR;
            return reply->writeString16(String16(buf));
        }
        case kNewObject: {
            int id;
            {
                Mutex::Autolock _l(mLock);
                id = mNextObject++;
            }
            return reply->writeStrongBinder(new Tracked(id));
        }
        case kSleep:
            usleep(static_cast<useconds_t>(data.readInt32()) * 1000);
            return reply->writeInt32(1);
        case kBlob: {
            const int32_t size = data.readInt32();
            if (size < 0) return BAD_VALUE;
            std::vector<uint8_t> bytes(static_cast<size_t>(size), 0x5a);
            reply->write(bytes.data(), bytes.size());
            return NO_ERROR;
        }
        case kCallStored: {
            const uint32_t inner = static_cast<uint32_t>(data.readInt32());
            sp<IBinder> target;
            {
                Mutex::Autolock _l(mLock);
                target = mStored;
            }
            if (target == nullptr) return NAME_NOT_FOUND;
            Parcel req, rep;
            req.writeInt32(data.readInt32());
            status_t err = target->transact(inner, req, &rep);
            if (err != NO_ERROR) return err;
            reply->writeInt32(rep.readInt32());
            return reply->writeInt32(rep.readInt32());
        }
        case kLinkStored: {
            const int32_t count = data.readInt32();
            sp<IBinder> target;
            {
                Mutex::Autolock _l(mLock);
                target = mStored;
            }
            if (target == nullptr) return NAME_NOT_FOUND;
            for (int32_t i = 0; i < count; i++) {
                sp<IBinder::DeathRecipient> r = new Recipient(this, i);
                status_t err = target->linkToDeath(r);
                if (err != NO_ERROR) return err;
                Mutex::Autolock _l(mLock);
                mRecipients.push_back(r);
            }
            return NO_ERROR;
        }
        case kDeathLog: {
            Mutex::Autolock _l(mLock);
            return reply->writeString16(String16(mDeathLog.c_str()));
        }
        case kCallerPermission: {
            int32_t pid = 0, uid = 0;
            const bool granted = checkCallingPermission(data.readString16(), &pid, &uid);
            reply->writeInt32(granted ? 1 : 0);
            return reply->writeInt32(uid);
        }
        case kGate: {
            Mutex::Autolock _l(mLock);
            mGateClosed = data.readInt32() != 0;
            if (!mGateClosed) mGateOpened.broadcast();
            return NO_ERROR;
        }
        case kThreadId:
            return reply->writeInt32(static_cast<int32_t>(syscall(SYS_gettid)));
        default:
            return BBinder::onTransact(code, data, reply, flags);
    }
}

}  // namespace hostbinder_ipc
