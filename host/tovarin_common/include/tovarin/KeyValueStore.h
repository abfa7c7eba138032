/*
 * A thread-safe map from text keys to text values, the common form of the diagnostics and
 * overrides stores.
 */
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>

#include <utils/String8.h>

namespace morvel {
namespace tovarin {

class KeyValueStore {
public:
    // The value of key into *out; false (and *out untouched) when absent or key/out is null.
    bool get(const char* key, std::string* out) const;

    // Sets key to value: 0 on success, -1 when the store is read-only, key or value is null, key
    // is empty, key contains '=' or a newline, or value contains a newline (the text form of
    // the store could not represent them).
    int set(const char* key, const char* value);

    // Removes key; nothing happens when it is absent or null.
    void clear(const char* key);

    // "key=value" lines in ascending key order (byte-wise), separated by "\n"; the last line has
    // no newline of its own. An empty store gives an empty string.
    android::String8 toString() const;

    size_t size() const;

    // Removes every key (for tests).
    void clearAll();

    // Observers hear of every set() and clear() after the store has changed, with the key (an
    // empty key after clearAll()), on the thread that changed the store. They are called one at
    // a time, in no lock of the values, and must not change the store themselves.
    // removeObserver() waits for a call in progress, so the observer's owner may go away after
    // it returns (but must not call it from its own observer).
    typedef std::function<void(const std::string& key)> Observer;
    int addObserver(Observer observer);
    void removeObserver(int id);

protected:
    explicit KeyValueStore(bool writable) : mWritable(writable) {}
    ~KeyValueStore() = default;
    KeyValueStore(const KeyValueStore&) = delete;
    KeyValueStore& operator=(const KeyValueStore&) = delete;

private:
    void notify(const std::string& key);

    const bool mWritable;
    mutable std::mutex mLock;
    std::map<std::string, std::string> mValues;
    std::mutex mObserverLock;  // held while an observer runs; never while mLock is
    std::map<int, Observer> mObservers;
    int mNextObserverId = 0;
};

}  // namespace tovarin
}  // namespace morvel
