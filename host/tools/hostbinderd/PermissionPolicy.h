/*
 * The "permission" service's policy: lines `<uid> <permission>`, `*` in the first column for
 * any uid and in the second for any permission, `#` starting a comment. The file is read again
 * whenever it changes. Without a policy file only uid 0 is granted anything.
 */
#pragma once

#include <sys/types.h>
#include <time.h>

#include <string>
#include <vector>

namespace android {
namespace hostbinder {

class PermissionPolicy {
public:
    explicit PermissionPolicy(std::string path);

    bool check(const std::string& permission, uid_t uid);

private:
    struct Rule {
        bool anyUid;
        uid_t uid;
        std::string permission;  // "*" for any
    };

    void reloadIfChanged();

    std::string mPath;
    std::vector<Rule> mRules;
    bool mLoaded = false;
    timespec mMtime{};
    off_t mSize = -1;
    ino_t mInode = 0;
};

}  // namespace hostbinder
}  // namespace android
