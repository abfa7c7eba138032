// The debug interface: request and reply bytes, the permission gate, UTF-8 texts, foreign
// requests, and a privileged and an unprivileged client of a service process.
//
// The whole binary joins one private runtime, whose permission policy switches the control
// permission on and off for this process's uid.
#include "ITovarinDebug.h"
#include "ITovarinService.h"
#include "TovarinPermission.h"

#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include <hostbinder_test/Roles.h>

#include <tovarin/TovarinDiagnostics.h>
#include <tovarin/TovarinLogger.h>
#include <tovarin/TovarinOverrides.h>
#include <tovarin/Utils.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdio.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

using namespace android;
using morvel::tovarin::TovarinDiagnostics;
using morvel::tovarin::TovarinLogCapture;
using morvel::tovarin::TovarinLogLine;
using morvel::tovarin::TovarinOverrides;
using morvel::tovarin::TovarinPermission;
using morvel::tovarin::Utils;
using morvel::tovarin::binder::BnTovarinDebug;
using morvel::tovarin::binder::BpTovarinDebug;
using morvel::tovarin::binder::ITovarinDebug;
using morvel::tovarin::binder::ITovarinService;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

const char kDenyPolicy[] = "# nobody holds the control permission\n";
hostbinder_test::RuntimeInstance* gRuntime = nullptr;

class DebugRuntime : public ::testing::Environment {
public:
    void SetUp() override { gRuntime = new hostbinder_test::RuntimeInstance(kDenyPolicy); }
    void TearDown() override {
        delete gRuntime;
        gRuntime = nullptr;
    }
};

::testing::Environment* const gRuntimeEnvironment =
        ::testing::AddGlobalTestEnvironment(new DebugRuntime());

// Grants or withdraws the control permission and waits until the runtime applies it.
void setControlPermission(bool granted) {
    gRuntime->setPolicy(granted ? std::to_string(getuid()) +
                                          " com.morvel.permission.TOVARIN_CONTROL\n"
                                : kDenyPolicy);
    ASSERT_TRUE(hostbinder_test::waitUntil([granted] {
        return TovarinPermission::validateAccess(nullptr) == granted;
    })) << "the runtime did not apply the permission policy";
}

std::string hex(const Parcel& parcel) {
    std::string out;
    char byte[3];
    for (size_t i = 0; i < parcel.dataSize(); ++i) {
        snprintf(byte, sizeof(byte), "%02x", parcel.data()[i]);
        out += byte;
    }
    return out;
}

std::string textHex(const String8& text) {
    Parcel parcel;
    parcel.writeString16(String16(text));
    return hex(parcel);
}

std::string str(const String8& text) {
    return text.string();
}

std::vector<std::string> permissionErrors(const TovarinLogCapture& capture) {
    std::vector<std::string> out;
    for (const TovarinLogLine& line : capture.lines()) {
        if (line.tag == "TovarinPermission" && line.level == 6) out.push_back(line.text);
    }
    return out;
}

class DebugStubTest : public ::testing::Test {
protected:
    void SetUp() override {
        TovarinOverrides::getInstance()->set("golden.key", "v1");
        TovarinDiagnostics::getInstance(TovarinDiagnostics::ERROR)->set("golden.key", "d");
    }

    sp<BnTovarinDebug> mStub = new BnTovarinDebug();
};

struct StubCase {
    const char* method;
    uint32_t code;
    std::function<void(Parcel&)> args;
    std::string allowedReply;  // after the no-exception word
    std::string refusedReply;  // after the no-exception word
};

std::vector<StubCase> stubCases() {
    auto key = [](Parcel& p) { p.writeString16(String16("golden.key")); };
    const std::string denied = textHex(String8("PERMISSION DENIED"));
    return {
            {"getOverride", 1, key, textHex(String8("v1")), denied},
            {"getAllOverrides", 2, [](Parcel&) {},
             textHex(TovarinOverrides::getInstance()->toString()), denied},
            // The store refuses a key with '=': the reply is 0 all the same.
            {"setOverride", 3,
             [](Parcel& p) {
                 p.writeString16(String16("golden=bad"));
                 p.writeString16(String16("w"));
             },
             "00000000", "ffffffff"},
            {"clearOverride", 4, [](Parcel& p) { p.writeString16(String16("golden.absent")); }, "",
             ""},
            {"getDiagnostic", 5,
             [](Parcel& p) {
                 p.writeInt32(1);
                 p.writeString16(String16("golden.key"));
             },
             textHex(String8("d")), denied},
            {"getAllDiagnostics", 6, [](Parcel& p) { p.writeInt32(1); },
             textHex(TovarinDiagnostics::getInstance(TovarinDiagnostics::ERROR)->toString()),
             denied},
            {"setDiagnostic", 7,
             [](Parcel& p) {
                 p.writeInt32(0);
                 p.writeString16(String16("golden.other"));
                 p.writeString16(String16("w"));
             },
             "", ""},
    };
}

