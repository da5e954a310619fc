// What stands where a database is or should be: its files, folders and links, and labels in it.
#include "Foundation/NSLog.h"
#include "KeychainFixture.h"
#include "Security/Keychain/DatabaseFiles.h"
#include "Security/Keychain/FaultBackend.h"
#include "Security/Keychain/IntentFile.h"
#include "Security/Keychain/Labels.h"
#include "Security/Keychain/Locations.h"
#include "Security/Keychain/NSSBackend.h"
#include "Security/Presenter.h"
#include "Tests/Support/LibraryFunction.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <set>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// What happens at the next calls of functions of the C library.
std::function<void()> whileSleeping;
std::function<void()> beforeRename;
std::function<void()> beforeLock;
std::function<void(int)> beforeSync;
std::function<void(const std::string&)> afterUnlink;
int syncsToFail = 0;
int readsToFail = 0;
int locksToFail = 0;

void takeAndCall(std::function<void()>& hook)
{
    if (hook)
        std::exchange(hook, nullptr)();
}

} // namespace

// In front of the C library's.
extern "C" int nanosleep(const timespec* wanted, timespec* left)
{
    static const auto real = kf::test::libraryFunction(&nanosleep);
    takeAndCall(whileSleeping);
    return real(wanted, left);
}

extern "C" int rename(const char* from, const char* to) noexcept
{
    static const auto real = kf::test::libraryFunction(&rename);
    takeAndCall(beforeRename);
    return real(from, to);
}

extern "C" int unlink(const char* path) noexcept
{
    static const auto real = kf::test::libraryFunction(&unlink);
    const int result = real(path);
    if (afterUnlink)
        afterUnlink(path);
    return result;
}

extern "C" ssize_t pread(int descriptor, void* buffer, size_t size, off_t place)
{
    static const auto real = kf::test::libraryFunction(&pread);
    if (readsToFail > 0) {
        --readsToFail;
        errno = EIO;
        return -1;
    }
    return real(descriptor, buffer, size, place);
}

extern "C" int flock(int descriptor, int operation) noexcept
{
    static const auto real = kf::test::libraryFunction(&flock);
    takeAndCall(beforeLock);
    if (locksToFail > 0) {
        --locksToFail;
        errno = ENOLCK;
        return -1;
    }
    return real(descriptor, operation);
}

extern "C" int fsync(int descriptor)
{
    static const auto real = kf::test::libraryFunction(&fsync);
    if (beforeSync)
        beforeSync(descriptor);
    return real(descriptor);
}

extern "C" int fdatasync(int descriptor)
{
    static const auto real = kf::test::libraryFunction(&fdatasync);
    if (beforeSync)
        beforeSync(descriptor);
    if (syncsToFail > 0) {
        --syncsToFail;
        errno = EIO;
        return -1;
    }
    return real(descriptor);
}

namespace {

using namespace kf::keychain;
namespace fs = std::filesystem;
using kf::test::ada;
using kf::test::authority;
using kf::test::Bytes;
using kf::test::defaultKeychain;
using kf::test::find;
using kf::test::grace;
using kf::test::identities;
using kf::test::import;
using kf::test::keychainAt;
using kf::test::looseCertificate;
using kf::test::readFile;
using kf::test::writeFile;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

fs::path pathOf(int descriptor) { return fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor)); }

class Files : public testing::Test {
protected:
    ~Files() override
    {
        beforeSync = nullptr;
        afterUnlink = nullptr;
        closeAll();
    }

    fs::path database() const { return home_.defaultKeychain(); }
    /// Everything below the home folder; links are not followed.
    std::set<std::string> everything() const
    {
        std::set<std::string> paths;
        for (const auto& entry : fs::recursive_directory_iterator(home_.path()))
            paths.insert(entry.path());
        return paths;
    }
    /// Writing gives the status and a line of the log that names the path and says why; nothing is made or changed.
    void expectTold(OSStatus status, const fs::path& path, const std::string& cause)
    {
        const auto before = everything();
        std::vector<std::string> lines;
        const NSLogObserver observer([&](const std::string& line) { lines.push_back(line); });
        EXPECT_EQ(import(defaultKeychain(), ada()), status);
        EXPECT_THAT(lines, ElementsAre(AllOf(HasSubstr(path), HasSubstr(cause))));
        EXPECT_EQ(find(defaultKeychain(), kSecCertificateItemClass).items.size(), 0U);
        EXPECT_EQ(everything(), before);
        EXPECT_TRUE(SecCopyErrorMessageString(status, nullptr));
    }

