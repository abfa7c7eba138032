/*
 * Helpers shared by the in-process tests of the tracking service.
 */
#pragma once

#include "ITovarinService.h"
#include "RecordingFacade.h"

#include <string>
#include <vector>

namespace morvel {
namespace tovarin {
namespace testing {

// A service object over `facade`. The object and its death trackers hold each other and are
// never freed; it is kept reachable here for the rest of the process.
android::sp<binder::BnTovarinService> makeService(const android::sp<TovarinFacade>& facade);

// "name(pid)" of this process, as the service shows a caller.
std::string selfCallerString();

// Permission policy of the test runtime: `grants` are permission names given to uid 0.
std::string policyGranting(const std::vector<std::string>& grants);

// Permission policy of the shared test runtime. The runtime is started once per test binary,
// before the first test, with every permission granted to uid 0 (fullPolicy()).
void setTestPolicy(const std::string& policy);
const std::string& fullPolicy();

constexpr char kControl[] = "com.morvel.permission.TOVARIN_CONTROL";
constexpr char kDump[] = "android.permission.DUMP";

}  // namespace testing
}  // namespace tovarin
}  // namespace morvel
