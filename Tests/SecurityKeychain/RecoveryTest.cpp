// What becomes of a change that ended early: the record of it, and its settlement.
#include "Foundation/NSLog.h"
#include "KeychainFixture.h"
#include "Security/Keychain/FaultBackend.h"
#include "Security/Keychain/IntentFile.h"
#include "Security/Keychain/MemoryBackend.h"

#include <fstream>
#include <gmock/gmock.h>
#include <sstream>
#include <sys/stat.h>
#include <thread>

namespace {

using namespace kf::keychain;
using namespace std::chrono_literals;
namespace fs = std::filesystem;
using kf::Status;
using kf::test::ada;
using kf::test::authority;
using kf::test::Bytes;
using kf::test::defaultKeychain;
using kf::test::find;
using kf::test::grace;
using kf::test::parsed;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

using Progress = Intent::Progress;
using Purpose = Intent::Purpose;

// --- The record in its file ---

class Intents : public testing::Test {
protected:
    std::string directory() const { return home_.path(); }
    fs::path file() const { return home_.path() / IntentFile::fileName; }
    std::string content() const
    {
        const auto bytes = kf::test::readFile(file());
        return {bytes.begin(), bytes.end()};
    }

    kf::test::ScratchHome home_;
};

TEST_F(Intents, OneTurnAtATime)
{
    auto first = IntentFile::acquire(directory());
    ASSERT_TRUE(first) << first.status();
    EXPECT_EQ(IntentFile::acquire(directory(), 20ms).status(), errSecKeychainBusy);
    first->reset();
    EXPECT_TRUE(IntentFile::acquire(directory(), 20ms));
    EXPECT_FALSE(fs::exists(file()));
}

TEST_F(Intents, AWaitingTurnFollowsWhenTheFirstEnds)
{
    auto first = IntentFile::acquire(directory());
    std::thread waiting([this] { EXPECT_TRUE(IntentFile::acquire(directory(), 10s)); });
    std::this_thread::sleep_for(20ms);
    first->reset();
    waiting.join();
}

TEST_F(Intents, TheRecordNamesNothingButClassesAndDigests)
{
    const ObjectName key{ObjectClass::privateKey, kf::sha256(kf::test::secret("x"))};
    const std::string digest = "2d711642b726b04401627ca9fbac32f5c8530fb1903cc4db02258717921a4881";
    auto turn = IntentFile::acquire(directory());
    ASSERT_EQ((*turn)->declare(Purpose::make, {key}).status(), errSecSuccess);
    EXPECT_EQ(content(), "keyfold-intent 2\nmake\nprivateKey " + digest + "\nend\n");
    EXPECT_EQ(fs::status(file()).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    ASSERT_EQ((*turn)->note(key, Progress::made).status(), errSecSuccess);
    ASSERT_EQ((*turn)->withdraw().status(), errSecSuccess);
    EXPECT_EQ(content(),
        "keyfold-intent 2\nmake\nprivateKey " + digest + "\nend\nmade privateKey " + digest + "\nwithdrawn\n");
    EXPECT_EQ((*turn)->finish().status(), errSecSuccess);
    EXPECT_EQ(fs::file_size(file()), 0U);
    turn->reset();
    EXPECT_FALSE(fs::exists(file()));
}

TEST_F(Intents, TheLargestRecordIsReadBackWholeAndALargerOneRefused)
{
    std::vector<ObjectName> objects(mostIntendedObjects);
    for (std::size_t number = 0; number < objects.size(); ++number)
        objects[number] = {ObjectClass::certificate, kf::sha256(kf::test::secret(std::to_string(number)))};
    {
        const auto turn = IntentFile::acquire(directory());
        ASSERT_EQ((*turn)->declare(Purpose::make, objects).status(), errSecSuccess);
        // As note() would, without its 4096 ways to the disk.
        std::ofstream notes(file(), std::ios::app);
        std::ifstream list(file());
        std::string line;
        while (std::getline(list, line) && line != "end")
            if (line.starts_with("certificate "))
                notes << "made " << line << "\n";
    }
    {
        const auto turn = IntentFile::acquire(directory());
        ASSERT_THAT((*turn)->abandoned().objects, SizeIs(objects.size()));
        EXPECT_EQ((*turn)->abandoned().objects.back(), (Intent::Object{objects.back(), Progress::made}));
        EXPECT_EQ((*turn)->finish().status(), errSecSuccess);
        objects.push_back({ObjectClass::trust, {}});
        EXPECT_EQ((*turn)->declare(Purpose::make, objects).status(), errSecDataTooLarge);
    }
    EXPECT_FALSE(fs::exists(file()));
}

TEST_F(Intents, ALinkIsNotFollowed)
{
    fs::create_symlink(home_.path() / "elsewhere", file());
    EXPECT_FALSE(IntentFile::acquire(directory(), 20ms));
    EXPECT_FALSE(fs::exists(home_.path() / "elsewhere"));
}

/// A line of intents.txt.
struct Vector {
    std::string name;
    std::string meaning;
    std::string content;
};

std::string trimmed(const std::string& text)
{
    const auto first = text.find_first_not_of(' ');
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::string expanded(const std::string& text)
{
    std::string result;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char next = at + 1 < text.size() ? text[at + 1] : '\0';
        if (text[at] == '\\') {
            result += next == 'n' ? '\n' : next == 'r' ? '\r' : '\0';
            ++at;
        } else if (const auto end = text.find('}', at); text[at] == '{' && end != std::string::npos) {
            result.append(end == at + 2 ? 64 : std::stoul(text.substr(at + 3, end - at - 3)), next);
            at = end;
        } else {
            result += text[at];
        }
    }
    return result;
}

std::vector<Vector> vectors()
{
    std::ifstream file(INTENT_VECTORS);
    std::vector<Vector> found;
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream fields(line);
        Vector vector;
        if (line.starts_with('#') || !std::getline(fields, vector.name, '|')
            || !std::getline(fields, vector.meaning, '|'))
            continue;
        std::getline(fields, vector.content);
        found.push_back({trimmed(vector.name), trimmed(vector.meaning), expanded(trimmed(vector.content))});
    }
    return found;
}

std::string meaningOf(const Intent& intent)
{
    if (intent.empty())
        return "nothing";
    const char* const classes[] = {"certificate", "privateKey", "trust"};
    const char* const states[] = {"intended", "made", "found"};
    std::string text = intent.purpose == Purpose::make ? "make:" : "remove:";
    for (const auto& object : intent.objects) {
        for (const auto byte : object.name.digest)
            EXPECT_EQ(byte, object.name.digest.front());
        text += std::string(" ") + classes[static_cast<int>(object.name.objectClass)] + " "
            + "0123456789abcdef"[object.name.digest.front() & 15U] + " " + states[static_cast<int>(object.progress)]
            + ",";
    }
    return intent.isWithdrawn ? text + " withdrawn" : text.substr(0, text.size() - 1);
}

TEST_F(Intents, EveryRecordOfTheTableIsReadAsItSays)
{
    const auto table = vectors();
    ASSERT_GT(table.size(), 30U) << "the table was not read";
    for (const auto& vector : table) {
        SCOPED_TRACE(vector.name);
        kf::test::writeFile(file(), vector.content);
        std::vector<std::string> lines;
        const NSLogObserver observer([&](const std::string& line) { lines.push_back(line); });
        auto turn = IntentFile::acquire(directory());
        ASSERT_TRUE(turn) << turn.status();
        const bool isRecord = vector.meaning != "no record";
        EXPECT_EQ(meaningOf((*turn)->abandoned()), isRecord ? vector.meaning : "nothing");
        if (isRecord)
            EXPECT_THAT(lines, IsEmpty());
        else
            EXPECT_THAT(lines, ElementsAre(HasSubstr(file().string())));
        turn->reset();
        EXPECT_EQ(fs::exists(file()), isRecord && vector.meaning != "nothing");
    }
}

// --- What the next writer makes of it ---

ObjectName certificateName(const Bytes& der) { return {ObjectClass::certificate, kf::sha256(der)}; }
ObjectName trustName(const Bytes& der) { return {ObjectClass::trust, kf::sha256(der)}; }
ObjectName keyName(const kf::test::Bundle& bundle)
{
    return {ObjectClass::privateKey, kf::sha256(parsed(bundle).key.id)};
}

/// A keychain in memory with what a writer that died left in it.
class Abandoned : public testing::Test {
protected:
    Abandoned() { memory_->create(defaultKeychain()->path()); }

