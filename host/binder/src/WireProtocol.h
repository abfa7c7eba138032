/*
 * hostbinder's wire protocol between a process and the runtime (hostbinderd).
 *
 * Every connection is a SOCK_STREAM Unix socket carrying frames: a FrameHeader, then `size`
 * payload bytes. File descriptors travel as SCM_RIGHTS on the frame's first byte; the header's
 * fdCount says how many belong to the frame, and they are taken from the connection's queue of
 * received descriptors in order. Every payload struct below is fixed-width, padding-free and a
 * multiple of 8 bytes (the header is 16), so that the object offsets following a transaction's fixed part are
 * 8-byte aligned in a frame buffer. All integers are little-endian (host order on every
 * platform this runs on). docs/wire-protocol.md describes each frame.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace android {
namespace hostbinder {

constexpr uint32_t kWireMagic = 0x444e4248;  // "HBND"
constexpr uint32_t kWireVersion = 3;

// The largest transaction (data plus object offsets): 1 MB less two pages, as the kernel
// driver's buffer.
constexpr size_t kMaxTransactionBytes = 1024 * 1024 - 2 * 4096;
constexpr size_t kFlatObjectSize = 24;
constexpr size_t kMaxFdsPerFrame = 253;  // SCM_MAX_FD
// The largest payload of any frame: a transaction's fixed part plus its data and offsets.
constexpr size_t kMaxFramePayload = 64 + kMaxTransactionBytes;

// One-way calls. A thread may send up to kOnewayWindowCalls one-way calls, together at most
// kOnewayWindowBytes of data and offsets and with no descriptors, without waiting; every other
// one-way call asks for an acknowledgement (kTransactionAckWanted) and waits for it: an
// IncomingReply whose status says whether the runtime took the call (NO_ERROR), refused it
// because its receiver's queue is full (FAILED_TRANSACTION; the thread then asks for an
// acknowledgement with every call until one is taken), or found the receiver dead
// (DEAD_OBJECT). An acknowledgement starts a new window. The runtime counts the same way and
// drops a process whose thread goes beyond its window.
constexpr uint32_t kTransactionAckWanted = 1;
constexpr uint32_t kOnewayWindowCalls = 64;
constexpr size_t kOnewayWindowBytes = 256 * 1024;

// Direct connections. A sender may have this many bytes of one-way calls (data plus
// kOnewayCallOverhead each) on one connection that its receiver has not run yet: half of the
// 1 MB - 8 KB transaction space, as the kernel driver gives async calls.
constexpr size_t kDirectOnewayBudget = kMaxTransactionBytes / 2;
constexpr size_t kOnewayCallOverhead = 64;
// Processes named in a direct call's chain (the threads waiting further up it).
constexpr size_t kMaxChainLinks = 16;
// The key a process gives the runtime for the proofs of the names of its objects.
constexpr size_t kObjectKeyBytes = 16;

// The runtime's own objects.
constexpr int32_t kServiceManagerHandle = 0;

// A process numbers every frame it sends after its hello, on all of its connections, from one
// counter; the runtime handles a process's frames in that order. This keeps the order of
// causally related frames sent on different connections (a call on one thread, then the release
// of the proxy it used on another).
struct FrameHeader {
    uint32_t size;     // payload bytes after this header
    uint16_t type;     // FrameType
    uint16_t fdCount;  // descriptors carried by this frame
    uint32_t seq;      // process -> runtime: the process's frame number; else 0
    uint32_t reserved;
};
static_assert(sizeof(FrameHeader) == 16);

enum FrameType : uint16_t {
    // Process -> runtime.
    kFrameHello = 1,          // Hello
    kFrameTransaction = 2,    // Transaction + offsets + data
    kFrameReply = 3,          // Reply + offsets + data
    kFrameFreeBuffer = 4,     // BufferRef
    kFrameReleaseHandle = 5,  // HandleCount
    kFrameRequestDeath = 6,   // HandleRef
    kFrameClearDeath = 7,     // HandleRef
    kFrameEnterLooper = 8,    // EnterLooper
    kFrameLooperDone = 9,     // BufferRef (0: no buffer)
    kFrameSetMaxThreads = 10, // SetMaxThreads
    kFramePark = 11,          // Park + offsets + data: a body with objects for a direct peer
    kFrameFetch = 12,         // Fetch: takes a body a direct peer parked for this process

    // Runtime -> process.
    kFrameHelloAck = 32,             // HelloAck
    kFrameIncomingTransaction = 33,  // IncomingTransaction + offsets + data
    kFrameIncomingReply = 34,        // IncomingReply + offsets + data
    kFrameReleaseNode = 35,          // ReleaseNode
    kFrameDeadBinder = 36,           // HandleRef
    kFrameDeathAck = 37,             // DeathAck
    kFrameSpawnLooper = 38,          // no payload
    kFrameParkAck = 39,              // ParkAck
    kFrameIntroduce = 40,            // Introduce: the owner of a handle, for direct calls

    // Process <-> process, on a direct connection.
    kFrameDirectCall = 48,   // DirectCall + data
    kFrameDirectReply = 49,  // DirectReply + data
    kFrameDirectCredit = 50, // DirectCredit: one-way bytes run and given back to the sender
};

enum ConnectionRole : uint32_t {
    kRoleProcess = 1,  // the process's lifetime connection: its end is the process's death
    kRoleThread = 2,   // one thread's calls
};

struct Hello {
    uint32_t magic;
    uint32_t version;
    uint32_t role;        // ConnectionRole
    uint32_t maxThreads;  // pool size limit (kRoleProcess only)
    // kRoleProcess: the key of the proofs that go with the names of its objects (Introduce).
    uint8_t objectKey[kObjectKeyBytes];
};
static_assert(sizeof(Hello) == 32);

struct HelloAck {
    uint32_t magic;
    uint32_t version;
    int32_t pid;  // the process as the runtime sees it
    uint32_t uid;
};
static_assert(sizeof(HelloAck) == 16);

// Followed by objectsCount uint64 offsets, then dataSize data bytes.
struct Transaction {
    int32_t handle;
    uint32_t code;
    uint32_t flags;
    uint32_t dataSize;
    uint32_t objectsCount;
    uint32_t wireFlags;  // kTransactionAckWanted
};
static_assert(sizeof(Transaction) == 24);

// Followed by objectsCount uint64 offsets, then dataSize data bytes (none unless status is 0).
struct Reply {
    int32_t status;
    uint32_t reserved;
    uint32_t dataSize;
    uint32_t objectsCount;
};
static_assert(sizeof(Reply) == 16);

// A transaction delivered to the object's process. bufferId is non-zero when the process must
// give the buffer back (kFrameFreeBuffer, or kFrameLooperDone for a one-way call).
struct IncomingTransaction {
    uint64_t binder;  // the object's weak-reference pointer in the receiving process
    uint64_t cookie;  // the object (BBinder*) in the receiving process
    uint64_t bufferId;
    uint32_t code;
    uint32_t flags;
    int32_t senderPid;  // from SO_PEERCRED of the sender's connection
    uint32_t senderUid;
    uint32_t dataSize;
    uint32_t objectsCount;
};
static_assert(sizeof(IncomingTransaction) == 48);

struct IncomingReply {
    uint64_t bufferId;
    int32_t status;
    uint32_t reserved;
    uint32_t dataSize;
    uint32_t objectsCount;
};
static_assert(sizeof(IncomingReply) == 24);

struct BufferRef {
    uint64_t bufferId;
};
static_assert(sizeof(BufferRef) == 8);

struct HandleCount {
    int32_t handle;
    uint32_t reserved;
    uint64_t count;  // deliveries of the handle this process returns
};
static_assert(sizeof(HandleCount) == 16);

struct HandleRef {
    int32_t handle;
    uint32_t reserved;
};
static_assert(sizeof(HandleRef) == 8);

struct DeathAck {
    int32_t handle;
    int32_t status;  // 0, or DEAD_OBJECT when the object's process is already gone
};
static_assert(sizeof(DeathAck) == 8);

struct EnterLooper {
    uint32_t isMain;  // 0: a thread started on the runtime's kFrameSpawnLooper request
    uint32_t reserved;
};
static_assert(sizeof(EnterLooper) == 8);

struct SetMaxThreads {
    uint32_t maxThreads;
    uint32_t reserved;
};
static_assert(sizeof(SetMaxThreads) == 8);

// The runtime no longer counts `count` of the references the process sent for this object.
struct ReleaseNode {
    uint64_t binder;
    uint64_t cookie;
    uint64_t count;
};
static_assert(sizeof(ReleaseNode) == 24);

// A body with binder objects or descriptors on its way to a direct peer goes through the
// runtime, which counts the objects for the peer (see docs/wire-protocol.md). Answered by
// ParkAck.
struct Park {
    int32_t peerPid;  // the process that will fetch it
    uint32_t reserved;
    uint32_t dataSize;
    uint32_t objectsCount;
};
static_assert(sizeof(Park) == 16);

struct ParkAck {
    uint64_t parkId;  // 0 when refused
    int32_t status;
    uint32_t reserved;
};
static_assert(sizeof(ParkAck) == 16);

// Answered by IncomingReply carrying the parked body, translated for this process.
struct Fetch {
    int32_t peerPid;  // the process that parked it (as this process's direct connection says)
    uint32_t reserved;
    uint64_t parkId;
};
static_assert(sizeof(Fetch) == 16);

// A synchronous call on a direct connection. The caller's identity is the connection's
// SO_PEERCRED. Either the data follows (no objects), or parkId names the body in the runtime.
// The runtime introduces the owner of a handle it delivers, right before the frame that carries
// it: the owner's pid and start time, the object's name there, and the proof that the runtime
// named it to this process (keyed with the owner's objectKey over the name and this process's
// pid and start time). No introduction: calls on the handle go through the runtime.
struct Introduce {
    int32_t handle;
    int32_t ownerPid;
    uint64_t ownerStart;  // the owner's start time, in clock ticks after boot (/proc/PID/stat)
    uint64_t name;
    uint64_t proof;
};
static_assert(sizeof(Introduce) == 32);

struct DirectCall {
    uint64_t name;    // the object, as the runtime named it to the caller
    uint64_t proof;   // the runtime's proof that it named it to the caller
    uint64_t parkId;  // non-zero: the body (with objects) is parked in the runtime
    uint64_t serveOn; // non-zero: the receiver's thread that waits in this call's chain
    uint32_t code;
    uint32_t flags;
    uint32_t dataSize;
    uint32_t chainCount;  // ChainLinks between the fixed part and the data
};
static_assert(sizeof(DirectCall) == 48);

// A thread waiting for a reply further up a direct call's chain.
struct ChainLink {
    uint64_t thread;  // the id its process gave it (never 0)
    int32_t pid;
    uint32_t reserved;
};
static_assert(sizeof(ChainLink) == 16);

struct DirectCredit {
    uint64_t bytes;  // one-way call bytes the receiver has run since its last credit
};
static_assert(sizeof(DirectCredit) == 8);

struct DirectReply {
    uint64_t parkId;
    int32_t status;
    uint32_t reserved;
    uint32_t dataSize;
    uint32_t objectsCount;  // always 0
};
static_assert(sizeof(DirectReply) == 24);

// Size of the fixed part of each frame type; 0 for unknown types.
constexpr size_t fixedPayloadSize(uint16_t type) {
    switch (type) {
        case kFrameHello: return sizeof(Hello);
        case kFrameTransaction: return sizeof(Transaction);
        case kFrameReply: return sizeof(Reply);
        case kFrameFreeBuffer: return sizeof(BufferRef);
        case kFrameReleaseHandle: return sizeof(HandleCount);
        case kFrameRequestDeath: return sizeof(HandleRef);
        case kFrameClearDeath: return sizeof(HandleRef);
        case kFrameEnterLooper: return sizeof(EnterLooper);
        case kFrameLooperDone: return sizeof(BufferRef);
        case kFrameSetMaxThreads: return sizeof(SetMaxThreads);
        case kFrameHelloAck: return sizeof(HelloAck);
        case kFrameIncomingTransaction: return sizeof(IncomingTransaction);
        case kFrameIncomingReply: return sizeof(IncomingReply);
        case kFrameReleaseNode: return sizeof(ReleaseNode);
        case kFrameDeadBinder: return sizeof(HandleRef);
        case kFrameDeathAck: return sizeof(DeathAck);
        case kFrameSpawnLooper: return 0;
        case kFramePark: return sizeof(Park);
        case kFrameFetch: return sizeof(Fetch);
        case kFrameParkAck: return sizeof(ParkAck);
        case kFrameDirectCall: return sizeof(DirectCall);
        case kFrameDirectReply: return sizeof(DirectReply);
        case kFrameIntroduce: return sizeof(Introduce);
        case kFrameDirectCredit: return sizeof(DirectCredit);
        default: return 0;
    }
}

constexpr bool hasBody(uint16_t type) {
    return type == kFrameTransaction || type == kFrameReply ||
           type == kFrameIncomingTransaction || type == kFrameIncomingReply ||
           type == kFramePark || type == kFrameDirectCall || type == kFrameDirectReply;
}

// Frames that may carry descriptors.
constexpr bool carriesFds(uint16_t type) {
    return type == kFrameTransaction || type == kFrameReply ||
           type == kFrameIncomingTransaction || type == kFrameIncomingReply || type == kFramePark;
}

// The socket of the instance this process joins: $HOSTBINDER_SOCKET, or kDefaultSocketPath.
constexpr const char* kDefaultSocketPath = "/tmp/hostbinder.socket";
const char* instanceSocketPath();

}  // namespace hostbinder
}  // namespace android
