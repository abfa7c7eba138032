/*
 * The service process of the tool tests. `tools_test_service` registers two services and
 * prints READY:
 *   "tools.echo" (descriptor "hostbinder.test.IEcho"):
 *       code 1 answers with the call's data after the interface token, byte for byte;
 *       code 2 fails with BAD_VALUE; code 3 exits the process after replying.
 *       Its dump writes "echo dump:" and the arguments, space-separated, on one line;
 *       "big" as first argument writes kBigDumpBytes bytes instead, "hang" waits 2 s first,
 *       "fail" writes nothing and fails with BAD_VALUE.
 *   "tools.other": a plain binder with no descriptor and an empty dump.
 */
#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include "ToolsTestProtocol.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <thread>

using namespace android;

namespace {

bool writeAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

class EchoService : public BBinder {
public:
    const String16& getInterfaceDescriptor() const override { return mDescriptor; }

    status_t dump(int fd, const Vector<String16>& args) override {
        if (!args.isEmpty() && args[0] == String16("big")) {
            std::string line(63, 'x');
            line += '\n';
            std::string text;
            while (text.size() < tools_test::kBigDumpBytes) text += line;
            return writeAll(fd, text) ? NO_ERROR : UNKNOWN_ERROR;
        }
        if (!args.isEmpty() && args[0] == String16("hang")) sleep(2);
        if (!args.isEmpty() && args[0] == String16("fail")) return BAD_VALUE;
        std::string text = "echo dump:";
        for (const String16& arg : args) text += " " + std::string(String8(arg).string());
        text += '\n';
        return writeAll(fd, text) ? NO_ERROR : UNKNOWN_ERROR;
    }

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                        uint32_t flags) override {
        switch (code) {
            case tools_test::kEcho: {
                if (!data.enforceInterface(mDescriptor)) return PERMISSION_DENIED;
                const size_t start = data.dataPosition();
                return reply->appendFrom(&data, start, data.dataSize() - start);
            }
            case tools_test::kFail:
                return BAD_VALUE;
            case tools_test::kExit:
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
    const String16 mDescriptor{tools_test::kEchoDescriptor};
};

}  // namespace

int main() {
    sp<IServiceManager> sm = defaultServiceManager();
    if (sm == nullptr || sm->addService(String16("tools.echo"), new EchoService()) != NO_ERROR ||
        sm->addService(String16("tools.other"), new BBinder()) != NO_ERROR) {
        fprintf(stderr, "tools_test_service: cannot register its services\n");
        return 1;
    }
    ProcessState::self()->startThreadPool();
    printf("READY\n");
    fflush(stdout);
    IPCThreadState::self()->joinThreadPool();
    return 0;
}
