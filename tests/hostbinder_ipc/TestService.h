/*
 * The codes the service of role "serve" answers: one per behaviour under test.
 */
#pragma once

#include <binder/IBinder.h>

namespace hostbinder_ipc {

enum : uint32_t {
    kEcho = 1,          // int32 -> same int32
    kWhoCalls,          // -> int32 calling pid, int32 calling uid
    kStore,             // strong binder -> kept
    kGetStored,         // -> the kept binder
    kIsStored,          // strong binder -> int32 (1: it is the kept one)
    kOneway,            // one-way: int32 sender, int32 sequence; waits while the gate is closed
    kOnewayStats,       // -> int32 received, int32 out of order (per sender)
    kGate,              // int32 1: kOneway calls wait from now on; 0: they go on
    kBounce,            // binder peer, int32 depth -> hop count, then each hop's serving thread
    kReadFd,            // fd -> String16 of the file's first bytes
    kNewObject,         // -> a fresh object; the service prints "destroyed <n>" when it dies
    kSleep,             // int32 ms; prints "sleeping" first
    kBlob,              // int32 size -> that many bytes
    kCallerPermission,  // String16 permission -> int32 granted to the caller, int32 its uid
};

}  // namespace hostbinder_ipc
