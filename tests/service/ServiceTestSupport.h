/*
 * What the in-process and the multi-process tests of the tracking service share.
 */
#pragma once

#include <tovarin/TovarinListener.h>
#include <tovarin/Utils.h>

#include <sys/types.h>

#include <mutex>
#include <string>
#include <vector>

namespace morvel {
namespace tovarin {
namespace testing {

constexpr char kControl[] = "com.morvel.permission.TOVARIN_CONTROL";
constexpr char kDump[] = "android.permission.DUMP";

// Permission policy of a runtime instance: `grants` are permission names given to uid 0.
inline std::string policyGranting(const std::vector<std::string>& grants) {
    std::string policy;
    for (const std::string& grant : grants) policy += "0 " + grant + "\n";
    return policy;
}

// "name(pid)", as the service shows a caller.
inline std::string callerString(pid_t pid) {
    return std::string(Utils::getProcessNameFromPID(pid).string()) + "(" + std::to_string(pid) +
           ")";
}

// Keeps the state changes it is told of. Thread-safe.
class StateListener : public StateChangeListener {
public:
    void onEvent(const StateChangeEvent& event) override {
        std::lock_guard<std::mutex> guard(mLock);
        mEvents.push_back(event);
    }
    std::vector<StateChangeEvent> events() const {
        std::lock_guard<std::mutex> guard(mLock);
        return mEvents;
    }

private:
    mutable std::mutex mLock;
    std::vector<StateChangeEvent> mEvents;
};

class IgnoringRawListener : public RawDataListener {
public:
    void onEvent(const RawDataEvent&) override {}
};

}  // namespace testing
}  // namespace tovarin
}  // namespace morvel