// Exact replies for both outcomes; a refused request is answered after the token, without
// reading its arguments, and the refusal names the operation.
TEST_F(DebugStubTest, RepliesAndPermissionGateForEveryCode) {
    for (bool granted : {true, false}) {
        setControlPermission(granted);
        for (const StubCase& c : stubCases()) {
            SCOPED_TRACE(std::string(c.method) + (granted ? " allowed" : " refused"));
            TovarinLogCapture capture;
            Parcel data, reply;
            data.writeInterfaceToken(ITovarinDebug::descriptor);
            const size_t tokenSize = data.dataSize();
            c.args(data);
            data.setDataPosition(0);
            ASSERT_EQ(OK, mStub->transact(c.code, data, &reply, 0));
            EXPECT_EQ("00000000" + (granted ? c.allowedReply : c.refusedReply), hex(reply));
            const auto errors = permissionErrors(capture);
            if (granted) {
                EXPECT_EQ(data.dataSize(), data.dataPosition()) << "every argument read";
                EXPECT_TRUE(errors.empty());
            } else {
                EXPECT_EQ(tokenSize, data.dataPosition()) << "arguments read though refused";
                ASSERT_EQ(1u, errors.size());
                EXPECT_THAT(errors[0], EndsWith(std::string("before calling ") + c.method));
            }
        }
    }
}

TEST_F(DebugStubTest, ForeignCodesAndTokens) {
    for (uint32_t code : {0u, 8u, 0x00ffffffu}) {
        SCOPED_TRACE(code);
        Parcel data, reply;
        data.writeInterfaceToken(ITovarinDebug::descriptor);
        EXPECT_EQ(UNKNOWN_TRANSACTION, mStub->transact(code, data, &reply, 0));
        EXPECT_EQ(0u, reply.dataSize());
    }
    Parcel data, reply;
    ASSERT_EQ(OK, mStub->transact(IBinder::INTERFACE_TRANSACTION, data, &reply, 0));
    EXPECT_EQ(String16(ITovarinDebug::SERVICE_NAME), reply.readString16());

    TovarinLogCapture capture;
    for (uint32_t code = 1; code <= 7; ++code) {
        SCOPED_TRACE(code);
        Parcel wrong, none, out1, out2;
        wrong.writeInterfaceToken(ITovarinService::descriptor);
        none.writeInt32(0);
        EXPECT_EQ(PERMISSION_DENIED, mStub->transact(code, wrong, &out1, 0));
        EXPECT_EQ(PERMISSION_DENIED, mStub->transact(code, none, &out2, 0));
        EXPECT_EQ(0u, out1.dataSize() + out2.dataSize());
    }
    EXPECT_TRUE(permissionErrors(capture).empty()) << "no permission check before the token";
}

TEST(DebugInterface, IdentityAndAsInterface) {
    EXPECT_STREQ("com.morvel.util.tovarin.debug.ITovarinDebugService", ITovarinDebug::SERVICE_NAME);
    EXPECT_EQ(nullptr, ITovarinDebug::asInterface(nullptr));
    sp<BnTovarinDebug> stub = new BnTovarinDebug();
    EXPECT_EQ(stub.get(), ITovarinDebug::asInterface(stub).get());
    sp<IBinder> other = new BBinder();
    sp<ITovarinDebug> proxy = ITovarinDebug::asInterface(other);
    EXPECT_NE(nullptr, dynamic_cast<BpTovarinDebug*>(proxy.get()));
    EXPECT_EQ(other.get(), IInterface::asBinder(proxy).get());
}

