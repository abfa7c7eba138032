// The debug interface: request and reply bytes, the permission gate, UTF-8 texts, hostile
// parcels, and a privileged and an unprivileged client of a real service process.
//
// The whole binary joins one private runtime, whose permission policy switches the control
// permission on and off for this process's uid.
#include "ITovarinDebug.h"
#include "ITovarinService.h"
#include "TovarinPermission.h"

#include <binder/Binder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include <hostbinder_test/Runtime.h>

#include <tovarin/TovarinDiagnostics.h>
#include <tovarin/TovarinLogger.h>
#include <tovarin/TovarinOverrides.h>
#include <tovarin/Utils.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <functional>
#include <random>
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

hostbinder_test::RuntimeInstance* gRuntime = nullptr;

std::string denyPolicy() {
    return "# nobody holds the control permission\n";
}

std::string grantPolicy() {
    return std::to_string(getuid()) + " com.morvel.permission.TOVARIN_CONTROL\n";
}

class DebugRuntime : public ::testing::Environment {
public:
    void SetUp() override { gRuntime = new hostbinder_test::RuntimeInstance(denyPolicy()); }
    void TearDown() override {
        delete gRuntime;
        gRuntime = nullptr;
    }
};

::testing::Environment* const gRuntimeEnvironment =
        ::testing::AddGlobalTestEnvironment(new DebugRuntime());

// Grants or withdraws the control permission and waits until the runtime applies it.
void setControlPermission(bool granted) {
    gRuntime->setPolicy(granted ? grantPolicy() : denyPolicy());
    for (int i = 0; i < 500; ++i) {
        if (TovarinPermission::validateAccess(nullptr) == granted) return;
        usleep(10 * 1000);
    }
    FAIL() << "the runtime did not apply the permission policy";
}

std::string hex(const uint8_t* data, size_t size) {
    std::string out;
    char byte[3];
    for (size_t i = 0; i < size; ++i) {
        snprintf(byte, sizeof(byte), "%02x", data[i]);
        out += byte;
    }
    return out;
}

std::string hex(const Parcel& parcel) {
    return hex(parcel.data(), parcel.dataSize());
}

// The String16 wire form of an ASCII text, spelled out independently of Parcel.
std::string string16Hex(const std::string& ascii) {
    char count[9];
    snprintf(count, sizeof(count), "%02x%02x%02x%02x", unsigned(ascii.size() & 0xff),
             unsigned((ascii.size() >> 8) & 0xff), 0u, 0u);
    std::string out = count;
    for (char c : ascii) {
        char unit[5];
        snprintf(unit, sizeof(unit), "%02x00", static_cast<unsigned char>(c));
        out += unit;
    }
    out += "0000";
    if ((ascii.size() + 1) % 2 != 0) out += "0000";
    return out;
}

const std::string kDeniedHex = string16Hex("PERMISSION DENIED");

size_t tokenSize() {
    Parcel token;
    token.writeInterfaceToken(ITovarinDebug::descriptor);
    return token.dataSize();
}

std::vector<std::string> permissionErrors(const TovarinLogCapture& capture) {
    std::vector<std::string> out;
    for (const TovarinLogLine& line : capture.lines()) {
        if (line.tag == "TovarinPermission" && line.level == 6) out.push_back(line.text);
    }
    return out;
}

// A binder that records the request it gets and answers with a prepared reply and status.
class RecordingBinder : public BBinder {
public:
    std::string requestHex;
    uint32_t lastCode = 0;
    std::vector<uint8_t> replyBytes;
    status_t replyStatus = OK;

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t) override {
        lastCode = code;
        requestHex = hex(data);
        reply->setData(replyBytes.data(), replyBytes.size());
        return replyStatus;
    }
};

std::vector<uint8_t> bytesOf(const std::function<void(Parcel&)>& write) {
    Parcel parcel;
    write(parcel);
    return std::vector<uint8_t>(parcel.data(), parcel.data() + parcel.dataSize());
}