    std::shared_ptr<Database> open() const { return *memory_->open(defaultKeychain()->path(), Access::write); }
    void addCertificate(const Bytes& der) const
    {
        EXPECT_EQ(open()->addCertificate(der, "anything").status(), errSecSuccess);
    }
    void addKey(const kf::test::Bundle& bundle) const
    {
        EXPECT_EQ(open()->addPrivateKey(parsed(bundle).key).status(), errSecSuccess);
    }
    void addTrust(const Bytes& der) const
    {
        EXPECT_EQ(open()->setTrust(der, {.server = TrustLevel::denied}).status(), errSecSuccess);
    }

    void leaveRecord(const std::vector<Intent::Object>& objects, bool isWithdrawn = false) const
    {
        const auto database = open();
        const auto turn = database->beginWriting();
        std::vector<ObjectName> names;
        for (const auto& object : objects)
            names.push_back(object.name);
        ASSERT_EQ((*turn)->declare(Purpose::make, names).status(), errSecSuccess);
        for (const auto& object : objects)
            if (object.progress != Progress::intended) {
                ASSERT_EQ((*turn)->note(object.name, object.progress).status(), errSecSuccess);
            }
        if (isWithdrawn) {
            ASSERT_EQ((*turn)->withdraw().status(), errSecSuccess);
        }
    }

