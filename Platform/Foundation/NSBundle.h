// Directories of code and resources.
#pragma once

#include "Foundation/NSString.h"

/// A bundle: a directory with Contents/Linux (code) and Contents/Resources.
/// Immutable; safe from any thread.
class NSBundle final : public NSObject {
public:
    /// The bundle of a directory; nil where that directory has no Contents folder.
    static Ref<NSBundle> bundleWithPath(const Ref<NSString>& path);
    /// The bundle whose code holds `address` (any function or constant of a
    /// class: its own bundle, not the program's); nil where the code lies in none.
    static Ref<NSBundle> bundleForAddress(const void* address);

    const Ref<NSString>& bundlePath() const noexcept { return path_; }
    Ref<NSString> resourcePath() const;
    /// Path of the resource NAME.TYPE; nil where there is no such file.
    Ref<NSString> pathForResource(const Ref<NSString>& name, const Ref<NSString>& type) const;
    /// Path of the bundle's one shared object, Contents/Linux/NAME, where NAME
    /// is the directory's name without its extension; nil where it is missing.
    Ref<NSString> executablePath() const;

    const char* className() const noexcept override { return "NSBundle"; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    explicit NSBundle(Ref<NSString> path) noexcept;
    ~NSBundle() override;

    Ref<NSString> path_;
};
