/*
 * Pins the order of virtual operations of the service, listener and death tracking classes.
 *
 * Under the Itanium C++ ABI a pointer to a virtual member function holds 1 + the byte offset
 * of the function's entry in the virtual table, and the this-adjustment of the table's
 * subobject. An adjustment of 0 means the entry is in the class's primary table.
 */
#include "IHeadTrackingPoller.h"
#include "IRawDataListener.h"
#include "IStateChangeListener.h"
#include "ITovarinService.h"

#include <gtest/gtest.h>

#include <stdint.h>
#include <string.h>

namespace morvel {
namespace tovarin {
namespace testing {
namespace {

using binder::BnRawDataListener;
using binder::BnStateChangeListener;
using binder::BnTovarinService;
using binder::BpRawDataListener;
using binder::BpStateChangeListener;
using binder::BpTovarinService;
using binder::ITovarinService;

struct Slot {
    ptrdiff_t index;
    ptrdiff_t adjustment;
    bool operator==(const Slot& o) const { return index == o.index && adjustment == o.adjustment; }
};

std::ostream& operator<<(std::ostream& out, const Slot& slot) {
    return out << "slot " << slot.index << " (adjustment " << slot.adjustment << ")";
}

template <typename MemberFunction>
Slot slotOf(MemberFunction function) {
    struct {
        uintptr_t pointer;
        ptrdiff_t adjustment;
    } representation;
    static_assert(sizeof(function) == sizeof(representation), "Itanium member pointer");
    memcpy(&representation, &function, sizeof(representation));
    EXPECT_EQ(1u, representation.pointer & 1u) << "not a virtual function";
    return Slot{static_cast<ptrdiff_t>((representation.pointer - 1) / sizeof(void*)),
                representation.adjustment};
}

Slot primary(ptrdiff_t index) {
    return Slot{index, 0};
}

// The sixteen service operations follow the two destructors, in this order, in every
// implementation of the service.
template <typename Service>
void expectServiceOperations() {
    EXPECT_EQ(primary(2), slotOf(&Service::registerRawDataListener));
    EXPECT_EQ(primary(3), slotOf(&Service::unregisterRawDataListener));
    EXPECT_EQ(primary(4), slotOf(&Service::setEnabledState));
    EXPECT_EQ(primary(5), slotOf(&Service::getEnabled));
    EXPECT_EQ(primary(6), slotOf(&Service::getHardwareState));
    EXPECT_EQ(primary(7), slotOf(&Service::getHeadTrackingState));
    EXPECT_EQ(primary(8), slotOf(&Service::registerStateChangeListener));
    EXPECT_EQ(primary(9), slotOf(&Service::unregisterStateChangeListener));
    EXPECT_EQ(primary(10), slotOf(&Service::getHeadTrackerHandle));
    EXPECT_EQ(primary(11), slotOf(&Service::releaseHeadTrackerHandle));
    EXPECT_EQ(primary(12), slotOf(&Service::start));
    EXPECT_EQ(primary(13), slotOf(&Service::stop));
    EXPECT_EQ(primary(14), slotOf(&Service::standby));
    EXPECT_EQ(primary(15), slotOf(&Service::setConfiguration));
    EXPECT_EQ(primary(16), slotOf(&Service::sample));
    EXPECT_EQ(primary(17), slotOf(&Service::setPid));
}

TEST(VirtualTableTest, ServiceClasses) {
    {
        SCOPED_TRACE("TovarinService");
        expectServiceOperations<TovarinService>();
    }
    {
        SCOPED_TRACE("BpTovarinService");
        expectServiceOperations<BpTovarinService>();
    }
    {
        SCOPED_TRACE("BnTovarinService");
        expectServiceOperations<BnTovarinService>();
    }
    EXPECT_EQ(primary(18), slotOf(&ITovarinService::getInterfaceDescriptor));
    // Then queryLocalInterface and onAsBinder from the interface boilerplate, the stub's
    // onTransact and the dump report.
    EXPECT_EQ(primary(18), slotOf(&BnTovarinService::getInterfaceDescriptor));
    EXPECT_EQ(primary(19), slotOf(&BnTovarinService::queryLocalInterface));
    EXPECT_EQ(primary(21), slotOf(&BnTovarinService::onTransact));
    EXPECT_EQ(primary(22), slotOf(&BnTovarinService::dump));
}

template <typename Listener>
void expectListenerOperations() {
    EXPECT_EQ(primary(2), slotOf(&Listener::getHandle));
    EXPECT_EQ(primary(3), slotOf(&Listener::setHandle));
    EXPECT_EQ(primary(4), slotOf(&Listener::getPid));
    EXPECT_EQ(primary(5), slotOf(&Listener::setPid));
    EXPECT_EQ(primary(6), slotOf(&Listener::getRegistrationTimestamp));
    EXPECT_EQ(primary(7), slotOf(&Listener::updateRegistrationTimestamp));
    EXPECT_EQ(primary(8), slotOf(&Listener::onEvent));
}

TEST(VirtualTableTest, ListenerClasses) {
    {
        SCOPED_TRACE("BnRawDataListener");
        expectListenerOperations<BnRawDataListener>();
        EXPECT_EQ(primary(9), slotOf(&BnRawDataListener::getInterfaceDescriptor));
        EXPECT_EQ(primary(10), slotOf(&BnRawDataListener::queryLocalInterface));
        EXPECT_EQ(primary(12), slotOf(&BnRawDataListener::onTransact));
    }
    {
        SCOPED_TRACE("BnStateChangeListener");
        expectListenerOperations<BnStateChangeListener>();
        EXPECT_EQ(primary(9), slotOf(&BnStateChangeListener::getInterfaceDescriptor));
        EXPECT_EQ(primary(10), slotOf(&BnStateChangeListener::queryLocalInterface));
        EXPECT_EQ(primary(12), slotOf(&BnStateChangeListener::onTransact));
    }
    {
        SCOPED_TRACE("BpRawDataListener");
        expectListenerOperations<BpRawDataListener>();
        EXPECT_EQ(primary(9), slotOf(&BpRawDataListener::getInterfaceDescriptor));
    }
    {
        SCOPED_TRACE("BpStateChangeListener");
        expectListenerOperations<BpStateChangeListener>();
        EXPECT_EQ(primary(9), slotOf(&BpStateChangeListener::getInterfaceDescriptor));
    }
}

TEST(VirtualTableTest, DeathRecipientsNotifyFirst) {
    EXPECT_EQ(primary(0), slotOf(&BnTovarinService::ClientDeathMapper::binderDied));
    EXPECT_EQ(primary(0), slotOf(&ITovarinService::DeathNotifier::binderDied));
}

}  // namespace
}  // namespace testing
}  // namespace tovarin
}  // namespace morvel