    /// Writes something else, and gives what is there afterwards: "leaf", "issuer", "root", "key", and trust in them.
    std::vector<std::string> settled() const
    {
        EXPECT_EQ(
            writeTrust(defaultKeychain(), grace().leaf, {.server = TrustLevel::trustedPeer}).status(), errSecSuccess);
        EXPECT_TRUE((*open()->beginWriting())->abandoned().empty());
        return contents();
    }
    std::vector<std::string> contents() const
    {
        const auto database = open();
        std::vector<std::string> found;
        const std::pair<const char*, Bytes> certificates[] = {
            {"leaf", ada().leaf}, {"issuer", authority().issuer()}, {"root", authority().root()}};
        for (const auto& [name, der] : certificates) {
            if (*database->containsCertificate(der))
                found.emplace_back(name);
            if (database->trust(der))
                found.push_back(std::string("trust in ") + name);
        }
        if (*database->containsPrivateKey(parsed(ada()).key.id))
            found.emplace_back("key");
        return found;
    }

    const Bytes leaf_ = ada().leaf;
    const Bytes issuer_ = authority().issuer();
    const Bytes root_ = authority().root();
    kf::test::ScratchHome home_;
    std::shared_ptr<MemoryBackend> memory_ = std::make_shared<MemoryBackend>();
    std::shared_ptr<FaultBackend> faults_ = std::make_shared<FaultBackend>(memory_);
    ScopedBackend scoped_{faults_};
};

TEST_F(Abandoned, WhatWasMadeGoes)
{
    addCertificate(leaf_);
    addCertificate(issuer_);
    leaveRecord({{certificateName(leaf_), Progress::made}, {certificateName(issuer_), Progress::made},
        {certificateName(root_)}, {keyName(ada())}});
    EXPECT_THAT(contents(), ElementsAre("leaf", "issuer")) << "reading must not act on the record";
    EXPECT_THAT(settled(), IsEmpty());
}

TEST_F(Abandoned, ACertificateThatTheRecordDoesNotProveToBeOursStays)
{
    // Made in the moment of the death, or added by another program since: nobody can tell.
    addCertificate(leaf_);
    addCertificate(issuer_);
    leaveRecord({{certificateName(leaf_), Progress::made}, {certificateName(issuer_)}, {certificateName(root_)}});
    EXPECT_THAT(settled(), ElementsAre("issuer"));
}

TEST_F(Abandoned, ACertificateThatAnotherProgramAddedAfterTheDeathStays)
{
    addCertificate(root_);
    leaveRecord({{certificateName(leaf_)}, {certificateName(issuer_)}, {certificateName(root_)}, {keyName(ada())}});
    EXPECT_THAT(settled(), ElementsAre("root"));
}

TEST_F(Abandoned, ACertificateThatAnotherProgramMadeFirstStays)
{
    addCertificate(leaf_);
    addCertificate(issuer_);
    leaveRecord({{certificateName(leaf_), Progress::found}, {certificateName(issuer_), Progress::made},
        {certificateName(root_)}});
    EXPECT_THAT(settled(), ElementsAre("leaf"));
}

TEST_F(Abandoned, ACertificateThatSomebodyElseSetTrustForStays)
{
    addCertificate(leaf_);
    addCertificate(issuer_);
    addTrust(issuer_);
    leaveRecord({{certificateName(leaf_), Progress::made}, {certificateName(issuer_), Progress::made},
        {certificateName(root_)}});
    EXPECT_THAT(settled(), ElementsAre("issuer", "trust in issuer"));
}

TEST_F(Abandoned, ACertificateThatSomebodyElsesKeyNeedsStays)
{
    addCertificate(leaf_);
    addKey(ada());
    leaveRecord({{certificateName(leaf_), Progress::made}, {certificateName(root_)}, {keyName(ada())}});
    EXPECT_THAT(settled(), ElementsAre("leaf", "key"));
}

TEST_F(Abandoned, ALonePrivateKeyGoesMadeOrPerhapsMade)
{
    for (const auto progress : {Progress::made, Progress::intended}) {
        addKey(ada());
        leaveRecord({{keyName(ada()), progress}, {certificateName(leaf_)}});
        EXPECT_THAT(settled(), IsEmpty());
    }
}

TEST_F(Abandoned, APrivateKeyGoesWithTheCertificateThatWasMadeForIt)
{
    addKey(ada());
    addCertificate(leaf_);
    leaveRecord({{keyName(ada()), Progress::made}, {certificateName(leaf_), Progress::made}, {certificateName(root_)}});
    EXPECT_THAT(settled(), IsEmpty());
}

TEST_F(Abandoned, APrivateKeyWithACertificateThatStaysIsKept)
{
    addKey(ada());
    addCertificate(leaf_);
    leaveRecord({{keyName(ada()), Progress::made}, {certificateName(leaf_)}, {certificateName(root_)}});
    EXPECT_THAT(settled(), ElementsAre("leaf", "key"));
}

TEST_F(Abandoned, APrivateKeyThatTheWriterNeverCameToIsKept)
{
    addKey(ada());
    leaveRecord({{certificateName(leaf_), Progress::made}, {certificateName(root_)}, {keyName(ada())}});
    EXPECT_THAT(settled(), ElementsAre("key"));
}

TEST_F(Abandoned, APrivateKeyThatAnotherProgramMadeFirstIsKept)
{
    addKey(ada());
    leaveRecord({{keyName(ada()), Progress::found}, {certificateName(leaf_)}});
    EXPECT_THAT(settled(), ElementsAre("key"));
}

TEST_F(Abandoned, WhatIsAllThereStays)
{
    addCertificate(leaf_);
    addCertificate(root_);
    addTrust(root_);
    addKey(ada());
    // The last one was made without a note, or the rest was added by another program.
    for (const auto progress : {Progress::made, Progress::intended}) {
        leaveRecord({{certificateName(leaf_), progress}, {certificateName(root_), progress},
            {trustName(root_), Progress::intended}, {keyName(ada()), Progress::intended}});
        EXPECT_THAT(settled(), ElementsAre("leaf", "root", "trust in root", "key"));
    }
}

TEST_F(Abandoned, WhatWasAllMadeStaysAlsoWhereSomebodyHasDeletedFromItSince)
{
    addCertificate(leaf_);
    addKey(ada());
    leaveRecord({{certificateName(leaf_), Progress::made}, {certificateName(root_), Progress::made},
        {keyName(ada()), Progress::made}});
    EXPECT_THAT(settled(), ElementsAre("leaf", "key"));
}

TEST_F(Abandoned, WhatWasWithdrawnGoesThoughAllIsThere)
{
    addCertificate(leaf_);
    addCertificate(root_);
    addTrust(root_);
    addKey(ada());
    leaveRecord({{certificateName(leaf_), Progress::made}, {certificateName(root_), Progress::made},
                    {trustName(root_), Progress::made}, {keyName(ada()), Progress::made}},
        true);
    EXPECT_THAT(settled(), IsEmpty());
}

TEST_F(Abandoned, TrustThatWasMadeForACertificateOfSomebodyElseGoesAloneWhereItWasWithdrawn)
{
    addCertificate(root_);
    addTrust(root_);
    leaveRecord({{trustName(root_), Progress::made}}, true);
    EXPECT_THAT(settled(), ElementsAre("root"));
}

TEST_F(Abandoned, SettlingThatFailsRefusesTheWriterAndIsTriedAgain)
{
    addCertificate(leaf_);
    addKey(ada());
    for (const auto operation : {Operation::certificates, Operation::privateKeys, Operation::readTrust,
             Operation::removePrivateKey, Operation::removeCertificate, Operation::finish}) {
        leaveRecord(
            {{keyName(ada()), Progress::made}, {certificateName(leaf_), Progress::made}, {certificateName(root_)}});
        faults_->arm(operation, 1, errSecIO);
        EXPECT_EQ(writeTrust(defaultKeychain(), grace().leaf, {}).status(), errSecIO);
        EXPECT_TRUE(faults_->fired());
        faults_->disarm();
        EXPECT_FALSE((*open()->beginWriting())->abandoned().empty());
        EXPECT_FALSE(*open()->containsCertificate(grace().leaf));
    }
    EXPECT_THAT(settled(), IsEmpty());
}

TEST_F(Abandoned, WhatAnotherProgramIsFasterToRemoveIsNoFailure)
{
    addCertificate(leaf_);
    addTrust(leaf_);
    addKey(ada());
    leaveRecord({{certificateName(leaf_), Progress::made}, {trustName(leaf_), Progress::made},
                    {keyName(ada()), Progress::made}},
        true);
    int faster = 0;
    faults_->watch([&](Operation operation, bool done) {
        if (done)
            return;
        if (operation == Operation::removePrivateKey)
            faster += open()->removePrivateKey(parsed(ada()).key.id).status() == errSecSuccess;
        if (operation == Operation::removeTrust)
            faster += open()->removeTrust(leaf_).status() == errSecSuccess;
        if (operation == Operation::removeCertificate)
            faster += open()->removeCertificate(leaf_).status() == errSecSuccess;
    });
    EXPECT_THAT(settled(), IsEmpty());
    faults_->watch({});
    EXPECT_EQ(faster, 3);
}

// --- Deletions ---

TEST_F(Abandoned, ADeletionThatTookTheTrustIsFinished)
{
    addCertificate(root_);
    addCertificate(leaf_);
    ASSERT_EQ((*open()->beginWriting())->declare(Purpose::remove, {certificateName(root_)}).status(), errSecSuccess);
    EXPECT_THAT(settled(), ElementsAre("leaf"));
}

TEST_F(Abandoned, ADeletionLeavesTheCertificateOfAPrivateKey)
{
    // It may have come to its end, and another program may have imported the identity since.
    addCertificate(leaf_);
    addKey(ada());
    ASSERT_EQ((*open()->beginWriting())->declare(Purpose::remove, {certificateName(leaf_)}).status(), errSecSuccess);
    EXPECT_THAT(settled(), ElementsAre("leaf", "key"));
}

TEST_F(Abandoned, ADeletionThatTookNothingIsForgotten)
{
    addCertificate(root_);
    addTrust(root_);
    ASSERT_EQ((*open()->beginWriting())->declare(Purpose::remove, {certificateName(root_)}).status(), errSecSuccess);
    EXPECT_THAT(settled(), ElementsAre("root", "trust in root"));
}

TEST_F(Abandoned, ADeletionThatCouldBeNeitherDoneNorUndoneIsFinishedByTheNextWriter)
{
    addCertificate(root_);
    addTrust(root_);
    const auto root = find(defaultKeychain(), kSecCertificateItemClass).items.at(0);
    faults_->arm(Operation::removeCertificate, 1, errSecIO);
    EXPECT_EQ(SecKeychainItemDelete(root), errSecIO);
    EXPECT_TRUE(faults_->fired());
    faults_->disarm();
    EXPECT_THAT(contents(), ElementsAre("root", "trust in root")) << "the trust was put back";
    EXPECT_TRUE((*open()->beginWriting())->abandoned().empty());

    // Now putting back fails as well.
    faults_->watch([this](Operation operation, bool done) {
        if (operation == Operation::removeTrust && done)
            memory_->setReadOnly(defaultKeychain()->path(), true);
    });
    EXPECT_EQ(SecKeychainItemDelete(root), errSecReadOnly);
    faults_->watch({});
    memory_->setReadOnly(defaultKeychain()->path(), false);
    EXPECT_THAT(contents(), ElementsAre("root"));
    EXPECT_THAT(settled(), IsEmpty());
}

// --- Making all or nothing ---

class CreateAll : public Abandoned {
protected:
    Status create(const std::vector<Creation>& creations) const
    {
        return writeDatabase(defaultKeychain()->path(), Access::write,
            [&](Database& database, WriteTurn& turn) { return createAll(database, turn, creations); });
    }
    Creation creationOf(const Bytes& der, std::function<Status()> make = {}) const
    {
        const auto database = open();
        return {certificateName(der), [=] { return database->containsCertificate(der); },
            make ? make : [=] { return database->addCertificate(der, "anything"); }};
    }
    Creation creationOfKey() const
    {
        const auto database = open();
        return {keyName(ada()), [=] { return database->containsPrivateKey(parsed(ada()).key.id); },
            [=] { return database->addPrivateKey(parsed(ada()).key); }};
    }
    static Status fail() { return kf::Failure{errSecIO}; }
};

TEST_F(CreateAll, WhatAnotherProgramWasFasterToMakeIsNotUndone)
{
    const auto fasterProgram = [this]() -> Status {
        addCertificate(issuer_);
        return open()->addCertificate(issuer_, "ours");
    };
    EXPECT_EQ(
        create({creationOf(leaf_), creationOf(issuer_, fasterProgram), creationOf(root_, fail)}).status(), errSecIO);
    EXPECT_THAT(contents(), ElementsAre("issuer"));
    EXPECT_TRUE((*open()->beginWriting())->abandoned().empty());
}

TEST_F(CreateAll, WhatAnotherProgramWasFasterToMakeIsNotUndoneByTheNextWriterEither)
{
    const auto fasterProgram = [this]() -> Status {
        addCertificate(issuer_);
        return open()->addCertificate(issuer_, "ours");
    };
    faults_->arm(Operation::removeCertificate, 1, errSecIO);
    EXPECT_EQ(
        create({creationOf(leaf_), creationOf(issuer_, fasterProgram), creationOf(root_, fail)}).status(), errSecIO);
    EXPECT_TRUE(faults_->fired());
    faults_->disarm();
    EXPECT_THAT(contents(), ElementsAre("leaf", "issuer"));
    EXPECT_THAT(settled(), ElementsAre("issuer"));
}

TEST_F(CreateAll, UndoingThatFailsIsDoneByTheNextWriterThoughAllIsThere)
{
    faults_->arm(Operation::finish, 1, errSecIO);
    faults_->watch([this](Operation operation, bool) {
        if (operation == Operation::withdraw)
            faults_->arm(Operation::certificates, 1, errSecIO);
    });
    EXPECT_EQ(create({creationOf(leaf_), creationOfKey()}).status(), errSecIO);
    EXPECT_TRUE(faults_->fired());
    faults_->watch({});
    faults_->disarm();
    EXPECT_THAT(contents(), ElementsAre("leaf", "key"));
    EXPECT_THAT(settled(), IsEmpty());
}

TEST_F(CreateAll, APrivateKeyIsMadeLastAndUndoneFirst)
{
    std::vector<Operation> changes;
    faults_->watch([&](Operation operation, bool done) {
        if (done && operation >= Operation::addCertificate && operation <= Operation::removePrivateKey)
            changes.push_back(operation);
    });
    const auto database = *faults_->open(defaultKeychain()->path(), Access::write);
    const Creation key{keyName(ada()), [&] { return database->containsPrivateKey(parsed(ada()).key.id); },
        [&] { return database->addPrivateKey(parsed(ada()).key); }};
    const Creation leaf{certificateName(leaf_), [&] { return database->containsCertificate(leaf_); },
        [&] { return database->addCertificate(leaf_, "leaf"); }};
    faults_->arm(Operation::finish, 1, errSecIO);
    EXPECT_EQ(create({key, leaf}).status(), errSecIO);
    faults_->watch({});
    EXPECT_THAT(changes,
        ElementsAre(Operation::addCertificate, Operation::addPrivateKey, Operation::removePrivateKey,
            Operation::removeCertificate));
}

TEST_F(CreateAll, AnObjectNamedTwiceIsMadeOnce)
{
    int made = 0;
    const auto make = [&]() -> Status {
        ++made;
        return open()->addCertificate(leaf_, "leaf");
    };
    EXPECT_EQ(create({creationOf(leaf_, make), creationOf(leaf_, make)}).status(), errSecSuccess);
    EXPECT_EQ(made, 1);
}

TEST_F(CreateAll, ANoteThatCannotBeWrittenUndoesTheObject)
{
    faults_->arm(Operation::note, 1, errSecIO);
    EXPECT_EQ(create({creationOf(leaf_), creationOf(root_)}).status(), errSecIO);
    EXPECT_TRUE(faults_->fired());
    EXPECT_THAT(contents(), IsEmpty());
    EXPECT_TRUE((*open()->beginWriting())->abandoned().empty());
}

} // namespace