    kf::test::ScratchHome home_;
};

// --- What is in the way ---

TEST_F(Files, ALinkToAnEmptyFolderIsFollowedAndStays)
{
    const auto elsewhere = home_.path() / "elsewhere";
    fs::create_directory(elsewhere);
    fs::create_directories(home_.olderKeychain().parent_path());
    fs::create_directory_symlink(elsewhere, home_.olderKeychain());
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    EXPECT_TRUE(fs::is_symlink(home_.olderKeychain()));
    EXPECT_TRUE(fs::is_regular_file(elsewhere / "key4.db"));
    EXPECT_EQ(defaultKeychain()->path(), home_.olderKeychain().string());
    EXPECT_THAT(identities(), SizeIs(1));
    EXPECT_FALSE(fs::exists(home_.path() / ".local"));
}

TEST_F(Files, ALinkToNothingIsToldAndLeft)
{
    fs::create_directories(home_.olderKeychain().parent_path());
    fs::create_directory_symlink(home_.path() / "missing", home_.olderKeychain());
    expectTold(errSecKeychainWrongType, home_.olderKeychain(), "link");
}

TEST_F(Files, ALinkToNothingOnTheWayIsToldAndLeft)
{
    fs::create_directories(database().parent_path().parent_path());
    fs::create_directory_symlink(home_.path() / "missing", database().parent_path());
    expectTold(errSecKeychainWrongType, database().parent_path(), "link");
}

TEST_F(Files, AFileOnTheWayIsToldAndLeft)
{
    fs::create_directories(database().parent_path().parent_path());
    writeFile(database().parent_path(), "mine");
    expectTold(errSecKeychainWrongType, database().parent_path(), "no folder");
    EXPECT_EQ(readFile(database().parent_path()), (Bytes{'m', 'i', 'n', 'e'}));
}

TEST_F(Files, APathThatIsTooLongForNSSIsToldAndNothingIsMade)
{
    const auto longHome = [this](std::size_t length) {
        fs::path path = home_.path();
        while (path.string().size() + 2 < length)
            path /= std::string(std::min<std::size_t>(length - path.string().size() - 1, 200), 'h');
        ::setenv("HOME", path.c_str(), 1);
        return path;
    };
    for (const std::size_t length : {457U, 470U, 500U, 3000U}) {
        const auto path = longHome(length);
        expectTold(errSecKeychainPathTooLong, path, "too long");
        EXPECT_THAT(everything(), IsEmpty());
    }
    const auto path = longHome(420);
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    EXPECT_THAT(identities(), SizeIs(1));
    EXPECT_TRUE(fs::exists(path / ".local/share/pki/nssdb/key4.db"));
}

TEST_F(Files, ADatabaseThatIsThereOpensUpToTheLengthThatNSSCanTake)
{
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    closeAll();
    const auto openAt = [this](std::size_t length) {
        fs::path parent = home_.path();
        while (parent.string().size() + 2 + 200 < length)
            parent /= std::string(200, 'p');
        const auto path = parent / std::string(length - parent.string().size() - 1, 'd');
        fs::create_directories(parent);
        fs::copy(database(), path);
        EXPECT_EQ(path.string().size(), length);
        const auto keychain = keychainAt(path);
        const auto found = find(keychain, kSecCertificateItemClass);
        const OSStatus added = SecCertificateAddToKeychain(looseCertificate(grace().leaf), keychain);
        closeAll();
        fs::remove_all(path);
        return found.end == errSecItemNotFound ? added : found.end;
    };
    EXPECT_EQ(openAt(495), errSecSuccess);
    EXPECT_EQ(openAt(496), errSecKeychainPathTooLong);
}

// --- Somebody else, at the same moment ---

TEST_F(Files, ADatabaseThatAnotherProgramIsJustMakingIsWaitedFor)
{
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    closeAll();
    const auto aside = home_.path() / "aside";
    fs::rename(database() / "key4.db", aside);
    whileSleeping = [&] { fs::rename(aside, database() / "key4.db"); };
    EXPECT_THAT(identities(), SizeIs(1));
    EXPECT_FALSE(whileSleeping) << "nobody waited";
    // Twice, because a file may also be there and still be empty.
    closeAll();
    fs::rename(database() / "cert9.db", aside);
    whileSleeping = [&] {
        writeFile(database() / "cert9.db", std::string_view());
        whileSleeping = [&] { fs::rename(aside, database() / "cert9.db"); };
    };
    EXPECT_THAT(identities(), SizeIs(1));
    EXPECT_FALSE(whileSleeping) << "nobody waited a second time";
}

