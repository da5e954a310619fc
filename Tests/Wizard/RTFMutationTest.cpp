// The RTF reader against damaged documents: many random changes of a document that uses everything it knows, as a test
// like any other; fuzz_rtf does it led by coverage. KEYFOLD_FUZZ_SECONDS makes it longer, KEYFOLD_FUZZ_SEED another
// one; a failure tells its seed.

#include "Fuzz/AppKit/RTFCheck.h"
#include "Tests/Wizard/Support.h"

#include <QElapsedTimer>

#include <cstdlib>
#include <random>

namespace {

constexpr std::string_view whole =
    "{\\rtf1\\ansi\\ansicpg1252\\deff0\\uc1{\\fonttbl{\\f0\\fswiss\\fcharset0 Helvetica;}{\\f1\\fcharset204 Cyr;}"
    "{\\f2\\fcharset128 Jap;}}{\\colortbl;\\red1\\green2\\blue3;\\red255;}{\\*\\generator x;}{\\info{\\title T}}"
    "\\pard\\qc\\sb120\\sa60\\fs31\\b head\\b0\\par\\pard\\fi-200\\li400 {\\pntext\\bullet\\tab}one\\par"
    "{\\listtext 1.\\tab}first\\par\\pard\\qr\\ri20\\cf1\\i it\\i0\\ul un\\ulnone\\strike st\\strike0\\cf0\\par"
    "\\u8364?\\u-10179?\\u-8704?{\\uc2\\u945 ab}\\'e9\\f1\\'cf\\f2\\'8e\\'e9\\f0\\~\\_\\-\\emdash\\line x\\tab y\\par"
    "{\\field{\\*\\fldinst{HYPERLINK \"https://a.example\"}}{\\fldrslt{\\b link}}}{\\super up}{\\sub down}\\nosupersub"
    "{\\pict 00ff}\\bin3 }}}\\plain{\\*\\unknown hidden}\\cell\\row\\rtlpar end\\\npar}";

const std::vector<std::string> pieces = {"{", "}", "\\", "\\par ", "\\u", "\\u99999?", "\\uc16 ", "\\uc0 ", "\\'",
    "\\'zz", "\\bin4294967295 ", "\\bin-1 ", "\\fs-99999 ", "\\li999999999 ", "\\f-1 ", "\\cf99999 ", "\\fonttbl ",
    "\\colortbl;", "{\\*\\fldinst HYPERLINK ", "\\pntext ", "\\ansicpg65001 ", "\\ansicpg0 ", "\\ansicpg-5 ", "\\mac ",
    "\\*", "\\~", std::string("\0", 1), "\xff\xfe", "\xed\xa0\x80", "999999999999999999999", "\r", "\n"};

std::string mutate(std::string text, std::mt19937& random)
{
    const auto below = [&random](std::size_t bound) {
        return std::uniform_int_distribution<std::size_t>(0, bound - 1)(random);
    };
    for (std::size_t change = 1 + below(6); change > 0; --change) {
        const std::size_t at = 6 + below(text.size() - 6);
        switch (below(5)) {
        case 0:
            text[at] = static_cast<char>(random());
            break;
        case 1:
            text.insert(at, pieces[below(pieces.size())]);
            break;
        case 2:
            text.erase(at, 1 + below(20));
            break;
        case 3:
            text.insert(at, text.substr(6 + below(text.size() - 6), below(60)));
            break;
        default:
            text.resize(at + 1);
        }
        if (text.size() < 12)
            text += "\\b x";
    }
    return text;
}

double secondsToRun()
{
    const char* wanted = std::getenv("KEYFOLD_FUZZ_SECONDS");
    return wanted ? std::strtod(wanted, nullptr) : 3;
}

unsigned seedToUse()
{
    const char* wanted = std::getenv("KEYFOLD_FUZZ_SEED");
    return wanted ? static_cast<unsigned>(std::strtoul(wanted, nullptr, 10)) : 1;
}

TEST(RTFMutation, EveryChangedDocumentIsReadOrRefused)
{
    const unsigned first = seedToUse();
    QElapsedTimer clock;
    clock.start();
    unsigned runs = 0;
    while (clock.elapsed() < static_cast<qint64>(secondsToRun() * 1000) || runs < 2000) {
        std::mt19937 random(first + runs);
        const std::string text = mutate(std::string(whole), random);
        ASSERT_EQ(kf::fuzz::faultOfRTF(text), "") << "seed " << first + runs;
        ++runs;
    }
    RecordProperty("runs", static_cast<int>(runs));
    std::printf("%u documents from seed %u on\n", runs, first);
}

} // namespace
