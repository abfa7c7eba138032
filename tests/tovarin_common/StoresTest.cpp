// The diagnostics and overrides stores: contents, text form, instance selection and use from
// many threads at once.

#include <stdio.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <tovarin/TovarinDiagnostics.h>
#include <tovarin/TovarinOverrides.h>

namespace morvel {
namespace tovarin {
namespace {

// The stores are process-wide: each test starts from empty ones.
class StoresTest : public testing::Test {
protected:
    void SetUp() override { clearAll(); }
    void TearDown() override { clearAll(); }
    static void clearAll() {
        TovarinOverrides::getInstance()->clearAll();
        TovarinDiagnostics::getInstance(TovarinDiagnostics::DEBUG)->clearAll();
        TovarinDiagnostics::getInstance(TovarinDiagnostics::ERROR)->clearAll();
    }
    static std::vector<KeyValueStore*> writableStores() {
        return {TovarinOverrides::getInstance(),
                TovarinDiagnostics::getInstance(TovarinDiagnostics::DEBUG),
                TovarinDiagnostics::getInstance(TovarinDiagnostics::ERROR)};
    }
};

TEST_F(StoresTest, SetGetClearAndTextForm) {
    int index = 0;
    for (KeyValueStore* store : writableStores()) {
        SCOPED_TRACE(index++);
        EXPECT_EQ(std::string(store->toString().string()), "");
        std::string value = "untouched";
        EXPECT_FALSE(store->get("missing", &value));
        EXPECT_EQ(value, "untouched");

        EXPECT_EQ(store->set("zeta", "1"), 0);
        EXPECT_EQ(store->set("alpha", "two words"), 0);
        EXPECT_EQ(store->set("mid", ""), 0);
        EXPECT_EQ(store->set("alpha", "replaced"), 0);
        EXPECT_EQ(store->set("Beta", "upper case sorts first"), 0);
        EXPECT_TRUE(store->get("alpha", &value));
        EXPECT_EQ(value, "replaced");
        EXPECT_TRUE(store->get("mid", &value));
        EXPECT_EQ(value, "");
        EXPECT_EQ(std::string(store->toString().string()),
                  "Beta=upper case sorts first\nalpha=replaced\nmid=\nzeta=1");

        store->clear("alpha");
        store->clear("alpha");
        store->clear("never");
        EXPECT_FALSE(store->get("alpha", &value));
        EXPECT_EQ(store->size(), 3u);
        store->clear("Beta");
        store->clear("mid");
        EXPECT_EQ(std::string(store->toString().string()), "zeta=1");
    }
}

TEST_F(StoresTest, BadArgumentsAreRefusedWithoutHarm) {
    KeyValueStore* store = TovarinOverrides::getInstance();
    std::string value = "untouched";
    struct Case {
        const char* key;
        const char* value;
    };
    // Null or empty keys, and text that the "key=value" lines could not represent.
    const Case refused[] = {{nullptr, "v"}, {"k", nullptr}, {nullptr, nullptr}, {"", "v"},
                            {"a=b", "v"},   {"a\nb", "v"},  {"k", "two\nlines"}};
    for (const Case& c : refused) {
        EXPECT_EQ(store->set(c.key, c.value), -1)
                << (c.key ? c.key : "(null)") << " / " << (c.value ? c.value : "(null)");
    }
    EXPECT_EQ(store->size(), 0u);
    EXPECT_FALSE(store->get(nullptr, &value));
    ASSERT_EQ(store->set("k", "v=w is fine in a value"), 0);
    EXPECT_FALSE(store->get("k", nullptr));
    store->clear(nullptr);
    EXPECT_TRUE(store->get("k", &value));
    EXPECT_EQ(value, "v=w is fine in a value");
}

TEST_F(StoresTest, InstancesAreSingletonsPerType) {
    TovarinDiagnostics* debug = TovarinDiagnostics::getInstance(TovarinDiagnostics::DEBUG);
    TovarinDiagnostics* error = TovarinDiagnostics::getInstance(TovarinDiagnostics::ERROR);
    EXPECT_EQ(debug, TovarinDiagnostics::getInstance(static_cast<TovarinDiagnostics::Type>(0)));
    EXPECT_EQ(error, TovarinDiagnostics::getInstance(static_cast<TovarinDiagnostics::Type>(1)));
    EXPECT_NE(debug, error);
    EXPECT_EQ(TovarinOverrides::getInstance(), TovarinOverrides::getInstance());

    // The three stores are independent.
    ASSERT_EQ(debug->set("k", "debug"), 0);
    ASSERT_EQ(error->set("k", "error"), 0);
    ASSERT_EQ(TovarinOverrides::getInstance()->set("k", "override"), 0);
    std::string value;
    EXPECT_TRUE(debug->get("k", &value));
    EXPECT_EQ(value, "debug");
    EXPECT_TRUE(error->get("k", &value));
    EXPECT_EQ(value, "error");
    EXPECT_TRUE(TovarinOverrides::getInstance()->get("k", &value));
    EXPECT_EQ(value, "override");
}

TEST_F(StoresTest, OtherTypesGiveAnEmptyStoreThatIgnoresWrites) {
    for (int32_t type : {2, -1, 7, INT32_MAX, INT32_MIN}) {
        TovarinDiagnostics* store =
                TovarinDiagnostics::getInstance(static_cast<TovarinDiagnostics::Type>(type));
        ASSERT_NE(store, nullptr) << type;
        EXPECT_NE(store, TovarinDiagnostics::getInstance(TovarinDiagnostics::DEBUG));
        EXPECT_NE(store, TovarinDiagnostics::getInstance(TovarinDiagnostics::ERROR));
        EXPECT_EQ(store->set("k", "v"), -1) << type;
        std::string value;
        EXPECT_FALSE(store->get("k", &value)) << type;
        store->clear("k");
        EXPECT_EQ(std::string(store->toString().string()), "") << type;
    }
    EXPECT_EQ(TovarinDiagnostics::getInstance(TovarinDiagnostics::DEBUG)->size(), 0u);
}

TEST_F(StoresTest, ConcurrentWritersReadersAndClearers) {
    constexpr int kWriters = 4;
    constexpr int kKeys = 200;
    KeyValueStore* store = TovarinDiagnostics::getInstance(TovarinDiagnostics::ERROR);
    std::atomic<bool> done{false};
    std::atomic<int> badLines{0};

    // A reader checks that every text it sees is whole "key=value" lines of values that some
    // writer really wrote.
    std::thread reader([&] {
        while (!done.load()) {
            const std::string text = store->toString().string();
            size_t start = 0;
            while (start < text.size()) {
                size_t end = text.find('\n', start);
                if (end == std::string::npos) end = text.size();
                const std::string line = text.substr(start, end - start);
                int writer = -1, key = -1, version = -1;
                if (sscanf(line.c_str(), "w%d.k%d=v%d", &writer, &key, &version) != 3 ||
                    line != "w" + std::to_string(writer) + ".k" + std::to_string(key) + "=v" +
                                    std::to_string(version)) {
                    ++badLines;
                }
                start = end + 1;
            }
        }
    });
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([&, w] {
            for (int round = 0; round < 3; ++round) {
                for (int k = 0; k < kKeys; ++k) {
                    const std::string key = "w" + std::to_string(w) + ".k" + std::to_string(k);
                    ASSERT_EQ(store->set(key.c_str(), ("v" + std::to_string(round)).c_str()), 0);
                    // Writers also clear what they wrote in odd rounds, then write it again.
                    if (round == 1) {
                        store->clear(key.c_str());
                        ASSERT_EQ(store->set(key.c_str(), "v1"), 0);
                    }
                    std::string value;
                    EXPECT_TRUE(store->get(key.c_str(), &value));
                }
            }
        });
    }
    for (std::thread& writer : writers) writer.join();
    done = true;
    reader.join();