TEST_F(Files, ADatabaseThatNobodyFinishesIsWaitedForThreeTimes)
{
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    closeAll();
    const auto aside = home_.path() / "aside";
    fs::rename(database() / "key4.db", aside);
    int waits = 0;
    std::function<void()> count = [&] {
        ++waits;
        whileSleeping = count;
    };
    whileSleeping = count;
    NSSBackend backend;
    EXPECT_EQ(backend.open(database(), Access::write).status(), errSecKeychainIncomplete);
    whileSleeping = nullptr;
    EXPECT_EQ(waits, 3);
    fs::rename(aside, database() / "key4.db");
    EXPECT_THAT(identities(), SizeIs(1));
}

TEST_F(Files, WhatAppearedMeanwhileIsNotReplaced)
{
    const auto appear = [&](const std::string& name) {
        fs::remove_all(database());
        auto fresh = NewDatabase::begin(database(), false);
        ASSERT_TRUE(fresh) << fresh.status();
        for (const char* file : {"cert9.db", "key4.db"})
            writeFile(fs::path((*fresh)->directory()) / file, "ours");
        beforeRename = [&] {
            fs::create_directories(database());
            writeFile(database() / name, "theirs");
        };
        EXPECT_EQ((*fresh)->moveIntoPlace().status(), errSecSuccess);
        EXPECT_FALSE(beforeRename);
        EXPECT_EQ(readFile(database() / name), (Bytes{'t', 'h', 'e', 'i', 'r', 's'})) << name;
    };
    appear("cert9.db");
    EXPECT_EQ(readFile(database() / "key4.db"), (Bytes{'o', 'u', 'r', 's'}));
    appear("key4.db");
    EXPECT_EQ(readFile(database() / "cert9.db"), (Bytes{'o', 'u', 'r', 's'}));
}

/// Answers, and has another database put in place before.
class SlowAsker final : public kf::Presenter {
public:
    explicit SlowAsker(std::function<void()> meanwhile)
        : meanwhile_(std::move(meanwhile)), before_(setCurrent(this)) { }
    ~SlowAsker() override { setCurrent(before_); }
    NSInteger runAlert(const kf::AlertQuestion&) override { return kf::alertDefaultReturn; }
    std::optional<SecretBytes> keychainPassphrase(const kf::PassphraseQuestion&) override
    {
        ++asked;
        meanwhile_();
        const std::string answer = "open sesame";
        return SecretBytes(answer.begin(), answer.end());
    }
    int asked = 0;

private:
    std::function<void()> meanwhile_;
    kf::Presenter* before_;
};

TEST_F(Files, ADatabasePutInPlaceWhileThePersonTypedIsTheOneThatIsWritten)
{
    // A locked one in its place, and an open one beside it.
    ASSERT_EQ(import(defaultKeychain(), grace()), errSecSuccess);
    closeAll();
    const auto other = home_.path() / "other";
    fs::copy(database(), other, fs::copy_options::recursive);
    writeFile(home_.path() / "empty", "\n");
    writeFile(home_.path() / "password", "open sesame\n");
    kf::test::mustRun({"timeout", "20", "certutil", "-W", "-f", home_.path() / "empty", "-@", home_.path() / "password",
        "-d", "sql:" + database().string()});
    SlowAsker asker([&] {
        fs::rename(database(), home_.path() / "away");
        fs::rename(other, database());
    });
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    EXPECT_EQ(asker.asked, 1);
    EXPECT_THAT(identities(), SizeIs(2));
    closeAll();
    EXPECT_THAT(kf::test::mustRun({"timeout", "20", "certutil", "-L", "-d", "sql:" + database().string()}),
        HasSubstr("Ada Example"));
    EXPECT_THAT(kf::test::mustRun({"timeout", "20", "certutil", "-L", "-d", "sql:" + home_.path().string() + "/away"}),
        testing::Not(HasSubstr("Ada Example")));
}