class DebugStubTest : public ::testing::Test {
protected:
    void SetUp() override {
        TovarinOverrides::getInstance()->set("golden.key", "v1");
        TovarinDiagnostics::getInstance(TovarinDiagnostics::ERROR)->set("golden.key", "d");
    }

    status_t call(uint32_t code, const std::function<void(Parcel&)>& args, Parcel* reply,
                  size_t* readTo = nullptr) {
        Parcel data;
        data.writeInterfaceToken(ITovarinDebug::descriptor);
        args(data);
        const status_t status = mStub->transact(code, data, reply, 0);
        if (readTo != nullptr) *readTo = data.dataPosition();
        return status;
    }

    sp<BnTovarinDebug> mStub = new BnTovarinDebug();
};

const char kAnyText[] = "*";

struct StubCase {
    const char* method;
    uint32_t code;
    std::function<void(Parcel&)> args;
    std::string allowedReply;  // after the no-exception word; kAnyText when not fixed here
    std::string refusedReply;  // after the no-exception word
};

std::vector<StubCase> stubCases() {
    auto key = [](Parcel& p) { p.writeString16(String16("golden.key")); };
    return {
            {"getOverride", 1, key, string16Hex("v1"), kDeniedHex},
            {"getAllOverrides", 2, [](Parcel&) {}, kAnyText, kDeniedHex},
            {"setOverride", 3,
             [](Parcel& p) {
                 p.writeString16(String16("golden.other"));
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
             string16Hex("d"), kDeniedHex},
            {"getAllDiagnostics", 6, [](Parcel& p) { p.writeInt32(1); }, kAnyText, kDeniedHex},
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
            Parcel reply;
            size_t readTo = 0;
            ASSERT_EQ(OK, call(c.code, c.args, &reply, &readTo));
            const std::string got = hex(reply);
            ASSERT_GE(got.size(), 8u);
            EXPECT_EQ("00000000", got.substr(0, 8)) << "no-exception word first";
            const std::string& expected = granted ? c.allowedReply : c.refusedReply;
            if (expected != kAnyText) {
                EXPECT_EQ(expected, got.substr(8));
            }
            if (granted) {
                Parcel request;
                request.writeInterfaceToken(ITovarinDebug::descriptor);
                c.args(request);
                EXPECT_EQ(request.dataSize(), readTo) << "every argument read";
                EXPECT_TRUE(permissionErrors(capture).empty());
            } else {
                EXPECT_EQ(tokenSize(), readTo) << "a refused request's arguments are not read";
                const auto errors = permissionErrors(capture);
                ASSERT_EQ(1u, errors.size());
                EXPECT_THAT(errors[0], EndsWith(std::string("before calling ") + c.method));
            }
        }
    }
}

TEST_F(DebugStubTest, WholeStoreTextsAreTheStoresOwn) {
    setControlPermission(true);
    Parcel overrides, diagnostics;
    ASSERT_EQ(OK, call(
                          2, [](Parcel&) {}, &overrides));
    ASSERT_EQ(OK, call(
                          6, [](Parcel& p) { p.writeInt32(1); }, &diagnostics));
    overrides.setDataPosition(4);
    diagnostics.setDataPosition(4);
    EXPECT_EQ(std::string(TovarinOverrides::getInstance()->toString().string()),
              String8(overrides.readString16()).string());
    EXPECT_EQ(std::string(TovarinDiagnostics::getInstance(TovarinDiagnostics::ERROR)
                                  ->toString()
                                  .string()),
              String8(diagnostics.readString16()).string());
}

TEST_F(DebugStubTest, RefusedCallerChangesNothing) {
    setControlPermission(true);
    const sp<ITovarinDebug> proxy = new BpTovarinDebug(mStub);
    ASSERT_EQ(0, proxy->setOverride("refused.kept", "1"));
    proxy->setDiagnostic(0, "refused.kept", "1");

    setControlPermission(false);
    EXPECT_EQ(-1, proxy->setOverride("refused.kept", "2"));
    EXPECT_EQ(-1, proxy->setOverride("refused.new", "2"));
    proxy->clearOverride("refused.kept");
    proxy->setDiagnostic(0, "refused.kept", "2");
    EXPECT_EQ("PERMISSION DENIED", std::string(proxy->getOverride("refused.kept").string()));
    EXPECT_EQ("PERMISSION DENIED", std::string(proxy->getAllDiagnostics(1).string()));

    setControlPermission(true);
    EXPECT_EQ("1", std::string(proxy->getOverride("refused.kept").string()));
    EXPECT_EQ("", std::string(proxy->getOverride("refused.new").string()));
    EXPECT_EQ("1", std::string(proxy->getDiagnostic(0, "refused.kept").string()));
}

