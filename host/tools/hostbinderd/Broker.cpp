#include "Broker.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace android {
namespace hostbinder {

int runBroker(const BrokerOptions& options) {
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, options.socketPath.c_str(), sizeof(addr.sun_path) - 1);
    unlink(addr.sun_path);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(fd, 128) != 0) {
        fprintf(stderr, "hostbinderd: cannot listen on %s: %s\n", addr.sun_path, strerror(errno));
        return 1;
    }
    printf("hostbinderd ready on %s\n", addr.sun_path);
    fflush(stdout);
    int sig;
    sigwait(&mask, &sig);
    unlink(addr.sun_path);
    return 0;
}

}  // namespace hostbinder
}  // namespace android