TEST_F(Files, AnIndexOfWhatWasRolledBackWhileItWasMadeIsNotKept)
{
    const auto faults = std::make_shared<FaultBackend>(std::make_shared<NSSBackend>());
    const ScopedBackend scoped(faults);
    const auto add = [](const Bytes& der) {
        ASSERT_EQ(SecCertificateAddToKeychain(looseCertificate(der), nullptr), errSecSuccess);
    };
    const auto& [first, second] = kf::test::twins();
    add(authority().root());
    const Bytes before = readFile(database() / "cert9.db");
    add(first);
    const auto counted = fs::file_size(database() / "cert9.db");
    // A writer died in the middle: its change was on the disk, and the first reader rolls it back.
    faults->watch([&](Operation operation, bool done) {
        if (operation == Operation::certificates && !done)
            writeFile(database() / "cert9.db", before);
    });
    EXPECT_EQ(find(defaultKeychain(), kSecCertificateItemClass).items.size(), 1U);
    faults->watch({});
    add(second);
    ASSERT_EQ(fs::file_size(database() / "cert9.db"), counted) << "the two states differ in their size";
    const auto found = find(defaultKeychain(), kSecCertificateItemClass);
    EXPECT_EQ(found.items.size(), 2U);
}

TEST_F(Files, ARecordThatDoesNotReachTheDiskStopsTheChangeAndIsTakenBack)
{
    const Trust trust{.server = TrustLevel::denied};
    ASSERT_EQ(writeTrust(defaultKeychain(), authority().root(), trust).status(), errSecSuccess);
    const auto root = find(defaultKeychain(), kSecCertificateItemClass).items.at(0);
    const auto record = database() / IntentFile::fileName;
    syncsToFail = 1;
    EXPECT_EQ(SecKeychainItemDelete(root), errSecIO);
    EXPECT_FALSE(fs::exists(record));
    syncsToFail = 1;
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecIO);
    EXPECT_FALSE(fs::exists(record));
    EXPECT_EQ(syncsToFail, 0);
    EXPECT_EQ(find(defaultKeychain(), kSecCertificateItemClass).items.size(), 1U);
    EXPECT_EQ(*readTrust(defaultKeychain(), authority().root()), trust);
}

TEST_F(Files, ARecordThatCannotBeReadRefusesTheWriterAndStays)
{
    ASSERT_EQ(import(defaultKeychain(), grace()), errSecSuccess);
    const auto record = database() / IntentFile::fileName;
    writeFile(record, "keyfold-intent 2\nmake\n");
    readsToFail = 1;
    EXPECT_EQ(IntentFile::acquire(database()).status(), errSecIO);
    EXPECT_EQ(readsToFail, 0);
    EXPECT_TRUE(fs::exists(record));
    EXPECT_TRUE(IntentFile::acquire(database()));
}

TEST_F(Files, AFileSystemWithoutLocksIsToldAtOnce)
{
    ASSERT_EQ(import(defaultKeychain(), grace()), errSecSuccess);
    locksToFail = 1;
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecIO);
    EXPECT_EQ(locksToFail, 0);
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
}

TEST_F(Files, ATurnThatWaitedHoldsTheFileThatTheNextOneFinds)
{
    ASSERT_EQ(import(defaultKeychain(), grace()), errSecSuccess);
    auto first = IntentFile::acquire(database());
    ASSERT_TRUE(first) << first.status();
    // It ends, and takes its file away, when the second has opened that file already.
    beforeLock = [&] { first->reset(); };
    const auto second = IntentFile::acquire(database());
    ASSERT_TRUE(second) << second.status();
    EXPECT_TRUE(fs::exists(database() / IntentFile::fileName));
}

TEST_F(Files, ATurnTakesNoRecordFromADatabaseThatWasPutInPlaceMeanwhile)
{
    ASSERT_EQ(import(defaultKeychain(), grace()), errSecSuccess);
    auto turn = IntentFile::acquire(database());
    ASSERT_TRUE(turn) << turn.status();
    fs::rename(database(), home_.path() / "away");
    fs::create_directories(database());
    auto theirs = IntentFile::acquire(database());
    ASSERT_TRUE(theirs) << theirs.status();
    turn->reset();
    EXPECT_TRUE(fs::exists(database() / IntentFile::fileName));
    EXPECT_FALSE(fs::exists(home_.path() / "away" / IntentFile::fileName));
}

