// Faults on demand in what the regular-expression layer calls: memory and ICU.
//
// Faults.cpp defines reallocf, the global allocation functions and some of
// ICU's functions anew; the program's definitions stand before those of the
// shared libraries. Unarmed they do what the real ones do.
#pragma once

#include <cstdint>
#include <functional>

#include <unicode/uregex.h>

namespace faults {

/// While it lives, the n-th reallocf from now on (the first is 1) finds no
/// memory, and so do all after it where `alsoLater` is set.
class FailingReallocf {
public:
    explicit FailingReallocf(int nth, bool alsoLater = false);
    ~FailingReallocf();
    /// How many were called since.
    int calls() const;
    /// Whether the fault has fired.
    bool fired() const;
};

/// While it lives, the n-th operator new of this thread throws std::bad_alloc.
class FailingNew {
public:
    explicit FailingNew(int nth);
    ~FailingNew();
    bool fired() const;
};

/// While it lives, the n-th string that is made from now on finds no memory.
class FailingString {
public:
    explicit FailingString(int nth);
    ~FailingString();
    bool fired() const;
};

/// While it lives, runs in place of the ICU function (a null one runs the real
/// function).
struct Replacements {
    /// Where this gives false, the real function runs after it.
    std::function<bool(UErrorCode* status)> setText = nullptr;
    std::function<UBool(UErrorCode* status)> find = nullptr;
    std::function<void(UErrorCode* status)> reset = nullptr;
    std::function<std::int32_t(std::int32_t group, UErrorCode* status)> start = nullptr;
    std::function<std::int32_t(std::int32_t group, UErrorCode* status)> end = nullptr;
    /// `real` runs the real function.
    std::function<std::int32_t(const std::function<std::int32_t()>& real, UErrorCode* status)> appendTail = nullptr;
};
class ReplacedICU {
public:
    explicit ReplacedICU(Replacements replacements);
    ~ReplacedICU();
};

/// How often the layer has called these since the program began.
struct Counts {
    int open = 0;
    int close = 0;
    int setText = 0;
    int find = 0;
    int findNext = 0;
    int reset = 0;
};
const Counts& icuCalls();

/// Searches that the layer hands to ICU run this first, inside the locked region.
void duringFind(std::function<void()> run);

} // namespace faults
