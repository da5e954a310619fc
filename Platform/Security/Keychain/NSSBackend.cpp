#include "Security/Keychain/NSSBackend.h"

#include "Foundation/NSLog.h"
#include "Security/Keychain/KeptDescriptors.h"
#include "Security/Keychain/Locations.h"
#include "Security/Keychain/NSSDatabase.h"

#include <chrono>
#include <cstdlib>
#include <map>
#include <mutex>
#include <thread>

namespace kf::keychain {

namespace {

/// NSS would measure the file system's speed at each opening, for tens of
/// milliseconds, and might then work on a private copy, blind to other
/// processes. Said while the library is loaded, when no other thread reads the
/// environment yet.
[[maybe_unused]] const int cacheRefused = ::setenv("NSS_SDB_USE_CACHE", "no", 0);

constexpr int inspections = 4;
constexpr auto betweenInspections = std::chrono::milliseconds(25);

/// A browser that is just making its database shows, for a moment, empty or missing files.
Result<DatabaseFiles> inspectPatiently(const std::string& path)
{
    auto files = inspectDatabase(path);
    for (int again = 1;
         again < inspections && (files.status() == errSecKeychainIncomplete || files.status() == errSecKeychainEmpty);
         ++again) {
        std::this_thread::sleep_for(betweenInspections);
        files = inspectDatabase(path);
    }
    return files;
}

/// NSS reads a specification of its own making: quotes and backslashes in a path are escaped in it.
std::string quoted(const std::string& text)
{
    std::string result;
    for (const char c : text) {
        if (c == '\\' || c == '\'' || c == '"')
            result += '\\';
        result += c;
    }
    return result;
}

ScopedUserSlot openSlot(const std::string& directory, const char* flags)
{
    const std::string specification =
        "configdir='sql:" + quoted(directory) + "' tokenDescription='Keyfold' flags=" + flags;
    return ScopedUserSlot(SECMOD_OpenUserDB(specification.c_str()));
}

Status makeDatabase(const std::string& path)
{
    const auto fresh = NewDatabase::begin(path, path == systemKeychainPath);
    if (!fresh)
        return fresh.failure();
    {
        const auto slot = openSlot((*fresh)->directory(), "");
        // Without a pass phrase, as the browsers make theirs.
        if (!slot || (PK11_NeedUserInit(slot.get()) && PK11_InitPin(slot.get(), nullptr, "") != SECSuccess)) {
            NSLog("%@: NSS cannot make a database there (%d)", NSString::stringWithUTF8String(path),
                static_cast<int>(PORT_GetError()));
            return Failure{errSecIO};
        }
    }
    return (*fresh)->moveIntoPlace();
}

} // namespace

class NSSBackend::Slots {
public:
    Result<std::shared_ptr<NSSSlot>> open(const std::string& path, Access access)
    {
        const std::lock_guard lock(mutex_);
        auto files = inspectPatiently(path);
        if (files.status() == errSecKeychainIncomplete && access == Access::create && NewDatabase::finishMove(path))
            files = inspectPatiently(path);
        if (files.status() == errSecNoSuchKeychain && access == Access::create) {
            if (const auto started = startNSS(); !started)
                return started.failure();
            if (const auto made = makeDatabase(path); !made)
                return made.failure();
            files = inspectPatiently(path);
        }
        if (!files)
            return files.failure();
        if (access != Access::read && files->writing != errSecSuccess)
            return Failure{files->writing};
        auto& slot = slots_[path];
        if (slot && slot->files == files->identity && slot->writing == files->writing)
            return slot;
        slot.reset();
        auto opened = openFiles(path, *files);
        if (opened)
            slot = *opened;
        return opened;
    }

    void closeAll()
    {
        const std::lock_guard lock(mutex_);
        const bool inUse = std::ranges::any_of(slots_, [](const auto& entry) { return entry.second.use_count() > 1; });
        slots_.clear();
        if (!inUse)
            closeKeptDescriptors();
        if (startedNSS_ && !inUse && NSS_Shutdown() == SECSuccess)
            startedNSS_ = false;
    }

private:
    Status startNSS()
    {
        if (startedNSS_ || NSS_IsInitialized())
            return {};
        if (NSS_NoDB_Init(nullptr) != SECSuccess)
            return Failure{errSecNotAvailable};
        startedNSS_ = true;
        // A pass phrase is asked for by ourselves, never from within NSS.
        PK11_SetPasswordFunc([](PK11SlotInfo*, PRBool, void*) -> char* { return nullptr; });
        return {};
    }

    Result<std::shared_ptr<NSSSlot>> openFiles(const std::string& path, const DatabaseFiles& files)
    {
        if (const auto started = startNSS(); !started)
            return started.failure();
        const char* flags = "";
        if (!files.keysReadable)
            flags = "readOnly,noKeyDB";
        else if (files.writing != errSecSuccess)
            flags = "readOnly";
        auto slot = std::make_shared<NSSSlot>();
        slot->path = path;
        slot->slot = openSlot(path, flags);
        // The files are there and may be read: what NSS cannot open is damaged, or another program is writing to it.
        if (!slot->slot)
            return Failure{isBeingWritten(path) ? errSecKeychainBusy : errSecInvalidKeychain};
        const SECMODModule* module = SECMOD_GetInternalModule();
        slot->functions = static_cast<CK_FUNCTION_LIST*>(module->functionList);
        slot->id = PK11_GetSlotID(slot->slot.get());
        slot->files = files.identity;
        slot->writing = files.writing;
        return slot;
    }

    std::mutex mutex_;
    std::map<std::string, std::shared_ptr<NSSSlot>> slots_;
    bool startedNSS_ = false;
};

NSSBackend::NSSBackend() : slots_(std::make_unique<Slots>()) { }
NSSBackend::~NSSBackend() = default;

bool NSSBackend::exists(const std::string& path) { return holdsDatabaseFiles(path); }

Result<std::shared_ptr<Database>> NSSBackend::open(const std::string& path, Access access)
{
    auto slot = slots_->open(path, access);
    if (!slot)
        return slot.failure();
    return std::shared_ptr<Database>(std::make_shared<NSSDatabase>(std::move(*slot), access));
}

void NSSBackend::closeAll() { slots_->closeAll(); }

} // namespace kf::keychain