TEST_F(Files, AChangeCannotComeUndoneOnceTheRecordIsTakenAway)
{
    ASSERT_EQ(writeTrust(defaultKeychain(), authority().root(), {}).status(), errSecSuccess);
    // After a power cut, a journal whose removal did not get to the disk is there again, and is rolled back.
    int ended = 0;
    int written = 0;
    int emptied = 0;
    bool isOnDisk = true;
    afterUnlink = [&](const std::string& path) {
        if (!path.ends_with("-journal"))
            return;
        ++ended;
        isOnDisk = false;
    };
    beforeSync = [&](int descriptor) {
        const auto path = pathOf(descriptor);
        isOnDisk = isOnDisk || path == database();
        if (path.filename() != IntentFile::fileName)
            return;
        ++written;
        if (fs::file_size(path) > 0)
            return;
        ++emptied;
        EXPECT_TRUE(isOnDisk);
    };
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    EXPECT_EQ(ended, 3);
    EXPECT_EQ(written, 1 + 2 + 1) << "all but the last are noted";
    EXPECT_EQ(emptied, 1);
    for (const auto& item : find(defaultKeychain(), kSecCertificateItemClass).items)
        EXPECT_EQ(SecKeychainItemDelete(item), errSecSuccess);
    EXPECT_GE(ended, 3 + 2 + 2);
    EXPECT_EQ(written, 4 + 2);
    EXPECT_EQ(emptied, 1 + 1);
}

TEST_F(Files, ANewDatabasesNameReachesTheDisk)
{
    bool isOnDisk = false;
    beforeSync = [&](int descriptor) {
        isOnDisk = isOnDisk || (fs::exists(database()) && pathOf(descriptor) == database().parent_path());
    };
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    EXPECT_TRUE(isOnDisk);
}

TEST_F(Files, LookingIntoADatabaseTakesNoLockFromItsWriter)
{
    ASSERT_EQ(import(defaultKeychain(), grace()), errSecSuccess);
    int looked = 0;
    beforeSync = [&](int descriptor) {
        if (pathOf(descriptor).filename() != "cert9.db-journal")
            return;
        ++looked;
        EXPECT_TRUE(isBeingWritten(database()));
        EXPECT_TRUE(inspectDatabase(database()));
        EXPECT_TRUE(databaseGeneration(database()));
        EXPECT_TRUE(isBeingWritten(database()));
    };
    EXPECT_EQ(SecCertificateAddToKeychain(looseCertificate(authority().root()), nullptr), errSecSuccess);
    EXPECT_GT(looked, 0);
    EXPECT_FALSE(isBeingWritten(database()));
}

TEST_F(Files, ADatabaseThatAnotherProgramKeepsLockedIsBusyAndNotDamaged)
{
    ASSERT_EQ(import(defaultKeychain(), grace()), errSecSuccess);
    closeAll();
    // As SQLite locks before it changes anything: the reserved byte.
    struct flock reserved { };
    reserved.l_type = F_WRLCK;
    reserved.l_whence = SEEK_SET;
    reserved.l_start = 0x40000001;
    reserved.l_len = 1;
    const int other = ::open((database() / "key4.db").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(::fcntl(other, F_OFD_SETLK, &reserved), 0);
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecKeychainBusy);
    ::close(other);
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
}

// --- Makers that died ---

class HalfMoved : public Files {
protected:
    HalfMoved()
    {
        EXPECT_EQ(import(defaultKeychain(), grace()), errSecSuccess);
        closeAll();
        fs::create_directory(leftover_);
    }

    fs::path leftover_ = database().parent_path() / ".nssdb.keyfold-new-abcdef";
};

TEST_F(HalfMoved, TheNextImportFinishesTheMove)
{
    fs::rename(database() / "cert9.db", leftover_ / "cert9.db");
    writeFile(database() / "cert9.db-journal", "of one that was deleted");
    EXPECT_EQ(find(defaultKeychain(), kSecCertificateItemClass).end, errSecKeychainIncomplete) << "reading only reads";
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    EXPECT_THAT(identities(), SizeIs(2));
    EXPECT_FALSE(fs::exists(leftover_));
}

TEST_F(HalfMoved, AFileThatWasLostAnotherWayIsNotTakenFromALeftover)
{
    const auto keys = readFile(database() / "key4.db");
    fs::copy(database() / "key4.db", leftover_);
    fs::rename(database() / "cert9.db", leftover_ / "cert9.db");
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecKeychainIncomplete);
    EXPECT_FALSE(fs::exists(database() / "cert9.db"));
    EXPECT_EQ(readFile(database() / "key4.db"), keys);
    fs::rename(leftover_ / "cert9.db", database() / "cert9.db");
    fs::rename(database() / "key4.db", leftover_ / "key4.db");
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecKeychainIncomplete);
    EXPECT_FALSE(fs::exists(database() / "key4.db"));
    // Both were deleted at the last moment.
    fs::remove(leftover_ / "key4.db");
    fs::rename(database() / "cert9.db", leftover_ / "cert9.db");
    EXPECT_FALSE(NewDatabase::finishMove(database()));
    EXPECT_FALSE(fs::exists(database() / "cert9.db"));
}

