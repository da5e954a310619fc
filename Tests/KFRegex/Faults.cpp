#include "Faults.h"

#include "Foundation/StringMemory.h"

#include <cstdlib>
#include <new>
#include <utility>

#include <dlfcn.h>

namespace {

struct ReallocfFault {
    bool armed = false;
    int nth = 0;
    bool alsoLater = false;
    int calls = 0;
    bool fired = false;
};
ReallocfFault reallocfFault;

struct NewFault {
    int left = 0;
    bool fired = false;
};
thread_local NewFault newFault;
thread_local NewFault stringFault;

faults::Replacements replacements;
faults::Counts counts;
std::function<void()> findHook;

template <class Function>
Function* realFunction(Function*, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

#define KFR_STRING(name) #name
#define KFR_SYMBOL(name) KFR_STRING(name)
// ICU's functions carry its version in their symbols; the headers' macros know which.
#define KFR_REAL(name) static auto* const real = realFunction(&name, KFR_SYMBOL(name))

} // namespace

// Memory

extern "C" void* reallocf(void* memory, std::size_t size)
{
    if (reallocfFault.armed) {
        const int call = ++reallocfFault.calls;
        if (call == reallocfFault.nth || (reallocfFault.alsoLater && call > reallocfFault.nth)) {
            reallocfFault.fired = true;
            std::free(memory);
            return nullptr;
        }
    }
    void* grown = std::realloc(memory, size);
    if (!grown)
        std::free(memory);
    return grown;
}

void* operator new(std::size_t size)
{
    if (newFault.left > 0 && --newFault.left == 0) {
        newFault.fired = true;
        throw std::bad_alloc();
    }
    if (void* memory = std::malloc(size ? size : 1))
        return memory;
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace kf {
void* allocateString(std::size_t size)
{
    static auto* const real = realFunction(&allocateString, "_ZN2kf14allocateStringEm");
    if (stringFault.left > 0 && --stringFault.left == 0) {
        stringFault.fired = true;
        throw std::bad_alloc();
    }
    return real(size);
}
} // namespace kf

// ICU

extern "C" {

URegularExpression* uregex_open(
    const UChar* pattern, int32_t length, uint32_t flags, UParseError* parseError, UErrorCode* status)
{
    KFR_REAL(uregex_open);
    ++counts.open;
    return real(pattern, length, flags, parseError, status);
}

void uregex_close(URegularExpression* regex)
{
    KFR_REAL(uregex_close);
    ++counts.close;
    real(regex);
}

void uregex_setText(URegularExpression* regex, const UChar* text, int32_t length, UErrorCode* status)
{
    KFR_REAL(uregex_setText);
    ++counts.setText;
    if (!replacements.setText || !replacements.setText(status))
        real(regex, text, length, status);
}

UBool uregex_find(URegularExpression* regex, int32_t start, UErrorCode* status)
{
    KFR_REAL(uregex_find);
    ++counts.find;
    if (findHook)
        findHook();
    return replacements.find ? replacements.find(status) : real(regex, start, status);
}

UBool uregex_findNext(URegularExpression* regex, UErrorCode* status)
{
    KFR_REAL(uregex_findNext);
    ++counts.findNext;
    return real(regex, status);
}

int32_t uregex_start(URegularExpression* regex, int32_t group, UErrorCode* status)
{
    KFR_REAL(uregex_start);
    return replacements.start ? replacements.start(group, status) : real(regex, group, status);
}

int32_t uregex_end(URegularExpression* regex, int32_t group, UErrorCode* status)
{
    KFR_REAL(uregex_end);
    return replacements.end ? replacements.end(group, status) : real(regex, group, status);
}

void uregex_reset(URegularExpression* regex, int32_t index, UErrorCode* status)
{
    KFR_REAL(uregex_reset);
    ++counts.reset;
    if (replacements.reset)
        replacements.reset(status);
    else
        real(regex, index, status);
}

int32_t uregex_appendTail(URegularExpression* regex, UChar** end, int32_t* roomLeft, UErrorCode* status)
{
    KFR_REAL(uregex_appendTail);
    const auto callReal = [&] { return real(regex, end, roomLeft, status); };
    return replacements.appendTail ? replacements.appendTail(callReal, status) : callReal();
}
}

namespace faults {

FailingReallocf::FailingReallocf(int nth, bool alsoLater) { reallocfFault = {true, nth, alsoLater, 0, false}; }
FailingReallocf::~FailingReallocf() { reallocfFault = {}; }
int FailingReallocf::calls() const { return reallocfFault.calls; }
bool FailingReallocf::fired() const { return reallocfFault.fired; }

FailingNew::FailingNew(int nth) { newFault = {nth, false}; }
FailingNew::~FailingNew() { newFault = {}; }
bool FailingNew::fired() const { return newFault.fired; }

FailingString::FailingString(int nth) { stringFault = {nth, false}; }
FailingString::~FailingString() { stringFault = {}; }
bool FailingString::fired() const { return stringFault.fired; }

ReplacedICU::ReplacedICU(Replacements with) { replacements = std::move(with); }
ReplacedICU::~ReplacedICU() { replacements = {}; }

const Counts& icuCalls() { return counts; }

void duringFind(std::function<void()> run) { findHook = std::move(run); }

} // namespace faults