// Every operation through the proxy and the stub: UTF-8 keys and values both ways, the stores
// holding UTF-8, the diagnostics type honoured, a null text sent as an empty one.
TEST_F(DebugStubTest, ProxyAndStubCarryUtf8Texts) {
    setControlPermission(true);
    const sp<ITovarinDebug> proxy = new BpTovarinDebug(mStub);
    const std::vector<std::pair<std::string, std::string>> pairs = {
            {"grüße.schlüssel", "äöü ß"},
            {"ключ", "значение"},
            {"鍵", "値"},
            {"kopfhörer-🎧", "🙂 smile"},  // outside the basic plane: surrogate pairs
            {"leer", ""},
    };
    for (const auto& [key, value] : pairs) {
        SCOPED_TRACE(key);
        ASSERT_EQ(0, proxy->setOverride(key.c_str(), value.c_str()));
        EXPECT_EQ(value, str(proxy->getOverride(key.c_str())));
        std::string stored;
        TovarinOverrides::getInstance()->get(key.c_str(), &stored);
        EXPECT_EQ(value, stored) << "the store holds UTF-8";
        proxy->setDiagnostic(1, key.c_str(), value.c_str());
        EXPECT_EQ(value, str(proxy->getDiagnostic(1, key.c_str())));
        EXPECT_EQ("", str(proxy->getDiagnostic(0, key.c_str())));
        proxy->clearOverride(key.c_str());
        EXPECT_EQ("", str(proxy->getOverride(key.c_str())));
    }
    proxy->setOverride("kopfhörer-🎧", "🙂");
    EXPECT_THAT(str(proxy->getAllOverrides()), HasSubstr("kopfhörer-🎧=🙂"));
    EXPECT_THAT(str(proxy->getAllDiagnostics(1)), HasSubstr("鍵=値"));
    proxy->setDiagnostic(1, "鍵", nullptr);
    EXPECT_EQ("", str(proxy->getDiagnostic(1, "鍵")));
}

TEST_ROLE(debug_service) {
    if (defaultServiceManager()->addService(String16(ITovarinDebug::SERVICE_NAME),
                                            new BnTovarinDebug()) != OK) {
        fprintf(stderr, "cannot register the debug service\n");
        return 1;
    }
    ProcessState::self()->startThreadPool();
    hostbinder_test::ready();
    IPCThreadState::self()->joinThreadPool();
    return 0;
}

// A privileged and then an unprivileged client against a service process: the stores changed
// are the service's, and a refused client changes nothing there.
TEST(DebugAcrossProcesses, PrivilegedAndUnprivilegedClients) {
    const auto service = hostbinder_test::startRole("debug_service");
    ASSERT_TRUE(service);
    const sp<IBinder> binder =
            defaultServiceManager()->checkService(String16(ITovarinDebug::SERVICE_NAME));
    ASSERT_NE(nullptr, binder);
    ASSERT_EQ(nullptr, binder->localBinder());
    const sp<ITovarinDebug> debug = ITovarinDebug::asInterface(binder);

    setControlPermission(true);
    EXPECT_EQ(0, debug->setOverride("remote.kept", "früh"));
    EXPECT_EQ(0, debug->setOverride("remote.cleared", "x"));
    debug->clearOverride("remote.cleared");
    EXPECT_EQ("früh", str(debug->getOverride("remote.kept")));
    EXPECT_THAT(str(debug->getAllOverrides()), HasSubstr("remote.kept=früh"));
    EXPECT_THAT(str(debug->getAllOverrides()), Not(HasSubstr("remote.cleared")));
    debug->setDiagnostic(1, "remote.diag", "e1");
    EXPECT_EQ("e1", str(debug->getDiagnostic(1, "remote.diag")));
    EXPECT_EQ("", str(debug->getDiagnostic(0, "remote.diag")));
    EXPECT_THAT(str(debug->getAllDiagnostics(1)), HasSubstr("remote.diag=e1"));
    std::string local;
    EXPECT_FALSE(TovarinOverrides::getInstance()->get("remote.kept", &local));

    setControlPermission(false);
    EXPECT_EQ("PERMISSION DENIED", str(debug->getOverride("remote.kept")));
    EXPECT_EQ("PERMISSION DENIED", str(debug->getAllOverrides()));
    EXPECT_EQ("PERMISSION DENIED", str(debug->getDiagnostic(1, "remote.diag")));
    EXPECT_EQ("PERMISSION DENIED", str(debug->getAllDiagnostics(1)));
    EXPECT_EQ(-1, debug->setOverride("remote.kept", "spät"));
    debug->clearOverride("remote.kept");
    debug->setDiagnostic(1, "remote.diag", "e2");
    const std::string caller =
            str(Utils::getProcessNameFromPID(getpid())) + "(" + std::to_string(getpid()) + ")";
    EXPECT_TRUE(service->waitForOutput("Permission Error: " + caller +
                                               " must have permission "
                                               "\"com.morvel.permission.TOVARIN_CONTROL\" /> "
                                               "before calling setDiagnostic",
                                       hostbinder_test::kDeadlineMs))
            << service->output();

    setControlPermission(true);
    EXPECT_EQ("früh", str(debug->getOverride("remote.kept")));
    EXPECT_EQ("e1", str(debug->getDiagnostic(1, "remote.diag")));

    // Once the service is gone, calls read as an empty text and 0.
    service->kill();
    EXPECT_EQ(128 + SIGKILL, service->wait(hostbinder_test::kDeadlineMs));
    EXPECT_EQ("", str(debug->getOverride("remote.kept")));
    EXPECT_EQ(0, debug->setOverride("remote.kept", "x"));
}

}  // namespace
