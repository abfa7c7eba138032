/*
 * The D-Bus comparison: the same calls as method calls through a private dbus-daemon, sd-bus
 * on both ends. Sync calls are method calls with a reply; one-way calls are method calls
 * flagged as wanting no reply. Built when sd-bus is found (HOSTBINDER_BENCH_DBUS).
 */
#pragma once

#include "Children.h"

#include <cstdint>
#include <memory>
#include <string>

struct sd_bus;

namespace hostbinder_bench {

// A private bus: dbus-daemon with a configuration of its own, listening on a socket in a
// fresh temp dir. Stopped, and the dir removed, with this object.
class DBusBus {
public:
    // Null with `*why` set when dbus-daemon is not installed (`*missing` true) or does not
    // start.
    static std::unique_ptr<DBusBus> start(std::string* why, bool* missing);
    ~DBusBus();
    DBusBus(const DBusBus&) = delete;
    DBusBus& operator=(const DBusBus&) = delete;

    const std::string& address() const { return mAddress; }

private:
    DBusBus() = default;

    std::string mDir;
    std::string mAddress;
    std::unique_ptr<Helper> mDaemon;
};

// The ping service, in a helper process: takes its name on the bus at `address`, prints
// "ready" and serves until the bus goes away. Returns the exit status.
int serveDBus(const std::string& address);

// The calling side, on the benchmark's main thread.
class DBusClient {
public:
    // Null with `*why` set when it cannot connect.
    static std::unique_ptr<DBusClient> connect(const std::string& address, std::string* why);
    ~DBusClient();
    DBusClient(const DBusClient&) = delete;
    DBusClient& operator=(const DBusClient&) = delete;

    bool ping();
    // Queued; on the wire at the latest with the next call that wants a reply.
    bool oneway();
    // How many one-way calls the service has taken so far (it takes them in order, so this
    // counts every one-way call sent before).
    bool count(int64_t* count);

private:
    explicit DBusClient(sd_bus* bus) : mBus(bus) {}

    sd_bus* mBus;
};

}  // namespace hostbinder_bench
