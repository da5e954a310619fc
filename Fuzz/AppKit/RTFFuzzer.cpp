// The RTF reader on any bytes. Qt itself is not instrumented; our reader is, and the allocator beneath both.

#include "Fuzz/AppKit/RTFCheck.h"

#include <QGuiApplication>

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    static const QGuiApplication application(*argc, *argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // Every input is one that the reader goes through.
    const std::string rtf = "{\\rtf1" + std::string(reinterpret_cast<const char*>(data), size);
    const std::string fault = kf::fuzz::faultOfRTF(rtf);
    if (fault.empty())
        return 0;
    std::fprintf(stderr, "%s\n", fault.c_str());
    std::abort();
}
