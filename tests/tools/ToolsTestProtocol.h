/*
 * What the tool tests and their service process agree on.
 */
#pragma once

#include <binder/IBinder.h>

#include <stddef.h>

namespace tools_test {

constexpr const char* kEchoDescriptor = "hostbinder.test.IEcho";
constexpr size_t kBigDumpBytes = 256 * 1024;  // several times a pipe's buffer

enum : uint32_t {
    kEcho = android::IBinder::FIRST_CALL_TRANSACTION,
    kFail,
    kExit,
};

}  // namespace tools_test