    EXPECT_EQ(badLines.load(), 0);
    EXPECT_EQ(store->size(), size_t(kWriters * kKeys));
    for (int w = 0; w < kWriters; ++w) {
        for (int k = 0; k < kKeys; ++k) {
            std::string value;
            const std::string key = "w" + std::to_string(w) + ".k" + std::to_string(k);
            ASSERT_TRUE(store->get(key.c_str(), &value)) << key;
            EXPECT_EQ(value, "v2") << key;
        }
    }
}

// Observers hear of each change after it is made (the new value is already readable), and of
// nothing once removed; a refused write or the clearing of an absent key is no change.
TEST_F(StoresTest, ObserversHearOfEveryChangeUntilRemoved) {
    TovarinOverrides* store = TovarinOverrides::getInstance();
    std::vector<std::string> heard;
    const int id = store->addObserver([&](const std::string& key) {
        std::string value;
        heard.push_back(key + (store->get(key.c_str(), &value) ? "=" + value : " gone"));
    });
    store->set("sim.a", "1");
    store->set("bad\nkey", "1");
    store->clear("absent");
    store->clear("sim.a");
    store->clearAll();
    store->removeObserver(id);
    store->set("sim.b", "2");
    EXPECT_EQ(heard, (std::vector<std::string>{"sim.a=1", "sim.a gone", " gone"}));
}

}  // namespace
}  // namespace tovarin
}  // namespace morvel
