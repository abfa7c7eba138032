/*
 * BnTovarinService::dump: the plain-text report for the platform's dump tool.
 */
#include "ITovarinService.h"

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <tovarin/TovarinDiagnostics.h>
#include <tovarin/TovarinOverrides.h>

#include <stdio.h>
#include <string.h>
#include <unistd.h>

namespace morvel {
namespace tovarin {
namespace binder {

using android::IPCThreadState;
using android::status_t;
using android::String16;
using android::String8;
using android::Vector;

namespace {

// One write per piece; short writes and errors are not looked at.
void writeText(int fd, const char* text, size_t length) {
    const ssize_t written = ::write(fd, text, length);
    (void)written;
}

void writeText(int fd, const String8& text) {
    writeText(fd, text.string(), text.size());
}

// A section's text, ending in the newline the report adds.
String8 sectionText(const String8& storeText) {
    String8 text(storeText);
    text.append("\n");
    return text;
}

}  // namespace

status_t BnTovarinService::dump(int fd, const Vector<String16>& /*args*/) {
    if (!android::checkCallingPermission(String16("android.permission.DUMP"))) {
        IPCThreadState* ipc = IPCThreadState::self();
        char buffer[1024];
        snprintf(buffer, sizeof(buffer),
                 "Permission Denial: can't dump Tovarin from pid=%d, uid=%d\n",
                 static_cast<int>(ipc->getCallingPid()), static_cast<int>(ipc->getCallingUid()));
        writeText(fd, buffer, strnlen(buffer, sizeof(buffer)));
        return 0;
    }

    static const char kDebugHeading[] = "Tovarin Debug Diagnostics:\n";
    writeText(fd, kDebugHeading, sizeof(kDebugHeading) - 1);
    writeText(fd,
              sectionText(TovarinDiagnostics::getInstance(TovarinDiagnostics::DEBUG)->toString()));

    const String8 errors = TovarinDiagnostics::getInstance(TovarinDiagnostics::ERROR)->toString();
    if (!errors.isEmpty()) {
        static const char kErrorHeading[] = "\nTovarin Error Diagnostics:\n";
        writeText(fd, kErrorHeading, sizeof(kErrorHeading) - 1);
        writeText(fd, sectionText(errors));
    }

    const String8 overrides = TovarinOverrides::getInstance()->toString();
    if (!overrides.isEmpty()) {
        static const char kOverridesHeading[] = "\nTovarin Overrides:\n";
        writeText(fd, kOverridesHeading, sizeof(kOverridesHeading) - 1);
        writeText(fd, sectionText(overrides));
    }
    return 0;
}

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
