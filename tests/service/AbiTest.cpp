/*
 * Pins the order of virtual operations of the service, listener and death tracking classes
 * (and so of the common library's listener bases and service interface they derive from).
 *
 * Under the Itanium C++ ABI a pointer to a virtual member function holds 1 + the byte offset
 * of the function's entry in the virtual table, and the this-adjustment of the table's
 * subobject. An adjustment of 0 means the entry is in the class's primary table. The 32-bit
 * ARM variant keeps the byte offset as it is and moves the virtual flag to the low bit of the
 * adjustment, which it stores doubled.
 */
#include "IHeadTrackingPoller.h"
#include "IRawDataListener.h"
#include "IStateChangeListener.h"
#include "ITovarinService.h"

#include <gtest/gtest.h>

#include <stdint.h>
#include <string.h>

#include <utility>

namespace morvel {
namespace tovarin {
namespace testing {
namespace {

using namespace binder;

// The function's index in the virtual table, and the this-adjustment of that table.
using Slot = std::pair<ptrdiff_t, ptrdiff_t>;

template <typename MemberFunction>
Slot slotOf(MemberFunction function) {
    struct {
        uintptr_t pointer;
        ptrdiff_t adjustment;
    } representation;
    static_assert(sizeof(function) == sizeof(representation), "Itanium member pointer");
    memcpy(&representation, &function, sizeof(representation));
#if defined(__arm__)
    EXPECT_EQ(1, representation.adjustment & 1) << "not a virtual function";
    return Slot(static_cast<ptrdiff_t>(representation.pointer / sizeof(void*)),
                representation.adjustment >> 1);
#else
    EXPECT_EQ(1u, representation.pointer & 1u) << "not a virtual function";
    return Slot(static_cast<ptrdiff_t>((representation.pointer - 1) / sizeof(void*)),
                representation.adjustment);
#endif
}

struct Expected {
    const char* name;
    Slot actual;
    ptrdiff_t index;  // in the primary table
};

void expectPrimary(const char* className, std::initializer_list<Expected> table) {
    for (const Expected& e : table) {
        EXPECT_EQ(Slot(e.index, 0), e.actual) << className << "::" << e.name;
    }
}

#define SLOT(Class, function, index) Expected{#function, slotOf(&Class::function), index}

// The sixteen service operations follow the two destructors, in this order, in every
// implementation of the service.
template <typename S>
void expectServiceOperations(const char* className) {
    expectPrimary(className,
                  {SLOT(S, registerRawDataListener, 2), SLOT(S, unregisterRawDataListener, 3),
                   SLOT(S, setEnabledState, 4), SLOT(S, getEnabled, 5),
                   SLOT(S, getHardwareState, 6), SLOT(S, getHeadTrackingState, 7),
                   SLOT(S, registerStateChangeListener, 8),
                   SLOT(S, unregisterStateChangeListener, 9), SLOT(S, getHeadTrackerHandle, 10),
                   SLOT(S, releaseHeadTrackerHandle, 11), SLOT(S, start, 12), SLOT(S, stop, 13),
                   SLOT(S, standby, 14), SLOT(S, setConfiguration, 15), SLOT(S, sample, 16),
                   SLOT(S, setPid, 17)});
}

TEST(VirtualTableTest, ServiceClasses) {
    expectServiceOperations<TovarinService>("TovarinService");
    expectServiceOperations<BpTovarinService>("BpTovarinService");
    expectServiceOperations<BnTovarinService>("BnTovarinService");
    // Then the interface boilerplate (descriptor, queryLocalInterface, onAsBinder), the stub's
    // onTransact and the dump report.
    expectPrimary("ITovarinService", {SLOT(ITovarinService, getInterfaceDescriptor, 18)});
    expectPrimary("BnTovarinService",
                  {SLOT(BnTovarinService, getInterfaceDescriptor, 18),
                   SLOT(BnTovarinService, queryLocalInterface, 19),
                   SLOT(BnTovarinService, onTransact, 21), SLOT(BnTovarinService, dump, 22)});
}

// The listener base's six operations follow the two destructors, then onEvent, then the
// interface descriptor.
template <typename L>
void expectListenerOperations(const char* className) {
    expectPrimary(className, {SLOT(L, getHandle, 2), SLOT(L, setHandle, 3), SLOT(L, getPid, 4),
                              SLOT(L, setPid, 5), SLOT(L, getRegistrationTimestamp, 6),
                              SLOT(L, updateRegistrationTimestamp, 7), SLOT(L, onEvent, 8),
                              SLOT(L, getInterfaceDescriptor, 9)});
}

TEST(VirtualTableTest, ListenerClasses) {
    expectListenerOperations<BnRawDataListener>("BnRawDataListener");
    expectListenerOperations<BnStateChangeListener>("BnStateChangeListener");
    expectListenerOperations<BpRawDataListener>("BpRawDataListener");
    expectListenerOperations<BpStateChangeListener>("BpStateChangeListener");
    expectPrimary("BnRawDataListener", {SLOT(BnRawDataListener, queryLocalInterface, 10),
                                        SLOT(BnRawDataListener, onTransact, 12)});
    expectPrimary("BnStateChangeListener", {SLOT(BnStateChangeListener, queryLocalInterface, 10),
                                            SLOT(BnStateChangeListener, onTransact, 12)});
}

TEST(VirtualTableTest, DeathRecipientsNotifyFirst) {
    expectPrimary("ClientDeathMapper", {SLOT(BnTovarinService::ClientDeathMapper, binderDied, 0)});
    expectPrimary("DeathNotifier", {SLOT(ITovarinService::DeathNotifier, binderDied, 0)});
}

}  // namespace
}  // namespace testing
}  // namespace tovarin
}  // namespace morvel