TEST_F(DebugStubTest, SetOverrideAnswersZeroWhateverTheStoreDid) {
    setControlPermission(true);
    const int storeAnswer = TovarinOverrides::getInstance()->set(nullptr, "v");
    EXPECT_EQ(0, mStub->setOverride(nullptr, "v"));
    EXPECT_NE(0, storeAnswer) << "the store was expected to reject a null key";
}

TEST_F(DebugStubTest, ForeignCodesAndTokens) {
    for (uint32_t code : {0u, 8u, 0x00ffffffu}) {
        SCOPED_TRACE(code);
        Parcel reply;
        EXPECT_EQ(UNKNOWN_TRANSACTION, call(
                                               code, [](Parcel&) {}, &reply));
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
        EXPECT_EQ(0u, out1.dataSize());
        EXPECT_EQ(0u, out2.dataSize());
    }
    EXPECT_TRUE(permissionErrors(capture).empty()) << "no permission check before the token";
}

TEST(DebugInterface, IdentityAndAsInterface) {
    EXPECT_STREQ("com.morvel.util.tovarin.debug.ITovarinDebugService", ITovarinDebug::SERVICE_NAME);
    EXPECT_EQ(String16(ITovarinDebug::SERVICE_NAME), ITovarinDebug::descriptor);

    EXPECT_EQ(nullptr, ITovarinDebug::asInterface(nullptr));
    sp<BnTovarinDebug> stub = new BnTovarinDebug();
    EXPECT_EQ(stub.get(), ITovarinDebug::asInterface(stub).get());
    EXPECT_EQ(ITovarinDebug::descriptor, stub->getInterfaceDescriptor());
    sp<RecordingBinder> other = new RecordingBinder();
    sp<ITovarinDebug> proxy = ITovarinDebug::asInterface(other);
    ASSERT_NE(nullptr, proxy);
    EXPECT_NE(nullptr, dynamic_cast<BpTovarinDebug*>(proxy.get()));
    EXPECT_EQ(other.get(), IInterface::asBinder(proxy).get());
}

