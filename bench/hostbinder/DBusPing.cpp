#include "DBusPing.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <fstream>

namespace hostbinder_bench {

namespace {

constexpr const char* kName = "bench.hostbinder.Ping";
constexpr const char* kPath = "/bench/hostbinder/Ping";
constexpr const char* kInterface = "bench.hostbinder.Ping";
constexpr int kStartMs = 30000;
constexpr uint64_t kCallTimeoutUs = 10 * 1000 * 1000;
constexpr size_t kPayloadBytes = 60;  // with the int32: the raw socket's 64 bytes
constexpr int32_t kPingValue = 0x5eed;

// The session bus's limits: high enough that no benchmark message is ever refused.
constexpr const char* kConfig = R"(<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=@SOCKET@</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
    <allow own="*"/>
  </policy>
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
  <limit name="max_message_size">1000000000</limit>
  <limit name="max_replies_per_connection">50000</limit>
</busconfig>
)";

// A method call to the service, with the benchmark's payload.
sd_bus_message* newCall(sd_bus* bus, const char* member) {
    static const uint8_t payload[kPayloadBytes] = {};
    sd_bus_message* m = nullptr;
    if (sd_bus_message_new_method_call(bus, &m, kName, kPath, kInterface, member) < 0) {
        return nullptr;
    }
    if (sd_bus_message_append(m, "i", kPingValue) < 0 ||
        sd_bus_message_append_array(m, 'y', payload, sizeof(payload)) < 0) {
        sd_bus_message_unref(m);
        return nullptr;
    }
    return m;
}

// The service's object: answers Ping with its int32, counts Oneway calls, answers Count.
int onMessage(sd_bus_message* m, void* userdata, sd_bus_error* /*error*/) {
    int64_t& received = *static_cast<int64_t*>(userdata);
    if (sd_bus_message_is_method_call(m, kInterface, "Ping")) {
        int32_t value = 0;
        if (int r = sd_bus_message_read(m, "i", &value); r < 0) return r;
        return sd_bus_reply_method_return(m, "i", value);
    }
    if (sd_bus_message_is_method_call(m, kInterface, "Oneway")) {
        received++;
        return sd_bus_message_get_expect_reply(m) ? sd_bus_reply_method_return(m, "") : 1;
    }
    if (sd_bus_message_is_method_call(m, kInterface, "Count")) {
        return sd_bus_reply_method_return(m, "x", received);
    }
    return 0;  // not ours: sd-bus answers it
}

sd_bus* connectTo(const std::string& address, std::string* why) {
    sd_bus* bus = nullptr;
    int r = sd_bus_new(&bus);
    if (r >= 0) r = sd_bus_set_address(bus, address.c_str());
    if (r >= 0) r = sd_bus_set_bus_client(bus, 1);
    if (r >= 0) r = sd_bus_start(bus);
    if (r < 0) {
        *why = "cannot connect to " + address + ": " + strerror(-r);
        sd_bus_unref(bus);
        return nullptr;
    }
    return bus;
}

}  // namespace

// ---------------------------------------------------------------------------------------------

std::unique_ptr<DBusBus> DBusBus::start(std::string* why, bool* missing) {
    *missing = access(DBUS_DAEMON_PATH, X_OK) != 0;
    if (*missing) {
        *why = DBUS_DAEMON_PATH " is not installed (package dbus)";
        return nullptr;
    }
    char dirTemplate[] = "/tmp/hostbinder-bench-dbus-XXXXXX";
    if (mkdtemp(dirTemplate) == nullptr) {
        *why = std::string("mkdtemp: ") + strerror(errno);
        return nullptr;
    }
    std::unique_ptr<DBusBus> bus(new DBusBus);
    bus->mDir = dirTemplate;
    Watchdog::removeOnFire(bus->mDir);
    std::string config = kConfig;
    config.replace(config.find("@SOCKET@"), strlen("@SOCKET@"), bus->mDir + "/bus");
    std::ofstream(bus->mDir + "/bus.conf") << config;

    bus->mDaemon = std::make_unique<Helper>(
            std::vector<std::string>{DBUS_DAEMON_PATH, "--config-file=" + bus->mDir + "/bus.conf",
                                     "--nofork", "--nosyslog", "--print-address"});
    if (!bus->mDaemon->waitForLine("unix:", kStartMs, &bus->mAddress)) {
        *why = "dbus-daemon did not start: " + bus->mDaemon->output();
        return nullptr;
    }
    return bus;
}

DBusBus::~DBusBus() {
    mDaemon.reset();
    unlink((mDir + "/bus").c_str());
    unlink((mDir + "/bus.conf").c_str());
    rmdir(mDir.c_str());
}

// ---------------------------------------------------------------------------------------------

int serveDBus(const std::string& address) {
    std::string why;
    sd_bus* bus = connectTo(address, &why);
    if (bus == nullptr) {
        say("failed: %s", why.c_str());
        return 1;
    }
    int64_t received = 0;
    int r = sd_bus_add_object(bus, nullptr, kPath, onMessage, &received);
    if (r >= 0) r = sd_bus_request_name(bus, kName, 0);
    if (r < 0) {
        say("failed: cannot serve %s: %s", kName, strerror(-r));
        return 1;
    }
    say("ready");
    for (;;) {
        r = sd_bus_process(bus, nullptr);
        if (r > 0) continue;
        if (r == 0) r = sd_bus_wait(bus, UINT64_MAX);
        if (r < 0) return 0;  // the bus has gone
    }
}

// ---------------------------------------------------------------------------------------------

std::unique_ptr<DBusClient> DBusClient::connect(const std::string& address, std::string* why) {
    sd_bus* bus = connectTo(address, why);
    return bus == nullptr ? nullptr : std::unique_ptr<DBusClient>(new DBusClient(bus));
}

DBusClient::~DBusClient() {
    sd_bus_flush_close_unref(mBus);
}

bool DBusClient::ping() {
    sd_bus_message* call = newCall(mBus, "Ping");
    sd_bus_message* reply = nullptr;
    int32_t value = 0;
    const bool ok = call != nullptr &&
                    sd_bus_call(mBus, call, kCallTimeoutUs, nullptr, &reply) >= 0 &&
                    sd_bus_message_read(reply, "i", &value) >= 0 && value == kPingValue;
    sd_bus_message_unref(reply);
    sd_bus_message_unref(call);
    return ok;
}

bool DBusClient::oneway() {
    sd_bus_message* call = newCall(mBus, "Oneway");
    bool ok = call != nullptr && sd_bus_message_set_expect_reply(call, 0) >= 0;
    if (ok) {
        int r = sd_bus_send(mBus, call, nullptr);
        if (r == -ENOBUFS) {  // sd-bus's write queue is full: wait for it to drain, once
            sd_bus_flush(mBus);
            r = sd_bus_send(mBus, call, nullptr);
        }
        ok = r >= 0;
    }
    sd_bus_message_unref(call);
    return ok;
}

bool DBusClient::count(int64_t* count) {
    sd_bus_message* call = nullptr;
    sd_bus_message* reply = nullptr;
    const bool ok =
            sd_bus_message_new_method_call(mBus, &call, kName, kPath, kInterface, "Count") >= 0 &&
            sd_bus_call(mBus, call, kCallTimeoutUs, nullptr, &reply) >= 0 &&
            sd_bus_message_read(reply, "x", count) >= 0;
    sd_bus_message_unref(reply);
    sd_bus_message_unref(call);
    return ok;
}

}  // namespace hostbinder_bench
