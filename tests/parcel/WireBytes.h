/*
 * Builds the bytes a parcel form must consist of, independently of Parcel: little-endian
 * words, C strings padded with zeros to 4 bytes.
 */
#pragma once

#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

namespace morvel::tovarin::binder::test {

class WireBytes {
public:
    WireBytes& i32(int32_t v) { return le(static_cast<uint32_t>(v), 4); }
    WireBytes& i64(int64_t v) { return le(static_cast<uint64_t>(v), 8); }
    WireBytes& f32(float v) {
        uint32_t bits;
        memcpy(&bits, &v, sizeof(bits));
        return le(bits, 4);
    }
    WireBytes& cstr(const std::string& s) {
        mBytes.insert(mBytes.end(), s.begin(), s.end());
        mBytes.push_back(0);
        while (mBytes.size() % 4 != 0) mBytes.push_back(0);
        return *this;
    }
    WireBytes& append(const WireBytes& other) {
        mBytes.insert(mBytes.end(), other.mBytes.begin(), other.mBytes.end());
        return *this;
    }
    const std::vector<uint8_t>& bytes() const { return mBytes; }

private:
    WireBytes& le(uint64_t v, int n) {
        for (int i = 0; i < n; ++i) mBytes.push_back(static_cast<uint8_t>(v >> (8 * i)));
        return *this;
    }
    std::vector<uint8_t> mBytes;
};

}  // namespace morvel::tovarin::binder::test
