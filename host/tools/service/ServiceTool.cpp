/*
 * The `service` command.
 */
#include "ServiceTool.h"

#include <utils/String8.h>

#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <utility>

namespace android {

namespace {

// The descriptor a service reports (INTERFACE_TRANSACTION), empty when it does not answer.
String16 interfaceName(const sp<IBinder>& service) {
    if (service == nullptr) return String16();
    Parcel data, reply;
    if (service->transact(IBinder::INTERFACE_TRANSACTION, data, &reply) != NO_ERROR) {
        return String16();
    }
    return reply.readString16();
}

std::string toUtf8(const String16& text) {
    String8 utf8(text);
    return std::string(utf8.string(), utf8.size());
}

char hexDigit(unsigned value) {
    return "0123456789abcdef"[value & 0xf];
}

constexpr size_t kBytesPerLine = 16;
constexpr size_t kWord = 4;

// One line of the dump: the bytes [0, count) of `line`, as words most significant byte first,
// then the bytes as characters. A dump of several lines pads its last line to full width.
std::string hexLine(const uint8_t* line, size_t count, bool padded) {
    std::string text;
    for (size_t word = 0; word < kBytesPerLine; word += kWord) {
        if (word > 0) text += ' ';
        const size_t present = word < count ? std::min(kWord, count - word) : 0;
        for (size_t i = present; i > 0; --i) {
            const uint8_t byte = line[word + i - 1];
            text += hexDigit(byte >> 4);
            text += hexDigit(byte);
        }
        if (padded) text.append(2 * (kWord - present), ' ');
    }
    text += " '";
    for (size_t i = 0; i < kBytesPerLine; ++i) {
        if (i < count) {
            const uint8_t byte = line[i];
            text += (byte >= ' ' && byte < 127) ? static_cast<char>(byte) : '.';
        } else if (padded) {
            text += ' ';
        }
    }
    text += '\'';
    return text;
}

}  // namespace

ServiceTool::ServiceTool(const sp<IServiceManager>& sm, std::ostream& out, std::ostream& err)
      : mSm(sm), mOut(out), mErr(err) {}

ServiceTool::ServiceTool(ServiceManagerSource source, std::ostream& out, std::ostream& err)
      : mSource(std::move(source)), mOut(out), mErr(err) {}

std::string ServiceTool::formatParcel(const Parcel& parcel) {
    std::string text = "Parcel(";
    if (status_t err = parcel.errorCheck(); err != NO_ERROR) {
        char buf[64];
        snprintf(buf, sizeof(buf), "%p", reinterpret_cast<void*>(static_cast<intptr_t>(err)));
        text += "Error: ";
        text += buf;
        text += " \"";
        text += strerror(-err);
        text += '"';
    } else if (parcel.dataSize() == 0) {
        text += "NULL";
    } else {
        const uint8_t* data = parcel.data();
        const size_t size = parcel.dataSize();
        if (size <= kBytesPerLine) {
            text += hexLine(data, size, false);
        } else {
            for (size_t offset = 0; offset < size; offset += kBytesPerLine) {
                char prefix[32];
                snprintf(prefix, sizeof(prefix), "\n  0x%08zx: ", offset);
                text += prefix;
                text += hexLine(data + offset, std::min(kBytesPerLine, size - offset), true);
            }
        }
        const binder_size_t* objects = reinterpret_cast<const binder_size_t*>(parcel.ipcObjects());
        for (size_t i = 0; i < parcel.ipcObjectsCount(); ++i) {
            char line[96];
            const binder_size_t at = objects[i];
            if (at + sizeof(flat_binder_object) > size) continue;
            flat_binder_object flat;
            memcpy(&flat, data + at, sizeof(flat));
            const uint32_t type = flat.hdr.type;
            snprintf(line, sizeof(line), "\nObject #%zu @ 0x%" PRIx64 ": %c%c%c = 0x%" PRIx64, i,
                     static_cast<uint64_t>(at), static_cast<char>((type >> 24) & 0x7f),
                     static_cast<char>((type >> 16) & 0x7f),
                     static_cast<char>((type >> 8) & 0x7f), static_cast<uint64_t>(flat.binder));
            text += line;
        }
    }
    text += ')';
    return text;
}

void ServiceTool::printUsage(std::ostream& out) {
    out << "Usage: service [-h|-?|--help]\n"
           "       service list\n"
           "       service check SERVICE\n"
           "       service call SERVICE CODE [i32 N | i64 N | f N | d N | s16 STR | null] ...\n"
           "Options:\n"
           "   i32: Write the 32-bit integer N into the send parcel.\n"
           "   i64: Write the 64-bit integer N into the send parcel.\n"
           "   f:   Write the 32-bit single-precision number N into the send parcel.\n"
           "   d:   Write the 64-bit double-precision number N into the send parcel.\n"
           "   s16: Write the UTF-16 string STR into the send parcel.\n"
           "  null: Write a null binder into the send parcel.\n";
}

int ServiceTool::usageError() {
    printUsage(mErr);
    return kExitUsage;
}

int ServiceTool::main(int argc, char* const argv[]) {
    int first = 1;
    // Options come before the command.
    for (; first < argc && argv[first][0] == '-'; ++first) {
        if (strcmp(argv[first], "-h") == 0 || strcmp(argv[first], "-?") == 0 ||
            strcmp(argv[first], "--help") == 0) {
            printUsage(mOut);
            return 0;
        }
        mErr << "service: Unknown option " << argv[first] << std::endl;
        return usageError();
    }
    if (first >= argc) {
        mErr << "service: No command given" << std::endl;
        return usageError();
    }
    const char* const command = argv[first++];
    const bool isList = strcmp(command, "list") == 0;
    const bool isCheck = strcmp(command, "check") == 0;
    if (!isList && !isCheck && strcmp(command, "call") != 0) {
        mErr << "service: Unknown command " << command << std::endl;
        return usageError();
    }
    if (isCheck && first >= argc) {
        mErr << "service: No service specified for check" << std::endl;
        return usageError();
    }
    if (mSm == nullptr && mSource) mSm = mSource();
    if (mSm == nullptr) {
        mErr << "service: Unable to get default service manager!" << std::endl;
        return kExitNoServiceManager;
    }
    if (isList) return list();
    if (isCheck) return check(argv[first]);
    return call(argc, argv, first);
}

int ServiceTool::list() {
    Vector<String16> services = mSm->listServices();
    mOut << "Found " << services.size() << " services:" << std::endl;
    for (size_t i = 0; i < services.size(); ++i) {
        sp<IBinder> service = mSm->checkService(services[i]);
        mOut << i << "\t" << toUtf8(services[i]) << ": [" << toUtf8(interfaceName(service))
             << "]" << std::endl;
    }
    return 0;
}

int ServiceTool::check(const char* name) {
    sp<IBinder> service = mSm->checkService(String16(name));
    mOut << "Service " << name << (service == nullptr ? ": not found" : ": found") << std::endl;
    return 0;
}

int ServiceTool::call(int argc, char* const argv[], int first) {
    // Malformed command lines print the usage; a missing service does not.
    if (first >= argc) {
        mErr << "service: No service specified for call" << std::endl;
        return usageError();
    }
    const char* const name = argv[first++];
    if (first >= argc) {
        mErr << "service: No code specified for call" << std::endl;
        return usageError();
    }
    const char* const codeText = argv[first++];
    char* end = nullptr;
    // long long: a long cannot hold every uint32_t code where it is 32 bits wide.
    const long long code = strtoll(codeText, &end, 0);
    if (end == codeText || *end != '\0' || code < 0 || code > static_cast<long long>(UINT32_MAX)) {
        mErr << "service: Bad code " << codeText << std::endl;
        return usageError();
    }

    sp<IBinder> service = mSm->checkService(String16(name));
    const String16 descriptor = interfaceName(service);
    if (service == nullptr || descriptor.size() == 0) {
        mErr << "service: Service " << name << " does not exist" << std::endl;
        return kExitNotFound;
    }

    Parcel data, reply;
    data.writeInterfaceToken(descriptor);
    while (first < argc) {
        const char* const type = argv[first++];
        const bool hasValue = first < argc;
        const char* const value = hasValue ? argv[first] : nullptr;
        if (strcmp(type, "null") == 0) {
            data.writeStrongBinder(nullptr);
            continue;
        }
        const char* missing = nullptr;
        if (strcmp(type, "i32") == 0) {
            if (hasValue) data.writeInt32(static_cast<int32_t>(strtol(value, nullptr, 0)));
            missing = "integer";
        } else if (strcmp(type, "i64") == 0) {
            if (hasValue) data.writeInt64(strtoll(value, nullptr, 0));
            missing = "integer";
        } else if (strcmp(type, "f") == 0) {
            if (hasValue) data.writeFloat(strtof(value, nullptr));
            missing = "number";
        } else if (strcmp(type, "d") == 0) {
            if (hasValue) data.writeDouble(strtod(value, nullptr));
            missing = "number";
        } else if (strcmp(type, "s16") == 0) {
            if (hasValue) data.writeString16(String16(value));
            missing = "string";
        } else {
            mErr << "service: unknown option " << type << std::endl;
            return usageError();
        }
        if (!hasValue) {
            mErr << "service: no " << missing << " supplied for '" << type << "'" << std::endl;
            return usageError();
        }
        ++first;
    }

    if (status_t err = service->transact(static_cast<uint32_t>(code), data, &reply);
        err != NO_ERROR) {
        // The reply is printed in error, so a failed call reads as such.
        reply.setError(err);
    }
    mOut << "Result: " << formatParcel(reply) << std::endl;
    return 0;
}

}  // namespace android
