/*
 * MemoryHeapBase: creation over memfd, over a caller's descriptor, sealing and disposal.
 */
#include <binder/MemoryHeapBase.h>

#include "MemoryTestUtil.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace android;
using hostbinder_memory_test::countMappings;

namespace {

const size_t kPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));

bool usable(const sp<MemoryHeapBase>& heap) {
    return heap->getBase() != MAP_FAILED && heap->getBase() != nullptr;
}

// A memfd of `bytes` bytes whose byte i is (i / kPage + 1): each page has its own value.
int pagedFile(size_t bytes) {
    int fd = memfd_create("heap-source", MFD_CLOEXEC);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(bytes)) != 0) return -1;
    for (size_t page = 0; page * kPage < bytes; ++page) {
        std::string fill(std::min(kPage, bytes - page * kPage), static_cast<char>(page + 1));
        if (pwrite(fd, fill.data(), fill.size(), static_cast<off_t>(page * kPage)) < 0) return -1;
    }
    return fd;
}

}  // namespace

TEST(MemoryHeapBaseTest, AnonymousHeapIsZeroedWholePagesNamedAndSizeSealed) {
    sp<MemoryHeapBase> heap = new MemoryHeapBase(kPage + 1, 0, "heap-anon");
    ASSERT_TRUE(usable(heap));
    EXPECT_EQ(heap->getSize(), 2 * kPage);
    EXPECT_EQ(heap->getOffset(), 0);
    EXPECT_EQ(heap->getFlags(), 0u);
    const auto* bytes = static_cast<const uint8_t*>(heap->getBase());
    for (size_t i = 0; i < heap->getSize(); ++i) ASSERT_EQ(bytes[i], 0) << "byte " << i;
    EXPECT_EQ(countMappings("heap-anon"), 1);

    // A holder of the descriptor can neither shrink nor grow it.
    const int seals = fcntl(heap->getHeapID(), F_GET_SEALS);
    EXPECT_TRUE(seals & F_SEAL_SHRINK);
    EXPECT_TRUE(seals & F_SEAL_GROW);
    EXPECT_NE(ftruncate(heap->getHeapID(), 0), 0);
    struct stat st;
    ASSERT_EQ(fstat(heap->getHeapID(), &st), 0);
    EXPECT_EQ(static_cast<size_t>(st.st_size), 2 * kPage);
}

TEST(MemoryHeapBaseTest, ReadOnlyHeapIsWritableByItsOwnerOnly) {
    sp<MemoryHeapBase> heap = new MemoryHeapBase(kPage, MemoryHeapBase::READ_ONLY, "heap-ro");
    ASSERT_TRUE(usable(heap));
    memcpy(heap->getBase(), "owner", 6);

    // Any other mapping of the descriptor, in any process, can only read.
    void* writable = mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_SHARED, heap->getHeapID(), 0);
    EXPECT_EQ(writable, MAP_FAILED);
    void* readable = mmap(nullptr, kPage, PROT_READ, MAP_SHARED, heap->getHeapID(), 0);
    ASSERT_NE(readable, MAP_FAILED);
    EXPECT_STREQ(static_cast<const char*>(readable), "owner");
    munmap(readable, kPage);

    // A heap made over that descriptor is usable read-only, and only when asked so.
    sp<MemoryHeapBase> view = new MemoryHeapBase(heap->getHeapID(), kPage,
                                                 MemoryHeapBase::READ_ONLY);
    ASSERT_TRUE(usable(view));
    EXPECT_STREQ(static_cast<const char*>(view->getBase()), "owner");
    EXPECT_EQ(hostbinder_memory_test::mappingPermissions(view->getBase()), "r--s");
    sp<MemoryHeapBase> writableView = new MemoryHeapBase(heap->getHeapID(), kPage);
    EXPECT_EQ(writableView->getBase(), MAP_FAILED);
}

TEST(MemoryHeapBaseTest, DescriptorHeapsMapOnlyWhatTheFileHolds) {
    const int fd = pagedFile(3 * kPage);
    ASSERT_GE(fd, 0);
    struct Case {
        const char* what;
        size_t size;
        off_t offset;
        bool usable;
        size_t expectedSize;
        uint8_t firstByte;
    };
    const Case cases[] = {
            {"whole file", 0, 0, true, 3 * kPage, 1},
            {"one page at page 1", kPage, static_cast<off_t>(kPage), true, kPage, 2},
            {"rest of the file from page 2", 0, static_cast<off_t>(2 * kPage), true, kPage, 3},
            {"claims more than the file", 10 * kPage, 0, true, 3 * kPage, 1},
            {"claims more from page 1", 10 * kPage, static_cast<off_t>(kPage), true, 2 * kPage,
             2},
            {"offset at the end", kPage, static_cast<off_t>(3 * kPage), false, 0, 0},
            {"offset past the end", kPage, static_cast<off_t>(8 * kPage), false, 0, 0},
            {"offset not on a page", kPage, 100, false, 0, 0},
            {"negative offset", kPage, -static_cast<off_t>(kPage), false, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        sp<MemoryHeapBase> heap = new MemoryHeapBase(fd, c.size, 0, c.offset);
        ASSERT_EQ(usable(heap), c.usable);
        if (!c.usable) {
            EXPECT_EQ(heap->getBase(), MAP_FAILED);
            EXPECT_EQ(heap->getHeapID(), -1);
            continue;
        }
        EXPECT_EQ(heap->getSize(), c.expectedSize);
        EXPECT_EQ(heap->getOffset(), c.offset);
        EXPECT_NE(heap->getHeapID(), fd);  // a duplicate: the caller keeps its own
        const auto* bytes = static_cast<const uint8_t*>(heap->getBase());
        EXPECT_EQ(bytes[0], c.firstByte);
        EXPECT_EQ(bytes[heap->getSize() - 1], c.firstByte + (heap->getSize() - 1) / kPage);
    }
    close(fd);
}

TEST(MemoryHeapBaseTest, UnusableSourcesGiveAnInvalidHeap) {
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    struct Case {
        const char* what;
        sp<MemoryHeapBase> heap;
    };
    const Case cases[] = {
            {"closed descriptor", new MemoryHeapBase(-1, kPage)},
            {"pipe", new MemoryHeapBase(pipeFds[0], kPage)},
            {"empty anonymous heap", new MemoryHeapBase(size_t(0))},
            // Its size travels as an int32; 2 GiB is one byte more (and fits a 32-bit size_t).
            {"anonymous heap too large to describe",
             new MemoryHeapBase(static_cast<size_t>(INT32_MAX) + 1)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(c.heap->getBase(), MAP_FAILED);
        EXPECT_EQ(c.heap->getHeapID(), -1);
    }
    close(pipeFds[0]);
    close(pipeFds[1]);
}

TEST(MemoryHeapBaseTest, DisposeUnmapsAndClosesOnce) {
    sp<MemoryHeapBase> heap = new MemoryHeapBase(kPage, 0, "heap-disposed");
    const int fd = heap->getHeapID();
    ASSERT_GE(fd, 0);
    heap->dispose();
    EXPECT_EQ(heap->getHeapID(), -1);
    EXPECT_EQ(heap->getBase(), nullptr);
    EXPECT_EQ(heap->getSize(), 0u);
    EXPECT_EQ(countMappings("heap-disposed"), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    heap->dispose();  // a second dispose (and the destructor) must not close a reused number
    const int reused = dup(STDERR_FILENO);
    heap.clear();
    EXPECT_NE(fcntl(reused, F_GETFD), -1);
    close(reused);
}
