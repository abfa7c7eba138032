/*
 * The service the multi-process tests talk to: a plain BBinder with one code per behaviour
 * under test.
 */
#pragma once

#include <binder/Binder.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>

#include <map>
#include <string>
#include <vector>

namespace hostbinder_ipc {

enum : uint32_t {
    kEcho = 1,            // int32 -> same int32
    kWhoCalls,            // -> int32 calling pid, int32 calling uid
    kStore,               // strong binder -> stored
    kGetStored,           // -> the stored binder
    kClearStored,         // drops the stored binder
    kIsStored,            // strong binder -> int32 (1: it is the stored one)
    kOneway,              // one-way: int32 sender, int32 sequence
    kOnewayStats,         // -> int32 received, int32 out of order
    kBounce,              // binder peer, int32 depth -> int32 tid chain length; calls peer
    kReadFd,              // fd -> String16 of the file's first bytes
    kNewObject,           // -> a fresh local object; prints "destroyed <n>" when it dies
    kSleep,               // int32 ms, then reply
    kBlob,                // int32 size -> that many bytes
    kCallStored,          // int32 code -> forwards a kEcho/kWhoCalls to the stored binder
    kLinkStored,          // links death recipients (int32 count) on the stored binder
    kDeathLog,            // -> String16 of the death notices seen ("0,1,2")
    kThreadId,            // -> int32 gettid of the serving thread
    kCallerPermission,    // String16 permission -> int32 granted to the caller, int32 its uid
    kGate,                // int32 1: kOneway calls wait from now on; 0: they go on
};

// Prints "destroyed <id>" on stdout when the last strong reference goes.
class Tracked : public android::BBinder {
public:
    explicit Tracked(int id) : mId(id) {}
    ~Tracked() override;

private:
    int mId;
};

class TestService : public android::BBinder {
public:
    TestService();
    // Writes "dump:" and the arguments, space-separated, to `fd`.
    android::status_t dump(int fd, const android::Vector<android::String16>& args) override;

protected:
    android::status_t onTransact(uint32_t code, const android::Parcel& data,
                                 android::Parcel* reply, uint32_t flags) override;

private:
    class Recipient;

    android::Mutex mLock;
    android::Condition mGateOpened;
    bool mGateClosed = false;
    android::sp<android::IBinder> mStored;
    std::map<int32_t, int32_t> mLastSeq;
    int32_t mOnewayReceived = 0;
    int32_t mOnewayOutOfOrder = 0;
    int mNextObject = 0;
    std::string mDeathLog;
    std::vector<android::sp<android::IBinder::DeathRecipient>> mRecipients;
};

}  // namespace hostbinder_ipc
