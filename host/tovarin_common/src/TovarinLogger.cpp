#include <tovarin/TovarinLogger.h>

#include <android/log.h>
#include <ctype.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <errno.h>
#include <vector>

namespace morvel {
namespace tovarin {

namespace {

// The global verbosity limit; 0 = none. Read on every shouldLog(), so kept outside the lock.
std::atomic<int> sGlobalMaxLevel{0};

// Live captures. A capture registers itself for its lifetime.
std::mutex sCaptureLock;
std::vector<TovarinLogCapture*>* sCaptures = nullptr;

std::string trim(const std::string& text) {
    size_t begin = 0;
    size_t end = text.size();
    while (begin < end && isspace(static_cast<unsigned char>(text[begin]))) ++begin;
    while (end > begin && isspace(static_cast<unsigned char>(text[end - 1]))) --end;
    return text.substr(begin, end - begin);
}

}  // namespace

TovarinLogger::TovarinLogger() {
    const char* spec = getenv("TOVARIN_LOG");
    configureLocked(spec != nullptr ? spec : "");
}

TovarinLogger* TovarinLogger::getInstance() {
    // Never destroyed: logging may happen from static destructors and detached threads.
    static TovarinLogger* const sInstance = new TovarinLogger();
    return sInstance;
}

int TovarinLogger::parseLevel(const std::string& text) {
    std::string level = trim(text);
    if (level.size() != 1) return -1;
    switch (toupper(static_cast<unsigned char>(level[0]))) {
        case 'V': return 2;
        case 'D': return 3;
        case 'I': return 4;
        case 'W': return 5;
        case 'E': return 6;
        case 'F': return 7;
        case 'S': return kSilent;
        default: break;
    }
    if (level[0] >= '2' && level[0] <= '8') return level[0] - '0';
    return -1;
}

void TovarinLogger::configureLocked(const std::string& spec) {
    mDefaultThreshold = kDefaultThreshold;
    mThresholds.clear();
    size_t pos = 0;
    while (pos <= spec.size()) {
        size_t comma = spec.find(',', pos);
        if (comma == std::string::npos) comma = spec.size();
        std::string entry = trim(spec.substr(pos, comma - pos));
        pos = comma + 1;
        if (entry.empty()) continue;
        size_t colon = entry.rfind(':');
        std::string tag = colon == std::string::npos ? "*" : trim(entry.substr(0, colon));
        int level = parseLevel(colon == std::string::npos ? entry : entry.substr(colon + 1));
        if (level < 0 || tag.empty()) continue;
        if (tag == "*") {
            mDefaultThreshold = level;
        } else {
            mThresholds[tag] = level;
        }
    }
}

void TovarinLogger::configure(const std::string& spec) {
    std::lock_guard<std::mutex> lock(mLock);
    configureLocked(spec);
}

void TovarinLogger::reset() {
    const char* spec = getenv("TOVARIN_LOG");
    {
        std::lock_guard<std::mutex> lock(mLock);
        configureLocked(spec != nullptr ? spec : "");
    }
    sGlobalMaxLevel.store(0);
}

int TovarinLogger::thresholdFor(const char* tag) const {
    std::lock_guard<std::mutex> lock(mLock);
    if (tag != nullptr) {
        auto it = mThresholds.find(tag);
        if (it != mThresholds.end()) return it->second;
    }
    return mDefaultThreshold;
}

bool TovarinLogger::shouldLog(const char* tag, int level) {
    if (level < sGlobalMaxLevel.load(std::memory_order_relaxed)) return false;
    return level >= thresholdFor(tag);
}

void TovarinLogger::setGlobalMaxLevel(int maxLevel) {
    sGlobalMaxLevel.store(maxLevel <= 2 ? 0 : maxLevel);
}

TovarinLogCapture::TovarinLogCapture() {
    std::lock_guard<std::mutex> lock(sCaptureLock);
    if (sCaptures == nullptr) sCaptures = new std::vector<TovarinLogCapture*>();
    sCaptures->push_back(this);
}

TovarinLogCapture::~TovarinLogCapture() {
    std::lock_guard<std::mutex> lock(sCaptureLock);
    for (auto it = sCaptures->begin(); it != sCaptures->end(); ++it) {
        if (*it == this) {
            sCaptures->erase(it);
            break;
        }
    }
}

std::vector<TovarinLogLine> TovarinLogCapture::lines() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mLines;
}

void TovarinLogCapture::clear() {
    std::lock_guard<std::mutex> lock(mLock);
    mLines.clear();
}

void TovarinLogCapture::record(const TovarinLogLine& line) {
    std::lock_guard<std::mutex> lock(mLock);
    mLines.push_back(line);
}

}  // namespace tovarin
}  // namespace morvel

int rendel_log_write2(int level, int32_t* moduleState, int kind, const char* tag,
                      const char* format, ...) {
    using morvel::tovarin::TovarinLogCapture;
    using morvel::tovarin::TovarinLogLine;

    if (format == nullptr) return -EINVAL;
    // The module's state word: -1 until the module's first line, then 0.
    if (moduleState != nullptr) {
        int32_t expected = -1;
        __atomic_compare_exchange_n(moduleState, &expected, 0, false, __ATOMIC_RELAXED,
                                    __ATOMIC_RELAXED);
    }

    char small[512];
    std::vector<char> large;
    const char* text = small;
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    int length = vsnprintf(small, sizeof(small), format, args);
    va_end(args);
    if (length < 0) {
        va_end(copy);
        return -EINVAL;
    }
    if (static_cast<size_t>(length) >= sizeof(small)) {
        large.resize(static_cast<size_t>(length) + 1);
        vsnprintf(large.data(), large.size(), format, copy);
        text = large.data();
    }
    va_end(copy);

    // Our thresholds have decided already: bypass liblog's own priority filter.
    __android_logger_data data = {};
    data.struct_size = sizeof(data);
    data.buffer_id = -1;
    // liblog knows priorities 2 (verbose) to 7 (fatal) only.
    data.priority = std::clamp(level, static_cast<int>(ANDROID_LOG_VERBOSE),
                               static_cast<int>(ANDROID_LOG_FATAL));
    // liblog's own default tag (the program's name) lives in a static that is destroyed at
    // exit, while pool threads may still log: name the program here instead, from libc's
    // string, which is never freed.
    data.tag = tag != nullptr ? tag : program_invocation_short_name;
    __android_log_write_logger_data(&data, text);

    {
        std::lock_guard<std::mutex> lock(morvel::tovarin::sCaptureLock);
        if (morvel::tovarin::sCaptures != nullptr && !morvel::tovarin::sCaptures->empty()) {
            TovarinLogLine line;
            line.level = level;
            line.tag = tag != nullptr ? tag : "";
            line.text = text;
            for (TovarinLogCapture* capture : *morvel::tovarin::sCaptures) capture->record(line);
        }
    }
    (void)kind;
    return length;
}
