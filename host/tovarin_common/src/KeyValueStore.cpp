#include <tovarin/KeyValueStore.h>

#include <string.h>

namespace morvel {
namespace tovarin {

bool KeyValueStore::get(const char* key, std::string* out) const {
    if (key == nullptr || out == nullptr) return false;
    std::lock_guard<std::mutex> lock(mLock);
    auto it = mValues.find(key);
    if (it == mValues.end()) return false;
    *out = it->second;
    return true;
}

int KeyValueStore::set(const char* key, const char* value) {
    if (!mWritable || key == nullptr || value == nullptr || key[0] == '\0') return -1;
    if (strpbrk(key, "=\n") != nullptr || strchr(value, '\n') != nullptr) return -1;
    {
        std::lock_guard<std::mutex> lock(mLock);
        mValues[key] = value;
    }
    notify(key);
    return 0;
}

void KeyValueStore::clear(const char* key) {
    if (key == nullptr) return;
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mValues.erase(key) == 0) return;
    }
    notify(key);
}

android::String8 KeyValueStore::toString() const {
    std::string text;
    {
        std::lock_guard<std::mutex> lock(mLock);
        for (const auto& [key, value] : mValues) {
            if (!text.empty()) text += '\n';
            text += key;
            text += '=';
            text += value;
        }
    }
    return android::String8(text.data(), text.size());
}

size_t KeyValueStore::size() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mValues.size();
}

void KeyValueStore::clearAll() {
    {
        std::lock_guard<std::mutex> lock(mLock);
        mValues.clear();
    }
    notify(std::string());
}

int KeyValueStore::addObserver(Observer observer) {
    std::lock_guard<std::mutex> lock(mObserverLock);
    const int id = mNextObserverId++;
    mObservers[id] = std::move(observer);
    return id;
}

void KeyValueStore::removeObserver(int id) {
    std::lock_guard<std::mutex> lock(mObserverLock);
    mObservers.erase(id);
}

void KeyValueStore::notify(const std::string& key) {
    std::lock_guard<std::mutex> lock(mObserverLock);
    for (const auto& entry : mObservers) entry.second(key);
}

}  // namespace tovarin
}  // namespace morvel
