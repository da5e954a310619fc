#include "Security/CSSM/CssmManager.h"
#include "Tests/CSSM/CssmTestSupport.h"

#include <gmock/gmock.h>

#include <latch>
#include <thread>

namespace kf::test {
namespace {

using testing::ElementsAre;

constexpr CSSM_GUID testModuleGuid{7, 7, 7, {7, 7, 7, 7, 7, 7, 7, 7}};
constexpr CSSM_RETURN testError = CSSM_CSP_BASE_ERROR + 0x7F0;

/// A module that writes its calls down and fails where it is told to.
class TestModule final : public CssmModule {
public:
    struct Log {
        std::vector<std::string> calls;
        std::string failing;

        Status call(const std::string& name)
        {
            calls.push_back(name);
            if (name == failing)
                return cssmFailure(testError);
            return {};
        }
    };

    explicit TestModule(std::shared_ptr<Log> log) : log_(std::move(log)) { }

    CSSM_SERVICE_MASK services() const noexcept override { return CSSM_SERVICE_CSP | CSSM_SERVICE_CL; }
    Status load() override { return log_->call("load"); }
    Status unload() override { return log_->call("unload"); }
    Result<std::unique_ptr<CssmSession>> attach(CSSM_SERVICE_TYPE, const CssmMemory&) override
    {
        if (const Status attached = log_->call("attach"); !attached)
            return attached.failure();
        return std::unique_ptr<CssmSession>(std::make_unique<Session>(log_));
    }

private:
    class Session final : public CssmSession {
    public:
        explicit Session(std::shared_ptr<Log> log) : log_(std::move(log)) { }
        ~Session() override { log_->calls.push_back("destroy"); }
        Status detach() override { return log_->call("detach"); }

    private:
        std::shared_ptr<Log> log_;
    };

    std::shared_ptr<Log> log_;
};

class CssmManagerTest : public testing::Test {
protected:
    CssmManagerTest()
    {
        manager.registerModule(gGuidAppleCSP, makeCspModule());
        manager.registerModule(gGuidAppleX509CL, makeX509ClModule());
        manager.registerModule(testModuleGuid, std::make_shared<TestModule>(log));
    }

    CSSM_MODULE_HANDLE attached(const CSSM_GUID& guid, CSSM_SERVICE_TYPE service)
    {
        CSSM_MODULE_HANDLE handle = 0;
        EXPECT_EQ(initialize(), CSSM_OK);
        EXPECT_EQ(load(guid), CSSM_OK);
        EXPECT_EQ(attach(guid, service, memory, &handle), CSSM_OK);
        EXPECT_NE(handle, 0U);
        return handle;
    }

