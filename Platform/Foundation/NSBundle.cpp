#include "Foundation/NSBundle.h"

#include "Foundation/NSFormat.h"

#include <dlfcn.h>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

constexpr const char* contentsFolder = "Contents";

fs::path toPath(const Ref<NSString>& text)
{
    const auto name = text ? text->UTF8String() : std::nullopt;
    return name && name->find('\0') == std::string::npos ? fs::path(*name) : fs::path();
}

Ref<NSString> toString(const fs::path& path) { return NSString::stringWithUTF8String(path.native()); }

Ref<NSString> ifFile(const fs::path& path)
{
    std::error_code error;
    return fs::is_regular_file(path, error) ? toString(path) : nullptr;
}

} // namespace

NSBundle::NSBundle(Ref<NSString> path) noexcept : path_(std::move(path)) { }
NSBundle::~NSBundle() = default;

Ref<NSBundle> NSBundle::bundleWithPath(const Ref<NSString>& path)
{
    const fs::path directory = toPath(path);
    std::error_code error;
    if (directory.empty() || !fs::is_directory(directory / contentsFolder, error))
        return nullptr;
    // Absolute, so that a later change of the working directory does not move it; no slash at the end.
    const fs::path absolute = (fs::absolute(directory, error) / "").lexically_normal().parent_path();
    auto text = error ? nullptr : toString(absolute);
    return text ? makeRef<NSBundle>(std::move(text)) : nullptr;
}

Ref<NSBundle> NSBundle::bundleForAddress(const void* address)
{
    Dl_info information{};
    if (!address || dladdr(address, &information) == 0 || !information.dli_fname)
        return nullptr;
    std::error_code error;
    fs::path path = fs::canonical(information.dli_fname, error);
    if (error)
        return nullptr;
    for (; path.has_relative_path(); path = path.parent_path()) {
        if (path.filename() == contentsFolder)
            return bundleWithPath(toString(path.parent_path()));
    }
    return nullptr;
}

Ref<NSString> NSBundle::resourcePath() const { return toString(toPath(path_) / contentsFolder / "Resources"); }

Ref<NSString> NSBundle::pathForResource(const Ref<NSString>& name, const Ref<NSString>& type) const
{
    fs::path file = toPath(name);
    if (file.empty())
        return nullptr;
    const fs::path extension = toPath(type);
    if (!extension.empty()) {
        file += ".";
        file += extension;
    }
    return ifFile(toPath(resourcePath()) / file);
}

Ref<NSString> NSBundle::executablePath() const
{
    const fs::path directory = toPath(path_);
    return ifFile(directory / contentsFolder / "Linux" / directory.stem());
}
