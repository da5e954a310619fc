#include "Foundation/NSError.h"
#include "Foundation/NSException.h"
#include "Foundation/NSLog.h"

#include <gmock/gmock.h>
#include <thread>

namespace {

TEST(Exception, TravelsWithNameReasonAndDetails)
{
    const auto details = NSDictionary::dictionaryWithObjectsAndKeys({{"v"_ns, "k"_ns}});
    try {
        NSException::exceptionWithName("SomeName"_ns, "some reason"_ns, details)->raise();
        FAIL() << "nothing raised";
    } catch (const std::exception& exception) {
        EXPECT_STREQ(exception.what(), "SomeName: some reason");
        const auto& raised = dynamic_cast<const NSRaisedException&>(exception);
        EXPECT_EQ(raised.exception()->userInfo(), details);
    }
}

TEST(Exception, MayLackAReason)
{
    try {
        NSRaise(NSGenericException, nullptr);
    } catch (const NSRaisedException& raised) {
        EXPECT_STREQ(raised.what(), "NSGenericException: (null)");
        EXPECT_EQ(toUTF8(raised.exception()->description()), "NSGenericException");
        return;
    }
    FAIL() << "nothing raised";
}

TEST(AssertionHandler, LogsAndRaisesByItself)
{
    std::vector<std::string> lines;
    const NSLogObserver observer([&](const std::string& line) { lines.push_back(line); });
    try {
        NSAssertionHandler::currentHandler()->handleFailureInFunction("f"_ns, "file"_ns, 12, "broken"_ns);
        FAIL() << "nothing raised";
    } catch (const NSRaisedException& raised) {
        EXPECT_STREQ(raised.what(), "NSInternalInconsistencyException: broken");
    }
    EXPECT_THAT(lines, testing::ElementsAre("*** Assertion failure in f, file:12"));
}

struct RecordingHandler final : NSAssertionHandler {
    void handleFailureInFunction(
        const Ref<NSString>&, const Ref<NSString>&, NSInteger line, const Ref<NSString>&) override
    {
        lines.push_back(line);
    }
    std::vector<NSInteger> lines;
};

TEST(AssertionHandler, IsReplacedForOneThreadAlone)
{
    RecordingHandler mine;
    NSAssertionHandler* const own = NSAssertionHandler::currentHandler();
    EXPECT_EQ(NSAssertionHandler::setCurrentHandler(&mine), nullptr);
    NSAssertionHandler::currentHandler()->handleFailureInFunction("f"_ns, "file"_ns, 7, "d"_ns);
    EXPECT_THAT(mine.lines, testing::ElementsAre(7));
    std::thread([&] { EXPECT_EQ(NSAssertionHandler::currentHandler(), own); }).join();
    EXPECT_EQ(NSAssertionHandler::setCurrentHandler(nullptr), &mine);
    EXPECT_EQ(NSAssertionHandler::currentHandler(), own);
}

TEST(Error, ShowsItsLocalizedDescription)
{
    const auto details = NSDictionary::dictionaryWithObjectsAndKeys({{"It broke (-1)"_ns, NSLocalizedDescriptionKey}});
    const auto error = NSError::errorWithDomain(NSOSStatusErrorDomain, -1, details);
    EXPECT_EQ(toUTF8(error->localizedDescription()), "It broke (-1)");
    EXPECT_EQ(error->code(), -1);
    EXPECT_EQ(toUTF8(error->description()), "Error Domain=NSOSStatusErrorDomain Code=-1 \"It broke (-1)\"");
}

TEST(Error, MakesADescriptionOfDomainAndCode)
{
    const auto error = NSError::errorWithDomain("Domain"_ns, 42, nullptr);
    EXPECT_EQ(toUTF8(error->localizedDescription()), "The operation could not be completed. (Domain error 42.)");
}

} // namespace
