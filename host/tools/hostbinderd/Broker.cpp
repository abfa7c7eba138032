// hostbinderd's broker: its lifetime, the listening socket and the event loop.
#define LOG_TAG "hostbinderd"

#include "Broker.h"
#include "BrokerInternal.h"

#include <log/log.h>

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace android {
namespace hostbinder {

namespace {
constexpr uint64_t kListenTag = 1;
constexpr uint64_t kStopTag = 2;
}  // namespace

Broker::Broker(const BrokerOptions& options)
      : mOptions(options), mPolicy(options.permissionsFile) {
    mServiceManager.builtin = Builtin::kServiceManager;
    mPermission.builtin = Builtin::kPermission;
    mServices[u"permission"] = ServiceEntry{&mPermission};
}

Broker::~Broker() {
    for (Conn* c : mConns) {
        if (c->fd >= 0) close(c->fd);
        for (auto& chunk : c->outq) closeAll(&chunk.fds);
        delete c;
    }
    for (Conn* c : mClosing) delete c;
    for (auto& [id, parked] : mParked) closeAll(&parked.fds);
    for (auto& [pid, p] : mProcs) {
        delete p;
    }
    if (mListenFd >= 0) {
        close(mListenFd);
        unlink(mOptions.socketPath.c_str());
    }
    if (mEpollFd >= 0) close(mEpollFd);
}

int Broker::listen() {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (mOptions.socketPath.size() >= sizeof(addr.sun_path)) return -ENAMETOOLONG;
    strcpy(addr.sun_path, mOptions.socketPath.c_str());
    // A live instance already serving this path keeps it.
    int probe = connectUnix(addr.sun_path);
    if (probe >= 0) {
        close(probe);
        return -EADDRINUSE;
    }
    unlink(addr.sun_path);
    mListenFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (mListenFd < 0) return -errno;
    if (bind(mListenFd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        int e = errno;
        close(mListenFd);
        mListenFd = -1;
        return -e;
    }
    chmod(addr.sun_path, 0666);  // processes of any uid may join the instance
    if (::listen(mListenFd, SOMAXCONN) != 0) return -errno;
    mEpollFd = epoll_create1(EPOLL_CLOEXEC);
    return mEpollFd < 0 ? -errno : 0;
}

void Broker::run(int stopFd) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = kListenTag;
    epoll_ctl(mEpollFd, EPOLL_CTL_ADD, mListenFd, &ev);
    ev.data.u64 = kStopTag;
    epoll_ctl(mEpollFd, EPOLL_CTL_ADD, stopFd, &ev);

    epoll_event events[64];
    for (;;) {
        int n = epoll_wait(mEpollFd, events, 64, -1);
        if (n < 0) {
            if (errno == EINTR) continue;
            ALOGE("epoll_wait: %s", strerror(errno));
            return;
        }
        for (int i = 0; i < n; i++) {
            const uint64_t tag = events[i].data.u64;
            if (tag == kStopTag) return;
            if (tag == kListenTag) {
                acceptConnections();
            } else {
                Conn* c = reinterpret_cast<Conn*>(tag);
                if (c->closed) continue;
                const uint32_t ev = events[i].events;
                if (ev & EPOLLOUT) onWritable(c);
                if (!c->closed && (ev & (EPOLLIN | EPOLLHUP | EPOLLERR))) onReadable(c);
                if (!c->closed && c->fd >= 0 && c->hasHead &&
                    (ev & (EPOLLRDHUP | EPOLLHUP | EPOLLERR))) {
                    onHangup(c);
                }
            }
            reapDying();
        }
        for (Conn* c : mClosing) delete c;
        mClosing.clear();
    }
}


int runBroker(const BrokerOptions& options) {
    // SIGTERM and SIGINT stop the loop through a signalfd, even when the parent started this
    // process with them ignored (as shells do for background jobs).
    signal(SIGTERM, SIG_DFL);
    signal(SIGINT, SIG_DFL);
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    signal(SIGPIPE, SIG_IGN);
    int stopFd = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
    if (stopFd < 0) {
        fprintf(stderr, "hostbinderd: signalfd: %s\n", strerror(errno));
        return 1;
    }
    int status = 0;
    {
        Broker broker(options);
        int err = broker.listen();
        if (err != 0) {
            fprintf(stderr, "hostbinderd: cannot listen on %s: %s\n", options.socketPath.c_str(),
                    strerror(-err));
            close(stopFd);
            return 1;
        }
        printf("hostbinderd: ready on %s\n", options.socketPath.c_str());
        fflush(stdout);
        broker.run(stopFd);
    }
    close(stopFd);
    return status;
}

}  // namespace hostbinder
}  // namespace android