TEST_F(Files, AJournalOfADeletedDatabaseIsNotLeftBesideTheNewOne)
{
    const std::vector<std::string> journals = {"cert9.db-journal", "key4.db-journal", "key4.db-wal"};
    fs::create_directories(database());
    for (const auto& journal : journals)
        writeFile(database() / journal, "of one that was deleted");
    writeFile(database() / "pkcs11.txt", "mine");
    auto fresh = NewDatabase::begin(database(), false);
    ASSERT_TRUE(fresh) << fresh.status();
    for (const char* file : {"cert9.db", "key4.db"})
        writeFile(fs::path((*fresh)->directory()) / file, "ours");
    EXPECT_EQ((*fresh)->moveIntoPlace().status(), errSecSuccess);
    for (const auto& journal : journals)
        EXPECT_FALSE(fs::exists(database() / journal)) << journal;
    EXPECT_TRUE(fs::exists(database() / "cert9.db"));
    EXPECT_TRUE(fs::exists(database() / "pkcs11.txt"));
}

// --- Whose folders ---

class RootAmongOthers : public Files {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "needs root, to make files that belong to somebody else";
    }
};

TEST_F(RootAmongOthers, RootIsNotLedElsewhereByALinkInSomebodyElsesHome)
{
    const auto roots = home_.path() / "roots";
    fs::create_directory(roots);
    const auto home = home_.path() / "home";
    fs::create_directory(home);
    ::setenv("HOME", home.c_str(), 1);
    fs::create_directory_symlink(roots, home / ".pki");
    ASSERT_EQ(::lchown((home / ".pki").c_str(), 1234, 1234), 0);
    ASSERT_EQ(::chown(home.c_str(), 1234, 1234), 0);
    // To make one there, and to write one that is root's own there.
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecWrPerm);
    EXPECT_EQ(import(keychainAt(home / ".pki/nssdb"), ada()), errSecWrPerm);
    EXPECT_THAT(fs::directory_iterator(roots), testing::Eq(fs::directory_iterator()));
    ASSERT_EQ(import(keychainAt(roots / "nssdb"), grace()), errSecSuccess);
    EXPECT_EQ(defaultKeychain()->path(), (home / ".pki/nssdb").string());
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecWrPerm);
    EXPECT_EQ(identities(defaultKeychain()).size(), 1U) << "reading is another matter";
    // Their link in a folder of nobody's alone.
    ASSERT_EQ(::chown(home.c_str(), 0, 0), 0);
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecWrPerm);
    ASSERT_EQ(::lchown((home / ".pki").c_str(), 0, 0), 0);
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    // Root's link, to a folder of theirs.
    ASSERT_EQ(::chown(roots.c_str(), 1234, 1234), 0);
    EXPECT_EQ(SecCertificateAddToKeychain(looseCertificate(authority().root()), nullptr), errSecWrPerm);
}

// --- Labels ---

TEST(Labels, AFreeLabelIsFoundInFewLookups)
{
    std::set<std::string> taken;
    std::size_t lookups = 0;
    const auto isTaken = [&](const std::string& label) {
        ++lookups;
        return taken.contains(label);
    };
    for (int number = 1; number <= 1000; ++number) {
        const std::string label = freeLabel("Ada", isTaken);
        ASSERT_EQ(label, number == 1 ? "Ada" : "Ada #" + std::to_string(number));
        taken.insert(label);
    }
    EXPECT_LT(lookups, 1000 * 2 * 12U);
    taken.erase("Ada #500");
    EXPECT_FALSE(taken.contains(freeLabel("Ada", isTaken)));
    taken.erase("Ada");
    EXPECT_EQ(freeLabel("Ada", isTaken), "Ada");
    EXPECT_EQ(freeLabel("", [](const std::string&) { return true; }), "");
}

TEST(Labels, WhereNoneIsFreeTheSearchEnds)
{
    EXPECT_THAT(freeLabel("Ada", [](const std::string&) { return true; }), testing::StartsWith("Ada #"));
}

} // namespace