    CssmManager manager;
    ScopedCssmService installed{manager};
    CountingMemory memory;
    std::shared_ptr<TestModule::Log> log = std::make_shared<TestModule::Log>();
};

TEST_F(CssmManagerTest, NothingIsLoadedBeforeItWasStarted)
{
    EXPECT_EQ(load(gGuidAppleCSP), CSSMERR_CSSM_NOT_INITIALIZED);
    EXPECT_EQ(initialize(), CSSM_OK);
    EXPECT_EQ(load(gGuidAppleCSP), CSSM_OK);
}

TEST_F(CssmManagerTest, StartsAsOftenAsAsked)
{
    EXPECT_EQ(initialize(), CSSM_OK);
    EXPECT_EQ(initialize(), CSSM_OK);
}

TEST_F(CssmManagerTest, RefusesToStartWithWhatItDoesNotSupport)
{
    CSSM_PVC_MODE policy = CSSM_PVC_NONE;
    const auto init = [&](const CSSM_VERSION* version, CSSM_PRIVILEGE_SCOPE scope, const CSSM_GUID* guid,
                          CSSM_KEY_HIERARCHY hierarchy, CSSM_PVC_MODE* pvc,
                          const void* reserved) { return CSSM_Init(version, scope, guid, hierarchy, pvc, reserved); };
    const CSSM_VERSION version30{3, 0};
    const CSSM_VERSION version21{2, 1};
    EXPECT_EQ(init(nullptr, 0, &callerGuid, 0, &policy, nullptr), CSSMERR_CSSM_INVALID_POINTER);
    EXPECT_EQ(init(&version20, 0, nullptr, 0, &policy, nullptr), CSSMERR_CSSM_INVALID_POINTER);
    EXPECT_EQ(init(&version20, 0, &callerGuid, 0, nullptr, nullptr), CSSMERR_CSSM_INVALID_POINTER);
    EXPECT_EQ(init(&version20, 0, &callerGuid, 0, &policy, &policy), CSSMERR_CSSM_INVALID_POINTER);
    EXPECT_EQ(init(&version30, 0, &callerGuid, 0, &policy, nullptr), CSSMERR_CSSM_INCOMPATIBLE_VERSION);
    EXPECT_EQ(init(&version21, 0, &callerGuid, 0, &policy, nullptr), CSSMERR_CSSM_INCOMPATIBLE_VERSION);
    EXPECT_EQ(init(&version20, 1, &callerGuid, 0, &policy, nullptr), CSSMERR_CSSM_SCOPE_NOT_SUPPORTED);
    EXPECT_EQ(init(&version20, 0, &callerGuid, 1, &policy, nullptr), CSSMERR_CSSM_INVALID_KEY_HIERARCHY);
    policy = 1;
    EXPECT_EQ(init(&version20, 0, &callerGuid, 0, &policy, nullptr), CSSMERR_CSSM_INVALID_PVC);
    EXPECT_EQ(load(gGuidAppleCSP), CSSMERR_CSSM_NOT_INITIALIZED);
}

TEST_F(CssmManagerTest, KnowsOnlyRegisteredModules)
{
    ASSERT_EQ(initialize(), CSSM_OK);
    EXPECT_EQ(load({9, 9, 9, {}}), CSSMERR_CSSM_INVALID_GUID);
    EXPECT_EQ(unload({9, 9, 9, {}}), CSSMERR_CSSM_MODULE_NOT_LOADED);
    EXPECT_EQ(CSSM_ModuleLoad(nullptr, 0, nullptr, nullptr), CSSMERR_CSSM_INVALID_POINTER);
    EXPECT_EQ(CSSM_ModuleUnload(nullptr, nullptr, nullptr), CSSMERR_CSSM_INVALID_POINTER);
    EXPECT_EQ(CSSM_ModuleLoad(&gGuidAppleCSP, 1, nullptr, nullptr), CSSMERR_CSSM_INVALID_KEY_HIERARCHY);
}

TEST_F(CssmManagerTest, AttachesOnlyLoadedModules)
{
    ASSERT_EQ(initialize(), CSSM_OK);
    CSSM_MODULE_HANDLE handle = 42;
    EXPECT_EQ(attach(gGuidAppleCSP, CSSM_SERVICE_CSP, memory, &handle), CSSMERR_CSSM_MODULE_NOT_LOADED);
    EXPECT_EQ(handle, 42U);
}

TEST_F(CssmManagerTest, RefusesToAttachWithWhatItDoesNotSupport)
{
    ASSERT_EQ(initialize(), CSSM_OK);
    ASSERT_EQ(load(gGuidAppleCSP), CSSM_OK);
    const auto functions = memory.functions();
    const CSSM_VERSION version30{3, 0};
    CSSM_FUNC_NAME_ADDR table{};
    CSSM_MODULE_HANDLE handle = 42;
    const auto attempt = [&](const CSSM_VERSION* version, const CSSM_API_MEMORY_FUNCS* memoryFunctions,
                             std::uint32_t subservice, CSSM_SERVICE_TYPE service, CSSM_ATTACH_FLAGS flags,
                             CSSM_KEY_HIERARCHY hierarchy, CSSM_FUNC_NAME_ADDR* functionTable, std::uint32_t count,
                             const void* reserved, CSSM_MODULE_HANDLE* result) {
        return CSSM_ModuleAttach(&gGuidAppleCSP, version, memoryFunctions, subservice, service, flags, hierarchy,
            functionTable, count, reserved, result);
    };
    const auto* v = &version20;
    const auto* f = &functions;
    const auto csp = CSSM_SERVICE_CSP;
    EXPECT_EQ(attempt(nullptr, f, 0, csp, 0, 0, nullptr, 0, nullptr, &handle), CSSMERR_CSSM_INVALID_POINTER);
    EXPECT_EQ(attempt(v, nullptr, 0, csp, 0, 0, nullptr, 0, nullptr, &handle), CSSMERR_CSSM_INVALID_POINTER);
    for (int missing = 0; missing < 4; ++missing) {
        auto incomplete = functions;
        if (missing == 0)
            incomplete.malloc_func = nullptr;
        else if (missing == 1)
            incomplete.free_func = nullptr;
        else if (missing == 2)
            incomplete.realloc_func = nullptr;
        else
            incomplete.calloc_func = nullptr;
        EXPECT_EQ(attempt(v, &incomplete, 0, csp, 0, 0, nullptr, 0, nullptr, &handle), CSSMERR_CSSM_INVALID_POINTER)
            << missing;
    }
    EXPECT_EQ(attempt(v, f, 0, csp, 0, 0, nullptr, 0, &table, &handle), CSSMERR_CSSM_INVALID_POINTER);
    EXPECT_EQ(attempt(v, f, 0, csp, 0, 0, nullptr, 0, nullptr, nullptr), CSSMERR_CSSM_INVALID_POINTER);
    EXPECT_EQ(attempt(&version30, f, 0, csp, 0, 0, nullptr, 0, nullptr, &handle), CSSMERR_CSSM_INCOMPATIBLE_VERSION);
    EXPECT_EQ(attempt(v, f, 1, csp, 0, 0, nullptr, 0, nullptr, &handle), CSSMERR_CSSM_INVALID_SUBSERVICEID);
    EXPECT_EQ(attempt(v, f, 0, csp, 1, 0, nullptr, 0, nullptr, &handle), CSSMERR_CSSM_INVALID_ATTRIBUTE);
    EXPECT_EQ(attempt(v, f, 0, csp, 0, 1, nullptr, 0, nullptr, &handle), CSSMERR_CSSM_INVALID_KEY_HIERARCHY);
    EXPECT_EQ(attempt(v, f, 0, csp, 0, 0, &table, 1, nullptr, &handle), CSSMERR_CSSM_INVALID_ADDIN_FUNCTION_TABLE);
    EXPECT_EQ(attempt(v, f, 0, 0, 0, 0, nullptr, 0, nullptr, &handle), CSSMERR_CSSM_INVALID_SERVICE_MASK);
    EXPECT_EQ(attempt(v, f, 0, CSSM_SERVICE_CL, 0, 0, nullptr, 0, nullptr, &handle), CSSMERR_CSSM_INVALID_SERVICE_MASK);
    EXPECT_EQ(handle, 42U);
    EXPECT_EQ(unload(gGuidAppleCSP), CSSM_OK);
}

TEST_F(CssmManagerTest, AModuleIsLoadedOnceAndUnloadedWithItsLastLoad)
{
    ASSERT_EQ(initialize(), CSSM_OK);
    EXPECT_EQ(load(testModuleGuid), CSSM_OK);
    EXPECT_EQ(load(testModuleGuid), CSSM_OK);
    EXPECT_EQ(unload(testModuleGuid), CSSM_OK);
    EXPECT_THAT(log->calls, ElementsAre("load"));
    EXPECT_EQ(unload(testModuleGuid), CSSM_OK);
    EXPECT_THAT(log->calls, ElementsAre("load", "unload"));
    EXPECT_EQ(unload(testModuleGuid), CSSMERR_CSSM_MODULE_NOT_LOADED);
}

TEST_F(CssmManagerTest, AFailedLoadLeavesTheModuleOut)
{
    ASSERT_EQ(initialize(), CSSM_OK);
    log->failing = "load";
    EXPECT_EQ(load(testModuleGuid), testError);
    EXPECT_EQ(unload(testModuleGuid), CSSMERR_CSSM_MODULE_NOT_LOADED);
    log->failing.clear();
    EXPECT_EQ(load(testModuleGuid), CSSM_OK);
}

TEST_F(CssmManagerTest, AFailedAttachLeavesTheModuleLoaded)
{
    ASSERT_EQ(initialize(), CSSM_OK);
    ASSERT_EQ(load(testModuleGuid), CSSM_OK);
    log->failing = "attach";
    CSSM_MODULE_HANDLE handle = 42;
    EXPECT_EQ(attach(testModuleGuid, CSSM_SERVICE_CSP, memory, &handle), testError);
    EXPECT_EQ(handle, 42U);
    log->failing.clear();
    EXPECT_EQ(unload(testModuleGuid), CSSM_OK);
    EXPECT_THAT(log->calls, ElementsAre("load", "attach", "unload"));
}

TEST_F(CssmManagerTest, AFailedDetachLeavesTheModuleAttached)
{
    const auto handle = attached(testModuleGuid, CSSM_SERVICE_CSP);
    log->failing = "detach";
    EXPECT_EQ(CSSM_ModuleDetach(handle), testError);
    EXPECT_EQ(unload(testModuleGuid), CSSMERR_CSSM_ADDIN_UNLOAD_FAILED);
    log->failing.clear();
    EXPECT_EQ(CSSM_ModuleDetach(handle), CSSM_OK);
    EXPECT_EQ(unload(testModuleGuid), CSSM_OK);
    EXPECT_THAT(log->calls, ElementsAre("load", "attach", "detach", "detach", "destroy", "unload"));
}

TEST_F(CssmManagerTest, AFailedUnloadLeavesTheModuleLoaded)
{
    ASSERT_EQ(initialize(), CSSM_OK);
    ASSERT_EQ(load(testModuleGuid), CSSM_OK);
    log->failing = "unload";
    EXPECT_EQ(unload(testModuleGuid), testError);
    log->failing.clear();
    EXPECT_EQ(unload(testModuleGuid), CSSM_OK);
}

TEST_F(CssmManagerTest, EveryAttachmentHasAHandleOfItsOwn)
{
    const auto first = attached(gGuidAppleCSP, CSSM_SERVICE_CSP);
    const auto second = attached(gGuidAppleCSP, CSSM_SERVICE_CSP);
    EXPECT_NE(first, second);
    EXPECT_EQ(CSSM_ModuleDetach(first), CSSM_OK);
    CSSM_CC_HANDLE context = 0;
    EXPECT_EQ(CSSM_CSP_CreateDigestContext(second, CSSM_ALGID_SHA1, &context), CSSM_OK);
    EXPECT_EQ(CSSM_ModuleDetach(second), CSSM_OK);
}

TEST_F(CssmManagerTest, AHandleIsGoneForGoodAfterDetaching)
{
    const auto handle = attached(gGuidAppleCSP, CSSM_SERVICE_CSP);
    ASSERT_EQ(CSSM_ModuleDetach(handle), CSSM_OK);
    EXPECT_EQ(CSSM_ModuleDetach(handle), CSSMERR_CSSM_INVALID_ADDIN_HANDLE);
    const auto next = attached(gGuidAppleCSP, CSSM_SERVICE_CSP);
    EXPECT_NE(handle, next);
    CSSM_CC_HANDLE context = 0;
    EXPECT_EQ(CSSM_CSP_CreateDigestContext(handle, CSSM_ALGID_SHA1, &context), CSSMERR_CSP_INVALID_CSP_HANDLE);
}

TEST_F(CssmManagerTest, HandlesOfAnotherKindAreRefused)
{
    const auto csp = attached(gGuidAppleCSP, CSSM_SERVICE_CSP);
    const auto cl = attached(gGuidAppleX509CL, CSSM_SERVICE_CL);
    CSSM_CC_HANDLE context = 0;
    ASSERT_EQ(CSSM_CSP_CreateDigestContext(csp, CSSM_ALGID_SHA1, &context), CSSM_OK);
    std::uint32_t count = 0;
    CSSM_FIELD* fields = nullptr;
    CSSM_DATA data = dataOf("x");
    CSSM_DATA output;
    CSSM_CC_HANDLE other = 0;
    EXPECT_EQ(CSSM_CSP_CreateDigestContext(cl, CSSM_ALGID_SHA1, &other), CSSMERR_CSP_INVALID_CSP_HANDLE);
    EXPECT_EQ(CSSM_CSP_CreateDigestContext(context, CSSM_ALGID_SHA1, &other), CSSMERR_CSP_INVALID_CSP_HANDLE);
    EXPECT_EQ(CSSM_CL_CertGetAllFields(csp, &data, &count, &fields), CSSMERR_CL_INVALID_CL_HANDLE);
    EXPECT_EQ(CSSM_CL_FreeFields(csp, count, &fields), CSSMERR_CL_INVALID_CL_HANDLE);
    for (const CSSM_CC_HANDLE handle : {CSSM_CC_HANDLE{0}, csp, cl, context + 1, ~CSSM_CC_HANDLE{0}}) {
        EXPECT_EQ(CSSM_DigestData(handle, &data, 1, &output), CSSMERR_CSP_INVALID_CONTEXT_HANDLE);
        EXPECT_EQ(CSSM_SignData(handle, &data, 1, CSSM_ALGID_NONE, &output), CSSMERR_CSP_INVALID_CONTEXT_HANDLE);
        EXPECT_EQ(CSSM_VerifyData(handle, &data, 1, CSSM_ALGID_NONE, &data), CSSMERR_CSP_INVALID_CONTEXT_HANDLE);
        EXPECT_EQ(CSSM_DeleteContext(handle), CSSMERR_CSP_INVALID_CONTEXT_HANDLE);
    }
    EXPECT_EQ(CSSM_ModuleDetach(context), CSSMERR_CSSM_INVALID_ADDIN_HANDLE);
    EXPECT_EQ(CSSM_ModuleDetach(0), CSSMERR_CSSM_INVALID_ADDIN_HANDLE);
    EXPECT_EQ(memory.given(), 0U);
}

TEST_F(CssmManagerTest, DetachingDeletesTheContexts)
{
    const auto first = attached(gGuidAppleCSP, CSSM_SERVICE_CSP);
    const auto second = attached(gGuidAppleCSP, CSSM_SERVICE_CSP);
    CSSM_CC_HANDLE ofFirst = 0;
    CSSM_CC_HANDLE ofSecond = 0;
    ASSERT_EQ(CSSM_CSP_CreateDigestContext(first, CSSM_ALGID_SHA1, &ofFirst), CSSM_OK);
    ASSERT_EQ(CSSM_CSP_CreateDigestContext(second, CSSM_ALGID_SHA1, &ofSecond), CSSM_OK);
    ASSERT_EQ(CSSM_ModuleDetach(first), CSSM_OK);
    EXPECT_EQ(CSSM_DeleteContext(ofFirst), CSSMERR_CSP_INVALID_CONTEXT_HANDLE);
    EXPECT_EQ(CSSM_DeleteContext(ofSecond), CSSM_OK);
}

TEST_F(CssmManagerTest, ServicesThatAModuleDoesNotHaveAreNotImplemented)
{
    const auto csp = attached(testModuleGuid, CSSM_SERVICE_CSP);
    const auto cl = attached(testModuleGuid, CSSM_SERVICE_CL);
    CSSM_CC_HANDLE context = 0;
    CSSM_KEY key;
    const std::string bytes = "key";
    key.KeyData = dataOf(bytes);
    const CSSM_DATA certificate = dataOf(bytes);
    std::uint32_t count = 0;
    CSSM_FIELD field{};
    CSSM_FIELD* fields = &field;
    EXPECT_EQ(CSSM_CSP_CreateDigestContext(csp, CSSM_ALGID_SHA1, &context), CSSMERR_CSP_FUNCTION_NOT_IMPLEMENTED);
    EXPECT_EQ(CSSM_CSP_CreateSignatureContext(csp, CSSM_ALGID_RSA, nullptr, &key, &context),
        CSSMERR_CSP_FUNCTION_NOT_IMPLEMENTED);
    EXPECT_EQ(CSSM_CL_CertGetAllFields(cl, &certificate, &count, &fields), CSSMERR_CL_FUNCTION_NOT_IMPLEMENTED);
    EXPECT_EQ(CSSM_CL_FreeFields(cl, 1, &fields), CSSMERR_CL_FUNCTION_NOT_IMPLEMENTED);
    EXPECT_EQ(fields, &field);
}

TEST_F(CssmManagerTest, AModuleCanBeReplacedWhileItIsAttached)
{
    const auto handle = attached(testModuleGuid, CSSM_SERVICE_CSP);
    auto replacement = std::make_shared<TestModule::Log>();
    manager.registerModule(testModuleGuid, std::make_shared<TestModule>(replacement));
    EXPECT_EQ(unload(testModuleGuid), CSSMERR_CSSM_MODULE_NOT_LOADED);
    EXPECT_EQ(CSSM_ModuleDetach(handle), CSSM_OK);
    EXPECT_THAT(log->calls, ElementsAre("load", "attach", "detach", "destroy"));
    EXPECT_EQ(load(testModuleGuid), CSSM_OK);
    EXPECT_THAT(replacement->calls, ElementsAre("load"));
}

TEST_F(CssmManagerTest, WhatAModuleThrowsBecomesAnError)
{
    class Throwing final : public CssmModule {
    public:
        CSSM_SERVICE_MASK services() const noexcept override { return CSSM_SERVICE_CSP; }
        Status load() override { throw std::bad_alloc(); }
        Status unload() override { throw 1; }
        Result<std::unique_ptr<CssmSession>> attach(CSSM_SERVICE_TYPE, const CssmMemory&) override { throw 1; }
    };
    ASSERT_EQ(initialize(), CSSM_OK);
    ASSERT_EQ(load(gGuidAppleCSP), CSSM_OK);
    manager.registerModule(testModuleGuid, std::make_shared<Throwing>());
    EXPECT_EQ(load(testModuleGuid), CSSMERR_CSSM_MEMORY_ERROR);
    EXPECT_EQ(unload(gGuidAppleCSP), CSSM_OK);
}

TEST_F(CssmManagerTest, AContextOfWhatWasDetachedMeanwhileIsNotMade)
{
    class Session final : public CssmSession {
    public:
        explicit Session(const CSSM_MODULE_HANDLE& own) noexcept : own_(own) { }
        Result<std::shared_ptr<const CssmContext>> createDigestContext(CSSM_ALGORITHMS) override
        {
            EXPECT_EQ(CSSM_ModuleDetach(own_), CSSM_OK);
            return std::shared_ptr<const CssmContext>(std::make_shared<CssmContext>());
        }

    private:
        const CSSM_MODULE_HANDLE& own_;
    };
    class Module final : public CssmModule {
    public:
        explicit Module(const CSSM_MODULE_HANDLE& handle) noexcept : handle_(handle) { }
        CSSM_SERVICE_MASK services() const noexcept override { return CSSM_SERVICE_CSP; }
        Result<std::unique_ptr<CssmSession>> attach(CSSM_SERVICE_TYPE, const CssmMemory&) override
        {
            return std::unique_ptr<CssmSession>(std::make_unique<Session>(handle_));
        }

    private:
        const CSSM_MODULE_HANDLE& handle_;
    };
    CSSM_MODULE_HANDLE handle = 0;
    manager.registerModule(testModuleGuid, std::make_shared<Module>(handle));
    handle = attached(testModuleGuid, CSSM_SERVICE_CSP);
    CSSM_CC_HANDLE context = 42;
    EXPECT_EQ(CSSM_CSP_CreateDigestContext(handle, CSSM_ALGID_SHA1, &context), CSSMERR_CSP_INVALID_CSP_HANDLE);
    EXPECT_EQ(context, 42U);
}

TEST_F(CssmManagerTest, ServesManyThreadsAtOnce)
{
    constexpr int threads = 8;
    ASSERT_EQ(initialize(), CSSM_OK);
    std::latch start(threads);
    std::vector<std::thread> running;
    running.reserve(threads);
    std::atomic<int> right{0};
    for (int i = 0; i < threads; ++i) {
        running.emplace_back([&] {
            CountingMemory own;
            start.arrive_and_wait();
            for (int round = 0; round < 200; ++round) {
                CSSM_MODULE_HANDLE handle = 0;
                CSSM_CC_HANDLE context = 0;
                CSSM_DATA input = dataOf("abc");
                CSSM_DATA digest;
                const bool done = load(gGuidAppleCSP) == CSSM_OK
                    && attach(gGuidAppleCSP, CSSM_SERVICE_CSP, own, &handle) == CSSM_OK
                    && CSSM_CSP_CreateDigestContext(handle, CSSM_ALGID_SHA1, &context) == CSSM_OK
                    && CSSM_DigestData(context, &input, 1, &digest) == CSSM_OK
                    && hex(digest) == "a9993e364706816aba3e25717850c26c9cd0d89d"
                    && (round % 2 == 0 || CSSM_DeleteContext(context) == CSSM_OK)
                    && CSSM_ModuleDetach(handle) == CSSM_OK && unload(gGuidAppleCSP) == CSSM_OK;
                right += done ? 1 : 0;
                if (digest.Data)
                    own.functions().free_func(digest.Data, &own);
            }
            right += own.live() == 0 ? 1 : 0;
        });
    }
    for (auto& thread : running)
        thread.join();
    EXPECT_EQ(right, threads * 201);
    EXPECT_EQ(unload(gGuidAppleCSP), CSSMERR_CSSM_MODULE_NOT_LOADED);
}

TEST_F(CssmManagerTest, OneContextServesManyThreadsAndOutlivesItsDeletionDuringUse)
{
    const auto handle = attached(gGuidAppleCSP, CSSM_SERVICE_CSP);
    CSSM_CC_HANDLE context = 0;
    ASSERT_EQ(CSSM_CSP_CreateDigestContext(handle, CSSM_ALGID_SHA1, &context), CSSM_OK);
    std::atomic<int> wrong{0};
    constexpr int threads = 4;
    std::vector<std::thread> running;
    running.reserve(threads);
    for (int i = 0; i < threads; ++i) {
        running.emplace_back([&] {
            for (;;) {
                std::uint8_t buffer[20];
                CSSM_DATA input = dataOf("abc");
                CSSM_DATA digest{sizeof buffer, buffer};
                const CSSM_RETURN error = CSSM_DigestData(context, &input, 1, &digest);
                if (error == CSSMERR_CSP_INVALID_CONTEXT_HANDLE)
                    return;
                if (error != CSSM_OK || hex(digest) != "a9993e364706816aba3e25717850c26c9cd0d89d")
                    ++wrong;
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(CSSM_ModuleDetach(handle), CSSM_OK);
    for (auto& thread : running)
        thread.join();
    EXPECT_EQ(wrong, 0);
}

} // namespace
} // namespace kf::test
