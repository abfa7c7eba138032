#define LOG_TAG "hostbinderd"

#include "PermissionPolicy.h"

#include <log/log.h>

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

namespace android {
namespace hostbinder {

PermissionPolicy::PermissionPolicy(std::string path) : mPath(std::move(path)) {}

void PermissionPolicy::reloadIfChanged() {
    struct stat st {};
    if (stat(mPath.c_str(), &st) != 0) {
        if (mLoaded || mRules.size() > 0) ALOGW("policy file %s: %s", mPath.c_str(), strerror(errno));
        mRules.clear();
        mLoaded = false;
        return;
    }
    if (mLoaded && st.st_mtim.tv_sec == mMtime.tv_sec && st.st_mtim.tv_nsec == mMtime.tv_nsec &&
        st.st_size == mSize && st.st_ino == mInode) {
        return;
    }
    mRules.clear();
    mLoaded = true;
    mMtime = st.st_mtim;
    mSize = st.st_size;
    mInode = st.st_ino;
    std::ifstream in(mPath);
    std::string line;
    int lineNo = 0;
    while (std::getline(in, line)) {
        lineNo++;
        const size_t hash = line.find('#');
        if (hash != std::string::npos) line.resize(hash);
        std::istringstream fields(line);
        std::string uidField, permission, extra;
        if (!(fields >> uidField)) continue;  // blank or comment
        if (!(fields >> permission) || (fields >> extra)) {
            ALOGW("policy file %s:%d: expected `<uid> <permission>`", mPath.c_str(), lineNo);
            continue;
        }
        Rule rule{false, 0, permission};
        if (uidField == "*") {
            rule.anyUid = true;
        } else {
            char* end = nullptr;
            errno = 0;
            unsigned long v = strtoul(uidField.c_str(), &end, 10);
            if (errno != 0 || end == uidField.c_str() || *end != '\0' || v > UINT32_MAX ||
                uidField[0] == '-') {
                ALOGW("policy file %s:%d: bad uid '%s'", mPath.c_str(), lineNo, uidField.c_str());
                continue;
            }
            rule.uid = static_cast<uid_t>(v);
        }
        mRules.push_back(rule);
    }
}

bool PermissionPolicy::check(const std::string& permission, uid_t uid) {
    if (mPath.empty()) return uid == 0;
    reloadIfChanged();
    for (const Rule& r : mRules) {
        if ((r.anyUid || r.uid == uid) && (r.permission == "*" || r.permission == permission)) {
            return true;
        }
    }
    return false;
}

}  // namespace hostbinder
}  // namespace android
