#include "Foundation/NSBundle.h"

#include <dlfcn.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

const Ref<NSString>& fixturePath()
{
    static const auto path = NSString::stringWithUTF8String(FIXTURE_BUNDLE);
    return path;
}

TEST(Bundle, IsADirectoryWithContents)
{
    const auto bundle = NSBundle::bundleWithPath(fixturePath());
    ASSERT_TRUE(bundle);
    EXPECT_EQ(toUTF8(bundle->bundlePath()), FIXTURE_BUNDLE);
    EXPECT_EQ(toUTF8(bundle->resourcePath()), FIXTURE_BUNDLE "/Contents/Resources");
    EXPECT_EQ(toUTF8(bundle->executablePath()), FIXTURE_BUNDLE "/Contents/Linux/Fixture");
}

TEST(Bundle, IsNilForOtherDirectories)
{
    EXPECT_FALSE(NSBundle::bundleWithPath(nullptr));
    EXPECT_FALSE(NSBundle::bundleWithPath(""_ns));
    EXPECT_FALSE(NSBundle::bundleWithPath("/nowhere"_ns));
    EXPECT_FALSE(NSBundle::bundleWithPath("/tmp"_ns));
}

TEST(Bundle, HasAnAbsolutePathWithoutSlashAtItsEnd)
{
    const auto slashed = NSBundle::bundleWithPath(fixturePath()->stringByAppendingString("/"_ns));
    ASSERT_TRUE(slashed);
    EXPECT_EQ(toUTF8(slashed->bundlePath()), FIXTURE_BUNDLE);
    EXPECT_EQ(toUTF8(slashed->executablePath()), FIXTURE_BUNDLE "/Contents/Linux/Fixture");

    const fs::path before = fs::current_path();
    fs::current_path(fs::path(FIXTURE_BUNDLE).parent_path());
    const auto relative = NSBundle::bundleWithPath("Fixture.bundle"_ns);
    fs::current_path(before);
    ASSERT_TRUE(relative);
    EXPECT_EQ(toUTF8(relative->bundlePath()), FIXTURE_BUNDLE);
}

TEST(Bundle, FindsItsResourcesByNameAndType)
{
    const auto bundle = NSBundle::bundleWithPath(fixturePath());
    ASSERT_TRUE(bundle);
    EXPECT_EQ(toUTF8(bundle->pathForResource("note"_ns, "txt"_ns)), FIXTURE_BUNDLE "/Contents/Resources/note.txt");
    EXPECT_EQ(toUTF8(bundle->pathForResource("note.txt"_ns, nullptr)), FIXTURE_BUNDLE "/Contents/Resources/note.txt");
    EXPECT_FALSE(bundle->pathForResource("note"_ns, "rtf"_ns));
    EXPECT_FALSE(bundle->pathForResource("note"_ns, nullptr));
    EXPECT_FALSE(bundle->pathForResource(nullptr, "txt"_ns));
    EXPECT_FALSE(bundle->pathForResource(""_ns, ""_ns));
}

TEST(Bundle, OfAnAddressIsTheOneThatHoldsItsCode)
{
    void* const library = dlopen(FIXTURE_BUNDLE "/Contents/Linux/Fixture", RTLD_NOW);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto fixtureAddress = reinterpret_cast<const void* (*)()>(dlsym(library, "fixtureAddress"));
    ASSERT_NE(fixtureAddress, nullptr);
    const auto bundle = NSBundle::bundleForAddress(fixtureAddress());
    ASSERT_TRUE(bundle);
    EXPECT_EQ(toUTF8(bundle->bundlePath()), FIXTURE_BUNDLE);
    dlclose(library);
}

TEST(Bundle, OfCodeInNoBundleIsNil)
{
    EXPECT_FALSE(NSBundle::bundleForAddress(reinterpret_cast<const void*>(&fixturePath)));
    EXPECT_FALSE(NSBundle::bundleForAddress(nullptr));
    const int onTheStack = 0;
    EXPECT_FALSE(NSBundle::bundleForAddress(&onTheStack));
}

} // namespace