// The proxy's request layouts (UTF-8 in, String16 on the wire) and its reading of replies,
// including an empty reply after a transport failure.
TEST(DebugProxy, RequestLayoutsAndReplies) {
    sp<RecordingBinder> binder = new RecordingBinder();
    sp<ITovarinDebug> proxy = new BpTovarinDebug(binder);
    Parcel token;
    token.writeInterfaceToken(ITovarinDebug::descriptor);
    const std::string tokenHex = hex(token);
    const std::string eAcute = "01000000e9000000";  // "é": one UTF-16 unit, NUL, padding

    struct ProxyCase {
        uint32_t code;
        std::function<std::string(ITovarinDebug&)> run;
        std::string requestHex;  // after the token
        std::function<void(Parcel&)> reply;
        std::string result;
    };
    const std::vector<ProxyCase> cases = {
            {1, [](ITovarinDebug& d) { return std::string(d.getOverride("é").string()); }, eAcute,
             [](Parcel& p) {
                 p.writeNoException();
                 p.writeString16(String16("ü"));
             },
             "ü"},
            {2, [](ITovarinDebug& d) { return std::string(d.getAllOverrides().string()); }, "",
             [](Parcel& p) {
                 p.writeNoException();
                 p.writeString16(String16("a=1\n"));
             },
             "a=1\n"},
            {3, [](ITovarinDebug& d) { return std::to_string(d.setOverride("é", "x")); },
             eAcute + "0100000078000000",
             [](Parcel& p) {
                 p.writeNoException();
                 p.writeInt32(-1);
             },
             "-1"},
            {4,
             [](ITovarinDebug& d) {
                 d.clearOverride("é");
                 return std::string("-");
             },
             eAcute, [](Parcel& p) { p.writeNoException(); }, "-"},
            {5, [](ITovarinDebug& d) { return std::string(d.getDiagnostic(-5, "é").string()); },
             "fbffffff" + eAcute,
             [](Parcel& p) {
                 p.writeNoException();
                 p.writeString16(String16("v"));
             },
             "v"},
            {6, [](ITovarinDebug& d) { return std::string(d.getAllDiagnostics(1).string()); },
             "01000000",
             [](Parcel& p) {
                 p.writeNoException();
                 p.writeString16(String16("k=v\n"));
             },
             "k=v\n"},
            {7,
             [](ITovarinDebug& d) {
                 d.setDiagnostic(0, "é", nullptr);
                 return std::string("-");
             },
             "00000000" + eAcute + "0000000000000000", [](Parcel& p) { p.writeNoException(); },
             "-"},
    };
    for (const ProxyCase& c : cases) {
        SCOPED_TRACE(c.code);
        binder->replyBytes = bytesOf(c.reply);
        binder->replyStatus = OK;
        EXPECT_EQ(c.result, c.run(*proxy));
        EXPECT_EQ(c.code, binder->lastCode);
        EXPECT_EQ(tokenHex + c.requestHex, binder->requestHex);
    }

    // A dead service: the status is not examined and the empty reply reads as empty / 0.
    binder->replyBytes.clear();
    binder->replyStatus = DEAD_OBJECT;
    EXPECT_EQ("", std::string(proxy->getOverride("k").string()));
    EXPECT_EQ("", std::string(proxy->getAllDiagnostics(0).string()));
    EXPECT_EQ(0, proxy->setOverride("k", "v"));
}

// UTF-8 keys and values, through the proxy and the stub's conversions in both directions.
TEST_F(DebugStubTest, NonAsciiTextsRoundTrip) {
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
        EXPECT_EQ(value, std::string(proxy->getOverride(key.c_str()).string()));
        std::string stored;
        TovarinOverrides::getInstance()->get(key.c_str(), &stored);
        EXPECT_EQ(value, stored) << "the store holds UTF-8";
        proxy->setDiagnostic(0, key.c_str(), value.c_str());
        EXPECT_EQ(value, std::string(proxy->getDiagnostic(0, key.c_str()).string()));
        proxy->clearOverride(key.c_str());
        EXPECT_EQ("", std::string(proxy->getOverride(key.c_str()).string()));
    }
    proxy->setOverride("kopfhörer-🎧", "🙂");
    EXPECT_THAT(std::string(proxy->getAllOverrides().string()), HasSubstr("kopfhörer-🎧=🙂"));
    EXPECT_THAT(std::string(proxy->getAllDiagnostics(0).string()), HasSubstr("鍵=値"));
}

// Random requests to every code, allowed and refused, never crash the stub and always get the
// no-exception word once the token matched.
TEST_F(DebugStubTest, RandomParcelsNeverCrash) {
    std::mt19937 random(20261122);
    // A thousand refusals would each write an error line.
    morvel::tovarin::TovarinLogger::getInstance()->configure("TovarinPermission:S");
    for (bool granted : {true, false}) {
        setControlPermission(granted);
        for (int i = 0; i < 1500; ++i) {
            const uint32_t code = random() % 10;
            Parcel data, reply;
            const bool token = random() % 5 != 0;
            if (token) data.writeInterfaceToken(ITovarinDebug::descriptor);
            const int items = random() % 6;
            for (int k = 0; k < items; ++k) {
                switch (random() % 5) {
                    case 0:
                        data.writeInt32(static_cast<int32_t>(random()));
                        break;
                    case 1:
                        data.writeInt32(-1 - static_cast<int32_t>(random() % 3));
                        break;
                    case 2:
                        data.writeInt32(0x7fffffff);
                        break;
                    case 3: {
                        std::u16string text(random() % 40, u'\0');
                        for (auto& unit : text) unit = static_cast<char16_t>(random());
                        data.writeString16(text.data(), text.size());
                        break;
                    }
                    default: {
                        uint8_t junk[13];
                        for (auto& b : junk) b = static_cast<uint8_t>(random());
                        data.write(junk, random() % sizeof(junk));
                    }
                }
            }
            const status_t status = mStub->transact(code, data, &reply, 0);
            if (token && code >= 1 && code <= 7) {
                ASSERT_EQ(OK, status);
                ASSERT_GE(reply.dataSize(), 4u);
                reply.setDataPosition(0);
                ASSERT_EQ(0, reply.readInt32());
            }
        }
    }
    morvel::tovarin::TovarinLogger::getInstance()->reset();
}

