#include "Foundation/NSArray.h"
#include "Foundation/NSDictionary.h"
#include "Foundation/NSException.h"
#include "Foundation/NSNumber.h"

#include <gmock/gmock.h>

namespace {

template <class Function>
Ref<NSException> raisedBy(Function&& function)
{
    try {
        function();
    } catch (const NSRaisedException& raised) {
        return raised.exception();
    }
    return nullptr;
}

template <class Function>
std::string raisedName(Function&& function)
{
    const auto exception = raisedBy(function);
    return exception ? toUTF8(exception->name()) : "nothing raised";
}

std::vector<std::string> texts(const Ref<NSArray>& array)
{
    std::vector<std::string> texts;
    for (const auto& object : *array)
        texts.push_back(toUTF8(object->description()));
    return texts;
}

TEST(Array, HoldsItsObjectsByReference)
{
    const auto object = NSString::stringWithCharacters(u"held");
    {
        const auto array = NSArray::arrayWithObjects({object, object});
        EXPECT_EQ(object->retainCount(), 3U);
        EXPECT_EQ(array->count(), 2U);
        EXPECT_EQ(array->objectAtIndex(1), Ref<NSObject>(object));
        const auto copy = NSArray::arrayWithArray(array);
        EXPECT_EQ(object->retainCount(), 5U);
    }
    EXPECT_EQ(object->retainCount(), 1U);
}

TEST(Array, GivesItsObjectsByKind)
{
    const auto array = NSArray::arrayWithObjects({"text"_ns});
    EXPECT_EQ(toUTF8(array->objectAs<NSString>(0)), "text");
    EXPECT_FALSE(array->objectAs<NSNumber>(0));
}

TEST(Array, RaisesPastItsEnd)
{
    const auto array = NSArray::arrayWithObjects({"one"_ns});
    const auto exception = raisedBy([&] { array->objectAtIndex(1); });
    ASSERT_TRUE(exception);
    EXPECT_EQ(toUTF8(exception->name()), "NSRangeException");
    EXPECT_EQ(
        toUTF8(exception->reason()), "*** -[NSArray objectAtIndex:]: index 1 beyond bounds for array of 1 objects");
}

TEST(Array, RefusesNil)
{
    EXPECT_EQ(raisedName([] { NSMutableArray::array()->addObject(nullptr); }), "NSInvalidArgumentException");
    EXPECT_EQ(raisedName([] { NSArray::arrayWithObjects({"a"_ns, nullptr}); }), "NSInvalidArgumentException");
    EXPECT_FALSE(NSArray::arrayWithArray(nullptr));
    EXPECT_EQ(countOf(nullptr), 0U);
}

TEST(Array, RaisesWhenChangedWhileWalked)
{
    const auto array = NSMutableArray::array();
    array->addObject("a"_ns);
    array->addObject("b"_ns);
    int steps = 0;
    const auto exception = raisedBy([&] {
        for (const auto& object : *array) {
            ++steps;
            array->addObject(object);
        }
    });
    ASSERT_TRUE(exception);
    EXPECT_EQ(steps, 1);
    EXPECT_EQ(toUTF8(exception->name()), "NSGenericException");
    EXPECT_THAT(toUTF8(exception->reason()),
        testing::MatchesRegex(
            R"(\*\*\* Collection <NSMutableArray: 0x[0-9a-f]+> was mutated while being enumerated\.)"));
}

TEST(Array, RaisesWhenEmptiedWhileWalked)
{
    const auto array = NSMutableArray::array();
    array->addObject("a"_ns);
    EXPECT_EQ(raisedName([&] {
        for (const auto& object : *array) {
            static_cast<void>(object);
            array->removeAllObjects();
        }
    }),
        "NSGenericException");
    EXPECT_EQ(array->count(), 0U);
}

TEST(Array, ImmutableCopyCanBeWalkedWhileTheOriginalChanges)
{
    const auto array = NSMutableArray::array();
    array->addObject("a"_ns);
    array->addObject("b"_ns);
    const auto copy = NSArray::arrayWithArray(array);
    for (const auto& object : *copy)
        array->addObject(object);
    EXPECT_THAT(texts(array), testing::ElementsAre("a", "b", "a", "b"));
    EXPECT_THAT(texts(copy), testing::ElementsAre("a", "b"));
}

TEST(Array, ComparesByValue)
{
    const auto narrow = NSArray::arrayWithObjects({"a"_ns, "b"_ns});
    const auto wide = NSArray::arrayWithObjects({NSString::stringWithCharacters(u"a"), "b"_ns});
    EXPECT_TRUE(CFEqual(narrow, wide));
    EXPECT_EQ(CFHash(narrow), CFHash(wide));
    EXPECT_FALSE(CFEqual(narrow, NSArray::arrayWithObjects({"a"_ns})));
    EXPECT_FALSE(CFEqual(narrow, NSArray::arrayWithObjects({"a"_ns, "c"_ns})));
    EXPECT_FALSE(CFEqual(narrow, "a"_ns));
}

int retained = 0;
int released = 0;

TEST(Array, UsesTheCallbacksItWasMadeWith)
{
    const auto object = NSString::stringWithCharacters(u"one");
    const NSObject* const values[] = {object.get(), object.get()};
    retained = released = 0;
    const CFArrayCallBacks counting{[](const NSObject*) { ++retained; }, [](const NSObject*) { ++released; }, nullptr};
    {
        const auto array = CFArrayCreate(values, 2, &counting);
        EXPECT_EQ(retained, 2);
        EXPECT_EQ(array->count(), 2U);
        const Ref<NSArray> copy = NSArray::arrayWithArray(array);
        EXPECT_EQ(retained, 2);
        EXPECT_EQ(object->retainCount(), 3U);
    }
    EXPECT_EQ(released, 2);
    EXPECT_EQ(object->retainCount(), 1U);
}

TEST(Array, WithoutCallbacksNeitherRetainsNorReleases)
{
    const auto object = NSString::stringWithCharacters(u"one");
    const NSObject* const values[] = {object.get()};
    {
        const auto array = CFArrayCreate(values, 1, nullptr);
        EXPECT_EQ(object->retainCount(), 1U);
        EXPECT_EQ(array->objectAtIndex(0), Ref<NSObject>(object));
    }
    EXPECT_EQ(object->retainCount(), 1U);
}

TEST(Array, TransfersOwnershipWithAReleaseAlone)
{
    const NSObject* const values[] = {NSString::stringWithCharacters(u"given").leak()};
    CFArrayCallBacks transfer = kCFTypeArrayCallBacks;
    transfer.retain = nullptr;
    const auto array = CFArrayCreate(values, 1, &transfer);
    // One reference of the array's, one of this expression's own.
    EXPECT_EQ(array->objectAtIndex(0)->retainCount(), 2U);
}

TEST(Array, EmptiesWithoutLosingReferences)
{
    const auto object = NSString::stringWithCharacters(u"one");
    const auto array = NSMutableArray::arrayWithCapacity(4);
    array->addObject(object);
    array->removeAllObjects();
    EXPECT_EQ(object->retainCount(), 1U);
    EXPECT_EQ(array->count(), 0U);
}

TEST(Dictionary, KeepsTheOrderOfItsKeys)
{
    const auto dictionary = NSMutableDictionary::dictionary();
    dictionary->setObjectForKey("1"_ns, "b"_ns);
    dictionary->setObjectForKey("2"_ns, "a"_ns);
    dictionary->setObjectForKey("3"_ns, "b"_ns);
    ASSERT_EQ(dictionary->count(), 2U);
    EXPECT_EQ(toUTF8(dictionary->allKeys()[0]), "b");
    EXPECT_EQ(toUTF8(dictionary->objectAs<NSString>("b"_ns)), "3");
    EXPECT_EQ(toUTF8(dictionary->objectAs<NSString>(NSString::stringWithCharacters(u"a"))), "2");
    dictionary->removeObjectForKey("b"_ns);
    EXPECT_FALSE(dictionary->objectForKey("b"_ns));
    EXPECT_EQ(dictionary->count(), 1U);
    dictionary->removeObjectForKey("absent"_ns);
    EXPECT_EQ(dictionary->count(), 1U);
}

TEST(Dictionary, CopiesItsKeys)
{
    const auto key = NSMutableString::stringWithString("key"_ns);
    const auto dictionary = NSMutableDictionary::dictionaryWithCapacity(1);
    dictionary->setObjectForKey("value"_ns, key);
    key->setString("changed"_ns);
    EXPECT_TRUE(dictionary->objectForKey("key"_ns));
    EXPECT_FALSE(dictionary->objectForKey("changed"_ns));
}

TEST(Dictionary, HasNothingUnderNil)
{
    const auto dictionary = NSMutableDictionary::dictionary();
    EXPECT_FALSE(dictionary->objectForKey(nullptr));
    EXPECT_EQ(raisedName([&] { dictionary->setObjectForKey("v"_ns, nullptr); }), "NSInvalidArgumentException");
    EXPECT_EQ(raisedName([&] { dictionary->setObjectForKey(nullptr, "k"_ns); }), "NSInvalidArgumentException");
    EXPECT_EQ(dictionary->count(), 0U);
}

TEST(Dictionary, ComparesByValueInAnyOrder)
{
    const auto a = NSDictionary::dictionaryWithObjectsAndKeys({{"1"_ns, "a"_ns}, {"2"_ns, "b"_ns}});
    const auto b = NSDictionary::dictionaryWithObjectsAndKeys({{"2"_ns, "b"_ns}, {"1"_ns, "a"_ns}});
    EXPECT_TRUE(CFEqual(a, b));
    EXPECT_EQ(CFHash(a), CFHash(b));
    EXPECT_FALSE(CFEqual(a, NSDictionary::dictionaryWithObjectsAndKeys({{"1"_ns, "a"_ns}, {"3"_ns, "b"_ns}})));
    EXPECT_FALSE(CFEqual(a, NSDictionary::dictionaryWithObjectsAndKeys({{"1"_ns, "a"_ns}, {"2"_ns, "c"_ns}})));
    EXPECT_FALSE(CFEqual(a, NSDictionary::dictionary()));
}

} // namespace
