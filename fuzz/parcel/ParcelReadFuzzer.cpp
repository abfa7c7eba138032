// Runs the Parcel's read forms, in an order chosen by the input, over bytes chosen by the
// input. Any read outside the data, any overflow of a length, shows up under ASan/UBSan.

#include <android/log.h>
#include <binder/Binder.h>
#include <binder/Parcel.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <vector>

using android::Parcel;
using android::sp;
using android::String16;
using android::String8;

namespace {

void readOne(uint8_t op, const Parcel& p, FuzzedDataProvider& fdp) {
    switch (op % 24) {
        case 0: (void)p.readInt32(); break;
        case 1: { int64_t v; (void)p.readInt64(&v); break; }
        case 2: (void)p.readUint64(); break;
        case 3: (void)p.readFloat(); break;
        case 4: (void)p.readDouble(); break;
        case 5: (void)p.readIntPtr(); break;
        case 6: (void)p.readBool(); (void)p.readChar(); (void)p.readByte(); break;
        case 7: {
            const char* s = p.readCString();
            if (s != nullptr) (void)strlen(s);
            break;
        }
        case 8: { String8 s; (void)p.readString8(&s); break; }
        case 9: (void)p.readString16(); break;
        case 10: {
            size_t len = 0;
            const char16_t* s = p.readString16Inplace(&len);
            if (s != nullptr) (void)String16(s, len);
            break;
        }
        case 11: { std::unique_ptr<String16> s; (void)p.readString16(&s); break; }
        case 12: {
            const size_t len = fdp.ConsumeIntegral<size_t>();
            const void* d = p.readInplace(len);
            if (d != nullptr && len > 0) {
                volatile uint8_t last = static_cast<const uint8_t*>(d)[len - 1];
                (void)last;
            }
            break;
        }
        case 13: { uint8_t buf[64]; (void)p.read(buf, fdp.ConsumeIntegralInRange<size_t>(0, 64)); break; }
        case 14: (void)p.readStrongBinder(); break;
        case 15: { sp<android::IBinder> b; (void)p.readNullableStrongBinder(&b); break; }
        case 16: (void)p.readFileDescriptor(); break;
        case 17: (void)p.readObject(fdp.ConsumeBool()); break;
        case 18: (void)p.readExceptionCode(); break;
        case 19: (void)p.enforceInterface(String16("morvel.tovarin.service")); break;
        case 20: p.setDataPosition(fdp.ConsumeIntegral<size_t>()); break;
        case 21: p.setDataPosition(fdp.ConsumeIntegralInRange<size_t>(0, p.dataSize() + 8)); break;
        case 22: {
            Parcel copy;
            const size_t start = fdp.ConsumeIntegralInRange<size_t>(0, p.dataSize() + 4);
            (void)copy.appendFrom(&p, start, fdp.ConsumeIntegralInRange<size_t>(0, p.dataSize()));
            (void)copy.readString16();
            break;
        }
        case 23: {
            // The default BBinder codes read their arguments from the same bytes.
            sp<android::BBinder> b = new android::BBinder();
            Parcel reply;
            const uint32_t codes[] = {android::IBinder::DUMP_TRANSACTION,
                                      android::IBinder::SHELL_COMMAND_TRANSACTION,
                                      android::IBinder::INTERFACE_TRANSACTION};
            (void)b->transact(codes[fdp.ConsumeIntegralInRange<size_t>(0, 2)], p, &reply);
            break;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    __android_log_set_minimum_priority(ANDROID_LOG_SILENT);  // malformed data is logged
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider fdp(data, size);
    const std::vector<uint8_t> ops = fdp.ConsumeBytes<uint8_t>(fdp.ConsumeIntegralInRange(0, 32));
    const std::vector<uint8_t> bytes =
            fdp.ConsumeBytes<uint8_t>(fdp.ConsumeIntegralInRange<size_t>(0, 4096));
    Parcel p;
    if (p.setData(bytes.data(), bytes.size()) != android::NO_ERROR) return 0;
    for (uint8_t op : ops) readOne(op, p, fdp);
    return 0;
}
