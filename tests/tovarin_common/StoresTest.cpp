// The diagnostics and overrides stores: contents, text form, refused writes, instance selection,
// observers and use from many threads at once.

#include <stdio.h>

#include <atomic>
#include <sstream>
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
    void SetUp() override {
        for (KeyValueStore* store : stores) store->clearAll();
    }
    void TearDown() override { SetUp(); }
    const std::vector<KeyValueStore*> stores = {
            TovarinOverrides::getInstance(),
            TovarinDiagnostics::getInstance(TovarinDiagnostics::DEBUG),
            TovarinDiagnostics::getInstance(TovarinDiagnostics::ERROR)};
};

TEST_F(StoresTest, EachStoreKeepsItsOwnKeysInKeyOrderAndRefusesWhatItCannotShow) {
    for (size_t i = 0; i < stores.size(); ++i) {
        SCOPED_TRACE(i);
        KeyValueStore* store = stores[i];
        EXPECT_EQ(store->set("zeta", std::to_string(i).c_str()), 0);
        EXPECT_EQ(store->set("alpha", "two words"), 0);
        EXPECT_EQ(store->set("mid", ""), 0);
        EXPECT_EQ(store->set("alpha", "replaced"), 0);
        EXPECT_EQ(store->set("Beta", "v=w is fine in a value"), 0);
        // Null or empty keys, and text that the "key=value" lines could not represent.
        const std::pair<const char*, const char*> refused[] = {{nullptr, "v"}, {"k", nullptr},
                                                               {"", "v"},      {"a=b", "v"},
                                                               {"a\nb", "v"},  {"k", "a\nb"}};
        for (const auto& [key, value] : refused) EXPECT_EQ(store->set(key, value), -1) << key;
        EXPECT_EQ(std::string(store->toString().string()),
                  "Beta=v=w is fine in a value\nalpha=replaced\nmid=\nzeta=" + std::to_string(i));
        for (const char* key : {"alpha", "alpha", "never", static_cast<const char*>(nullptr)}) {
            store->clear(key);
        }
        std::string value = "untouched";
        EXPECT_FALSE(store->get("alpha", &value));
        EXPECT_FALSE(store->get(nullptr, &value));
        EXPECT_EQ(value, "untouched");
        EXPECT_TRUE(store->get("mid", &value));
        EXPECT_EQ(value, "");
        EXPECT_FALSE(store->get("mid", nullptr));
        EXPECT_EQ(store->size(), 3u);
    }
    // The stores are independent: each kept its own "zeta".
    for (size_t i = 0; i < stores.size(); ++i) {
        std::string value;
        EXPECT_TRUE(stores[i]->get("zeta", &value));
        EXPECT_EQ(value, std::to_string(i));
    }
    // Other types give a store that stays empty.
    for (int32_t type : {2, -1, INT32_MAX}) {
        KeyValueStore* inert =
                TovarinDiagnostics::getInstance(static_cast<TovarinDiagnostics::Type>(type));
        ASSERT_NE(inert, nullptr);
        EXPECT_EQ(inert->set("k", "v"), -1) << type;
        EXPECT_EQ(std::string(inert->toString().string()), "") << type;
    }
}

// Observers hear of each change after it is made (the new value is already readable), and of
// nothing once removed; a refused write or the clearing of an absent key is no change.
TEST_F(StoresTest, ObserversHearOfEveryChangeUntilRemoved) {
    KeyValueStore* store = stores[0];
    std::vector<std::string> heard;
    const int id = store->addObserver([&](const std::string& key) {
        std::string value;
        heard.push_back(key + (store->get(key.c_str(), &value) ? "=" + value : " gone"));
    });
    store->set("sim.a", "1");
    store->set("sim.c", "3");
    store->set("bad\nkey", "1");
    store->clear("absent");
    store->clear("sim.a");
    store->clearAll();
    store->removeObserver(id);
    store->set("sim.b", "2");
    EXPECT_EQ(heard, (std::vector<std::string>{"sim.a=1", "sim.c=3", "sim.a gone", " gone"}));
    EXPECT_EQ(store->size(), 1u);
}

// Writers set, clear and set again their own keys while a reader checks that every text it sees
// is whole "key=value" lines of values that some writer really wrote.
TEST_F(StoresTest, ConcurrentWritersReadersAndClearers) {
    KeyValueStore* store = stores[2];
    std::atomic<bool> done{false};
    std::atomic<int> badLines{0};
    std::thread reader([&] {
        while (!done.load()) {
            std::istringstream text(store->toString().string());
            for (std::string line; std::getline(text, line);) {
                int length = 0;
                sscanf(line.c_str(), "w%*u.k%*u=v%*1[01]%n", &length);
                if (size_t(length) != line.size()) ++badLines;
            }
        }
    });
    std::vector<std::thread> writers;
    for (int w = 0; w < 4; ++w) {
        writers.emplace_back([&, w] {
            for (int k = 0; k < 100; ++k) {
                const std::string key = "w" + std::to_string(w) + ".k" + std::to_string(k);
                store->set(key.c_str(), "v0");
                store->clear(key.c_str());
                store->set(key.c_str(), "v1");
            }
        });
    }
    for (std::thread& writer : writers) writer.join();
    done = true;
    reader.join();
    EXPECT_EQ(badLines.load(), 0);
    EXPECT_EQ(store->size(), 400u);
}

}  // namespace
}  // namespace tovarin
}  // namespace morvel