// A privileged and then an unprivileged client against a service process.
TEST(DebugAcrossProcesses, PrivilegedAndUnprivilegedClients) {
    const char* servicePath = getenv("TOVARIN_DEBUG_SERVICE");
    ASSERT_NE(nullptr, servicePath);
    hostbinder_test::ChildProcess service({servicePath});
    ASSERT_TRUE(service.waitForOutput("READY", 10000)) << service.output();
    const sp<IBinder> binder =
            defaultServiceManager()->checkService(String16(ITovarinDebug::SERVICE_NAME));
    ASSERT_NE(nullptr, binder);
    ASSERT_EQ(nullptr, binder->localBinder());
    const sp<ITovarinDebug> debug = ITovarinDebug::asInterface(binder);

    setControlPermission(true);
    EXPECT_EQ(0, debug->setOverride("remote.kept", "früh"));
    EXPECT_EQ(0, debug->setOverride("remote.cleared", "x"));
    debug->clearOverride("remote.cleared");
    EXPECT_EQ("früh", std::string(debug->getOverride("remote.kept").string()));
    EXPECT_EQ("", std::string(debug->getOverride("remote.cleared").string()));
    EXPECT_THAT(std::string(debug->getAllOverrides().string()), HasSubstr("remote.kept=früh"));
    EXPECT_THAT(std::string(debug->getAllOverrides().string()), Not(HasSubstr("remote.cleared")));
    debug->setDiagnostic(1, "remote.diag", "e1");
    EXPECT_EQ("e1", std::string(debug->getDiagnostic(1, "remote.diag").string()));
    EXPECT_EQ("", std::string(debug->getDiagnostic(0, "remote.diag").string()));
    EXPECT_THAT(std::string(debug->getAllDiagnostics(1).string()), HasSubstr("remote.diag=e1"));
    std::string local;
    EXPECT_FALSE(TovarinOverrides::getInstance()->get("remote.kept", &local))
            << "the stores changed are the service process's";

    setControlPermission(false);
    EXPECT_EQ("PERMISSION DENIED", std::string(debug->getOverride("remote.kept").string()));
    EXPECT_EQ("PERMISSION DENIED", std::string(debug->getAllOverrides().string()));
    EXPECT_EQ("PERMISSION DENIED", std::string(debug->getDiagnostic(1, "remote.diag").string()));
    EXPECT_EQ("PERMISSION DENIED", std::string(debug->getAllDiagnostics(1).string()));
    EXPECT_EQ(-1, debug->setOverride("remote.kept", "spät"));
    debug->clearOverride("remote.kept");
    debug->setDiagnostic(1, "remote.diag", "e2");
    const std::string caller = std::string(Utils::getProcessNameFromPID(getpid()).string()) + "(" +
                               std::to_string(getpid()) + ")";
    EXPECT_TRUE(service.waitForOutput(
            "Permission Error: " + caller +
                    " must have permission \"com.morvel.permission.TOVARIN_CONTROL\" /> before "
                    "calling setDiagnostic",
            5000))
            << service.output();

    setControlPermission(true);
    EXPECT_EQ("früh", std::string(debug->getOverride("remote.kept").string()));
    EXPECT_EQ("e1", std::string(debug->getDiagnostic(1, "remote.diag").string()));
}

}  // namespace
