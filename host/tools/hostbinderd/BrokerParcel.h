/*
 * Minimal reading and writing of parcel data for the runtime's own services (service manager,
 * "permission"). Reads are bounds-checked: a read past the end fails and leaves the reader
 * failed.
 */
#pragma once

#include <linux/android/binder.h>

#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

namespace android {
namespace hostbinder {

class BrokerParcelReader {
public:
    BrokerParcelReader(const uint8_t* data, size_t size) : mData(data), mSize(size) {}

    bool ok() const { return mOk; }
    size_t position() const { return mPos; }

    int32_t readInt32() {
        int32_t v = 0;
        if (!take(&v, sizeof(v), sizeof(v))) return 0;
        return v;
    }

    // A String16 as UTF-16 code units; false for a null or malformed string.
    bool readString16(std::u16string* out) {
        const int32_t len = readInt32();
        if (!mOk || len < 0 || static_cast<size_t>(len) > (mSize - mPos) / 2) return fail();
        const size_t bytes = (static_cast<size_t>(len) + 1) * 2;
        const size_t padded = (bytes + 3) & ~size_t(3);
        if (padded > mSize - mPos) return fail();
        out->resize(static_cast<size_t>(len));
        if (len > 0) memcpy(&(*out)[0], mData + mPos, static_cast<size_t>(len) * 2);
        char16_t nul;
        memcpy(&nul, mData + mPos + static_cast<size_t>(len) * 2, 2);
        if (nul != 0) return fail();
        mPos += padded;
        return true;
    }

    // Interface token: strict-mode policy, work source, descriptor.
    bool enforceInterface(const char16_t* descriptor) {
        readInt32();
        readInt32();
        std::u16string d;
        return readString16(&d) && d == descriptor;
    }

    bool readObject(flat_binder_object* out) {
        return take(out, sizeof(*out), sizeof(*out));
    }

private:
    bool fail() {
        mOk = false;
        return false;
    }
    bool take(void* out, size_t len, size_t advance) {
        if (!mOk || advance > mSize - mPos) return fail();
        memcpy(out, mData + mPos, len);
        mPos += advance;
        return true;
    }

    const uint8_t* mData;
    size_t mSize;
    size_t mPos = 0;
    bool mOk = true;
};

class BrokerParcelWriter {
public:
    void writeInt32(int32_t v) { append(&v, sizeof(v)); }

    void writeString16(const std::u16string& s) {
        writeInt32(static_cast<int32_t>(s.size()));
        append(s.data(), s.size() * 2);
        const char16_t nul = 0;
        append(&nul, 2);
        pad();
    }

    // Records the object in the object table unless it is a null binder.
    void writeObject(const flat_binder_object& obj) {
        const bool isNull = obj.hdr.type == BINDER_TYPE_BINDER && obj.binder == 0;
        if (!isNull) offsets.push_back(data.size());
        append(&obj, sizeof(obj));
    }

    std::vector<uint8_t> data;
    std::vector<uint64_t> offsets;

private:
    void append(const void* p, size_t n) {
        const uint8_t* b = static_cast<const uint8_t*>(p);
        data.insert(data.end(), b, b + n);
    }
    void pad() {
        while (data.size() % 4 != 0) data.push_back(0);
    }
};

}  // namespace hostbinder
}  // namespace android
