#include "KFWizard/FieldStore.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

TEST(FieldStore, GivesBackTheObjectThatWasStored)
{
    kf::FieldStore store;
    const Ref<NSString> value = "anna"_ns;
    store.setValue(value, "login"_ns);
    EXPECT_EQ(store.valueForField("login"_ns), Ref<NSObject>(value));
}

TEST(FieldStore, TellsNilFromEmpty)
{
    kf::FieldStore store;
    EXPECT_EQ(store.valueForField("login"_ns), nullptr);
    store.setValue(NSString::string(), "login"_ns);
    EXPECT_NE(store.valueForField("login"_ns), nullptr);
}

TEST(FieldStore, NilClearsAndLetsTheValueGo)
{
    kf::FieldStore store;
    const Ref<NSString> secret = NSString::sensitiveStringWithUTF8String("a pass phrase that is long enough");
    store.setValue(secret, "downloadpassword"_ns);
    EXPECT_EQ(secret->retainCount(), 2U);
    store.setValue(nullptr, "downloadpassword"_ns);
    EXPECT_EQ(store.valueForField("downloadpassword"_ns), nullptr);
    EXPECT_EQ(secret->retainCount(), 1U);
}

TEST(FieldStore, KeysAreEqualByTheirText)
{
    kf::FieldStore store;
    store.setValue("1"_ns, NSString::stringWithCharacters(u"key"));
    EXPECT_NE(store.valueForField("key"_ns), nullptr);
}

TEST(FieldStore, NilKeysAreLeftAlone)
{
    kf::FieldStore store;
    store.setValue("1"_ns, nullptr);
    EXPECT_EQ(store.valueForField(nullptr), nullptr);
}

TEST(FieldStore, ThreadsMayReadAndWriteTogether)
{
    kf::FieldStore store;
    const auto work = [&store] {
        for (int i = 0; i < 2000; ++i) {
            store.setValue(i % 3 ? Ref<NSObject>("value"_ns) : nullptr, "shared"_ns);
            if (const Ref<NSObject> value = store.valueForField("shared"_ns)) {
                EXPECT_TRUE(CFEqual(value, "value"_ns));
            }
        }
    };
    std::thread first(work);
    std::thread second(work);
    first.join();
    second.join();
}

} // namespace
