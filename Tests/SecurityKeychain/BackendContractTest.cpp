// What every back end promises (Backend.h), on each of them.
#include "KeychainFixture.h"
#include "Security/Keychain/FaultBackend.h"
#include "Security/Keychain/MemoryBackend.h"
#include "Security/Keychain/NSSBackend.h"

#include <algorithm>
#include <atomic>
#include <gmock/gmock.h>
#include <thread>

namespace {

using namespace kf::keychain;
using kf::Status;
using kf::test::ada;
using kf::test::authority;
using kf::test::Bytes;
using kf::test::grace;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

enum class Kind { nss, memory, fault };

ObjectName nameOf(ObjectClass objectClass, const Bytes& bytes) { return {objectClass, kf::sha256(bytes)}; }

class BackendContract : public testing::TestWithParam<Kind> {
protected:
    BackendContract()
    {
        switch (GetParam()) {
        case Kind::nss:
            backend_ = std::make_shared<NSSBackend>();
            break;
        case Kind::memory:
            backend_ = memory_;
            break;
        case Kind::fault:
            backend_ = std::make_shared<FaultBackend>(memory_);
            break;
        }
    }
    ~BackendContract() override
    {
        database_.reset();
        backend_->closeAll();
    }

    std::string path() const { return home_.defaultKeychain().string(); }

    Database& create()
    {
        auto opened = backend_->open(path(), Access::create);
        EXPECT_TRUE(opened) << opened.status();
        database_ = std::move(*opened);
        return *database_;
    }

    /// Closes the database and gives it the pass phrase: what is opened next is locked.
    void lock()
    {
        database_.reset();
        backend_->closeAll();
        if (GetParam() != Kind::nss) {
            memory_->setPassphrase(path(), passphrase);
            return;
        }
        kf::test::writeFile(home_.path() / "empty", "\n");
        kf::test::writeFile(home_.path() / "password", std::string(passphrase) + "\n");
        kf::test::mustRun({"timeout", "20", "certutil", "-W", "-f", home_.path() / "empty", "-@",
            home_.path() / "password", "-d", "sql:" + path()});
    }

    /// As somebody else would, while this process has it open.
    void erase()
    {
        if (GetParam() == Kind::nss)
            std::filesystem::remove_all(path());
        else
            memory_->erase(path());
    }

    /// Every writing call, for a database that holds Ada's key and certificate with trust: what could be done, what is
    /// there already or is not there, and bytes that are no certificate.
    static std::vector<std::pair<const char*, OSStatus>> writeEverything(Database& database)
    {
        const auto adasKey = kf::test::parsed(ada()).key;
        const Bytes none = {1, 2, 3};
        return {{"addCertificate, no certificate", database.addCertificate(none, "x").status()},
            {"addCertificate, there", database.addCertificate(ada().leaf, "x").status()},
            {"addPrivateKey, there", database.addPrivateKey(adasKey).status()},
            {"setCertificateLabel, not there", database.setCertificateLabel(grace().leaf, "x").status()},
            {"setPrivateKeyLabel, not there", database.setPrivateKeyLabel(none, "x").status()},
            {"setTrust, no certificate", database.setTrust(none, {}).status()},
            {"removeTrust, no certificate", database.removeTrust(none).status()},
            {"removeTrust, not there", database.removeTrust(grace().leaf).status()},
            {"removePrivateKey, not there", database.removePrivateKey(none).status()},
            {"removeCertificate, not there", database.removeCertificate(grace().leaf).status()},
            {"addCertificate", database.addCertificate(grace().leaf, "Grace").status()},
            {"addPrivateKey", database.addPrivateKey(kf::test::parsed(grace()).key).status()},
            {"setCertificateLabel", database.setCertificateLabel(ada().leaf, "x").status()},
            {"setPrivateKeyLabel", database.setPrivateKeyLabel(adasKey.id, "x").status()},
            {"setTrust", database.setTrust(ada().leaf, {}).status()},
            {"setTrust", database.setTrust(grace().leaf, {}).status()},
            {"removeTrust", database.removeTrust(ada().leaf).status()},
            {"removePrivateKey", database.removePrivateKey(adasKey.id).status()},
            {"removeCertificate", database.removeCertificate(ada().leaf).status()}};
    }
    void createWithAda()
    {
        Database& database = create();
        const auto turn = database.beginWriting();
        add(database, ada().leaf, "Ada");
        ASSERT_EQ(database.addPrivateKey(kf::test::parsed(ada()).key).status(), errSecSuccess);
        ASSERT_EQ(database.setTrust(ada().leaf, {.server = TrustLevel::trustedPeer}).status(), errSecSuccess);
    }
    /// Ada's key, certificate, label and trust are as createWithAda() left them, and nothing else is there.
    void expectAda()
    {
        const auto database = backend_->open(path(), Access::read);
        ASSERT_TRUE(database) << database.status();
        if ((*database)->isLocked()) {
            ASSERT_EQ((*database)->unlock(kf::test::secret(passphrase)).status(), errSecSuccess);
        }
        EXPECT_THAT(labels(**database), ElementsAre("Ada"));
        EXPECT_THAT(*(*database)->privateKeys(), SizeIs(1));
        EXPECT_EQ((*database)->privateKeys()->front().label, kf::test::parsed(ada()).key.label);
        EXPECT_EQ((*database)->trust(ada().leaf)->server, TrustLevel::trustedPeer);
        EXPECT_EQ((*database)->trust(grace().leaf).status(), errSecItemNotFound);
    }

    static void add(Database& database, const Bytes& der, const std::string& label)
    {
        EXPECT_EQ(database.addCertificate(der, label).status(), errSecSuccess);
    }

    static std::vector<std::string> labels(Database& database)
    {
        std::vector<std::string> found;
        const auto records = database.certificates();
        EXPECT_TRUE(records) << records.status();
        for (const auto& record : *records)
            found.push_back(record.label);
        return found;
    }

    static constexpr const char* passphrase = "open sesame";
    kf::test::ScratchHome home_;
    std::shared_ptr<MemoryBackend> memory_ = std::make_shared<MemoryBackend>();
    std::shared_ptr<Backend> backend_;
    std::shared_ptr<Database> database_;
};

TEST_P(BackendContract, WhatIsNotThereIsNotOpenedAndNotMadeByReading)
{
    EXPECT_FALSE(backend_->exists(path()));
    EXPECT_EQ(backend_->open(path(), Access::read).status(), errSecNoSuchKeychain);
    EXPECT_EQ(backend_->open(path(), Access::write).status(), errSecNoSuchKeychain);
    EXPECT_FALSE(backend_->exists(path()));
}

TEST_P(BackendContract, ANewDatabaseIsEmptyAndUnlocked)
{
    Database& database = create();
    EXPECT_TRUE(backend_->exists(path()));
    EXPECT_FALSE(database.isLocked());
    EXPECT_THAT(*database.certificates(), IsEmpty());
    EXPECT_THAT(*database.privateKeys(), IsEmpty());
}

TEST_P(BackendContract, StoredObjectsAreListedAndFound)
{
    Database& database = create();
    const auto bundle = kf::test::parsed(ada());
    const auto turn = database.beginWriting();
    ASSERT_TRUE(turn) << turn.status();
    ASSERT_EQ(database.addPrivateKey(bundle.key).status(), errSecSuccess);
    add(database, ada().leaf, "Ada");
    const auto certificates = database.certificates();
    ASSERT_THAT(*certificates, SizeIs(1));
    EXPECT_EQ(certificates->front().der, ada().leaf);
    EXPECT_EQ(certificates->front().label, "Ada");
    const auto keys = database.privateKeys();
    ASSERT_THAT(*keys, SizeIs(1));
    EXPECT_EQ(keys->front().id, bundle.key.id);
    EXPECT_TRUE(*database.containsCertificate(ada().leaf));
    EXPECT_TRUE(*database.containsPrivateKey(bundle.key.id));
    EXPECT_FALSE(*database.containsCertificate(grace().leaf));
    EXPECT_FALSE(*database.containsPrivateKey(kf::test::parsed(grace()).key.id));
}

TEST_P(BackendContract, TheSameObjectTwiceIsADuplicate)
{
    Database& database = create();
    const auto bundle = kf::test::parsed(ada());
    const auto turn = database.beginWriting();
    add(database, ada().leaf, "Ada");
    EXPECT_EQ(database.addCertificate(ada().leaf, "Another").status(), errSecDuplicateItem);
    EXPECT_EQ(database.addPrivateKey(bundle.key).status(), errSecSuccess);
    EXPECT_EQ(database.addPrivateKey(bundle.key).status(), errSecDuplicateItem);
    EXPECT_THAT(labels(database), ElementsAre("Ada"));
    EXPECT_THAT(*database.privateKeys(), SizeIs(1));
}

TEST_P(BackendContract, BytesThatAreNoCertificateAreNotStored)
{
    Database& database = create();
    const auto turn = database.beginWriting();
    EXPECT_EQ(database.addCertificate(Bytes{1, 2, 3}, "x").status(), errSecUnknownFormat);
    EXPECT_THAT(*database.certificates(), IsEmpty());
}

TEST_P(BackendContract, RemovalTakesExactlyTheObject)
{
    Database& database = create();
    const auto bundle = kf::test::parsed(ada());
    const auto turn = database.beginWriting();
    add(database, ada().leaf, "Ada");
    add(database, grace().leaf, "Grace");
    ASSERT_EQ(database.addPrivateKey(bundle.key).status(), errSecSuccess);
    EXPECT_EQ(database.removeCertificate(ada().leaf).status(), errSecSuccess);
    EXPECT_THAT(labels(database), ElementsAre("Grace"));
    EXPECT_THAT(*database.privateKeys(), SizeIs(1));
    EXPECT_EQ(database.removeCertificate(ada().leaf).status(), errSecInvalidItemRef);
    EXPECT_EQ(database.removePrivateKey(bundle.key.id).status(), errSecSuccess);
    EXPECT_EQ(database.removePrivateKey(bundle.key.id).status(), errSecInvalidItemRef);
    EXPECT_THAT(labels(database), ElementsAre("Grace"));
}

TEST_P(BackendContract, LabelsOfOtherSubjectsAreNumbered)
{
    Database& database = create();
    const auto turn = database.beginWriting();
    add(database, ada().leaf, "Certificate");
    add(database, grace().leaf, "Certificate");
    add(database, authority().root(), "Certificate");
    add(database, authority().issuer(), "Certificate");
    EXPECT_THAT(labels(database),
        testing::UnorderedElementsAre("Certificate", "Certificate #2", "Certificate #3", "Certificate #4"));
}

TEST_P(BackendContract, CertificatesOfOneSubjectMayShareALabel)
{
    Database& database = create();
    const auto turn = database.beginWriting();
    add(database, ada().leaf, "Ada");
    add(database, authority().issue().leaf, "Ada");
    EXPECT_THAT(labels(database), ElementsAre("Ada", "Ada"));
}

TEST_P(BackendContract, LabelsAreWrittenUnlessAnotherSubjectBearsThem)
{
    Database& database = create();
    const auto bundle = kf::test::parsed(ada());
    const auto turn = database.beginWriting();
    add(database, ada().leaf, "Ada");
    add(database, grace().leaf, "Grace");
    ASSERT_EQ(database.addPrivateKey(bundle.key).status(), errSecSuccess);
    EXPECT_EQ(database.setCertificateLabel(ada().leaf, "Countess").status(), errSecSuccess);
    EXPECT_EQ(database.setCertificateLabel(ada().leaf, "Grace").status(), errSecDuplicateItem);
    EXPECT_EQ(database.setPrivateKeyLabel(bundle.key.id, "Key").status(), errSecSuccess);
    EXPECT_THAT(labels(database), ElementsAre("Countess", "Grace"));
    EXPECT_EQ(database.privateKeys()->front().label, "Key");
    EXPECT_EQ(database.setCertificateLabel(authority().root(), "Root").status(), errSecInvalidItemRef);
    EXPECT_EQ(database.setPrivateKeyLabel(kf::test::parsed(grace()).key.id, "x").status(), errSecInvalidItemRef);
    EXPECT_EQ(database.setCertificateLabel(ada().leaf, "").status(), errSecSuccess);
    EXPECT_THAT(labels(database), ElementsAre("", "Grace"));
}

TEST_P(BackendContract, LabelsAreKeptByteForByte)
{
    Database& database = create();
    const auto key = kf::test::parsed(ada()).key;
    const auto turn = database.beginWriting();
    add(database, ada().leaf, "Ada");
    ASSERT_EQ(database.addPrivateKey(key).status(), errSecSuccess);
    for (const std::string& label : {std::string("\xC3\x85se \xE5\xAD\xA6"), std::string("a\0b", 3),
             std::string("\xFF\xC3"), std::string("'; --\n\t\x7F"), std::string(100'000, 'x')}) {
        EXPECT_EQ(database.setCertificateLabel(ada().leaf, label).status(), errSecSuccess);
        EXPECT_THAT(labels(database), ElementsAre(label));
        EXPECT_EQ(database.setPrivateKeyLabel(key.id, label).status(), errSecSuccess);
        EXPECT_EQ(database.privateKeys()->front().label, label);
        ASSERT_EQ(database.removeCertificate(ada().leaf).status(), errSecSuccess);
        add(database, ada().leaf, label);
        EXPECT_THAT(labels(database), ElementsAre(label));
    }
}

TEST_P(BackendContract, TrustIsWrittenReplacedAndRemoved)
{
    Database& database = create();
    const auto turn = database.beginWriting();
    const Bytes root = authority().root();
    add(database, root, "Root");
    EXPECT_EQ(database.trust(root).status(), errSecItemNotFound);
    EXPECT_EQ(database.removeTrust(root).status(), errSecItemNotFound);
    const Trust first{TrustLevel::trusted, TrustLevel::unspecified, TrustLevel::trusted, TrustLevel::denied};
    const Trust second{TrustLevel::denied, TrustLevel::trustedPeer, TrustLevel::unspecified, TrustLevel::unspecified};
    ASSERT_EQ(database.setTrust(root, first).status(), errSecSuccess);
    EXPECT_EQ(*database.trust(root), first);
    EXPECT_EQ(database.trust(ada().leaf).status(), errSecItemNotFound);
    ASSERT_EQ(database.setTrust(root, second).status(), errSecSuccess);
    EXPECT_EQ(*database.trust(root), second);
    EXPECT_EQ(database.removeTrust(root).status(), errSecSuccess);
    EXPECT_EQ(database.trust(root).status(), errSecItemNotFound);
    EXPECT_THAT(labels(database), ElementsAre("Root"));
}

TEST_P(BackendContract, TheGenerationTellsEveryChange)
{
    Database& database = create();
    const auto turn = database.beginWriting();
    const auto bundle = kf::test::parsed(ada());
    std::vector<Generation> seen = {*database.generation()};
    const auto expectChange = [&](const Status& change) {
        EXPECT_EQ(change.status(), errSecSuccess);
        seen.push_back(*database.generation());
        EXPECT_NE(seen.back(), seen[seen.size() - 2]) << "change " << seen.size();
    };
    EXPECT_EQ(*database.generation(), seen.front());
    expectChange(database.addCertificate(ada().leaf, "Ada"));
    expectChange(database.addPrivateKey(bundle.key));
    expectChange(database.setCertificateLabel(ada().leaf, "Bda"));
    expectChange(database.setPrivateKeyLabel(bundle.key.id, "Key"));
    expectChange(database.removeCertificate(ada().leaf));
    expectChange(database.removePrivateKey(bundle.key.id));
}

TEST_P(BackendContract, TheGenerationTellsChangesOfTrust)
{
    Database& database = create();
    const auto turn = database.beginWriting();
    add(database, ada().leaf, "Ada");
    const auto before = *database.generation();
    ASSERT_EQ(database.setTrust(ada().leaf, {.server = TrustLevel::denied}).status(), errSecSuccess);
    const auto written = *database.generation();
    EXPECT_NE(written, before);
    ASSERT_EQ(database.removeTrust(ada().leaf).status(), errSecSuccess);
    EXPECT_NE(*database.generation(), written);
}

TEST_P(BackendContract, TwoCertificatesOfOneIssuerAndSerialNumberCannotBothBeThere)
{
    const auto& [first, second] = kf::test::twins();
    Database& database = create();
    const auto turn = database.beginWriting();
    add(database, first, "First");
    const Trust trust{.server = TrustLevel::denied};
    ASSERT_EQ(database.setTrust(first, trust).status(), errSecSuccess);
    EXPECT_EQ(database.addCertificate(second, "Second").status(), errSecIssuerAndSerialTaken);
    EXPECT_TRUE(SecCopyErrorMessageString(errSecIssuerAndSerialTaken, nullptr));
    EXPECT_EQ(database.addCertificate(first, "First").status(), errSecDuplicateItem);
    EXPECT_THAT(labels(database), ElementsAre("First"));
    EXPECT_TRUE(*database.containsCertificate(first));
    EXPECT_FALSE(*database.containsCertificate(second));
    EXPECT_EQ(*database.trust(first), trust);
    EXPECT_EQ(database.trust(second).status(), errSecItemNotFound);
    ASSERT_EQ(database.removeTrust(first).status(), errSecSuccess);
    ASSERT_EQ(database.removeCertificate(first).status(), errSecSuccess);
    EXPECT_EQ(database.addCertificate(second, "Second").status(), errSecSuccess);
    EXPECT_THAT(labels(database), ElementsAre("Second"));
}

TEST_P(BackendContract, BytesThatAreNoCertificateHaveNoTrust)
{
    Database& database = create();
    const auto turn = database.beginWriting();
    const Bytes none = {1, 2, 3};
    EXPECT_EQ(database.trust(none).status(), errSecUnknownFormat);
    EXPECT_EQ(database.setTrust(none, {}).status(), errSecUnknownFormat);
    EXPECT_EQ(database.removeTrust(none).status(), errSecUnknownFormat);
    EXPECT_FALSE(*database.containsCertificate(none));
    EXPECT_EQ(database.removeCertificate(none).status(), errSecInvalidItemRef);
    EXPECT_EQ(database.setCertificateLabel(none, "x").status(), errSecInvalidItemRef);
}

TEST_P(BackendContract, ADatabaseOpenedForReadingIsNotWritten)
{
    createWithAda();
    database_.reset();
    {
        const auto reader = backend_->open(path(), Access::read);
        ASSERT_TRUE(reader) << reader.status();
        EXPECT_EQ((*reader)->beginWriting().status(), errSecReadOnly);
        for (const auto& [call, status] : writeEverything(**reader))
            EXPECT_EQ(status, errSecReadOnly) << call;
    }
    expectAda();
}

TEST_P(BackendContract, ALockedDatabaseShowsCertificatesAloneAndIsNotWritten)
{
    createWithAda();
    lock();
    {
        auto opened = backend_->open(path(), Access::write);
        ASSERT_TRUE(opened) << opened.status();
        Database& database = **opened;
        ASSERT_TRUE(database.isLocked());
        EXPECT_TRUE(database.generation());
        EXPECT_THAT(labels(database), ElementsAre("Ada"));
        EXPECT_TRUE(*database.containsCertificate(ada().leaf));
        EXPECT_EQ(database.privateKeys().status(), errSecInteractionNotAllowed);
        EXPECT_EQ(database.containsPrivateKey(kf::test::parsed(ada()).key.id).status(), errSecInteractionNotAllowed);
        EXPECT_EQ(database.privateKeyInfo(kf::test::parsed(ada()).key.id).status(),
            GetParam() == Kind::nss ? errSecInteractionNotAllowed : errSecUnimplemented);
        EXPECT_EQ(database.trust(ada().leaf).status(), errSecInteractionNotAllowed);
        EXPECT_EQ(database.trust(Bytes{1, 2, 3}).status(), errSecInteractionNotAllowed);
        const auto turn = database.beginWriting();
        for (const auto& [call, status] : writeEverything(database))
            EXPECT_EQ(status, errSecInteractionNotAllowed) << call;
    }
    expectAda();
}

TEST_P(BackendContract, OnlyTheRightPassphraseUnlocksAndClosingLocksAgain)
{
    createWithAda();
    lock();
    {
        const auto opened = backend_->open(path(), Access::write);
        EXPECT_EQ((*opened)->unlock(kf::test::secret("wrong")).status(), errSecAuthFailed);
        EXPECT_EQ((*opened)->unlock({}).status(), errSecAuthFailed);
        EXPECT_TRUE((*opened)->isLocked());
        EXPECT_EQ((*opened)->unlock(kf::test::secret(passphrase)).status(), errSecSuccess);
        EXPECT_FALSE((*opened)->isLocked());
        const auto turn = (*opened)->beginWriting();
        add(**opened, grace().leaf, "Grace");
        EXPECT_EQ((*opened)->removeCertificate(grace().leaf).status(), errSecSuccess);
    }
    backend_->closeAll();
    EXPECT_TRUE((*backend_->open(path(), Access::read))->isLocked());
    expectAda();
}

TEST_P(BackendContract, WhatIsGoneIsToldByEveryCall)
{
    createWithAda();
    Database& database = *database_;
    const auto turn = database.beginWriting();
    const Bytes key = kf::test::parsed(ada()).key.id;
    ASSERT_EQ(database.removeTrust(ada().leaf).status(), errSecSuccess);
    ASSERT_EQ(database.removePrivateKey(key).status(), errSecSuccess);
    ASSERT_EQ(database.removeCertificate(ada().leaf).status(), errSecSuccess);
    EXPECT_FALSE(*database.containsCertificate(ada().leaf));
    EXPECT_FALSE(*database.containsPrivateKey(key));
    EXPECT_EQ(database.setCertificateLabel(ada().leaf, "x").status(), errSecInvalidItemRef);
    EXPECT_EQ(database.setPrivateKeyLabel(key, "x").status(), errSecInvalidItemRef);
    EXPECT_EQ(database.removeCertificate(ada().leaf).status(), errSecInvalidItemRef);
    EXPECT_EQ(database.removePrivateKey(key).status(), errSecInvalidItemRef);
    EXPECT_EQ(database.trust(ada().leaf).status(), errSecItemNotFound);
    EXPECT_EQ(database.removeTrust(ada().leaf).status(), errSecItemNotFound);
    // And it may come again.
    add(database, ada().leaf, "Ada again");
    EXPECT_EQ(database.addPrivateKey(kf::test::parsed(ada()).key).status(), errSecSuccess);
}

TEST_P(BackendContract, ADatabaseStaysUsableAfterAnotherWasMadeInItsPlace)
{
    createWithAda();
    const auto old = database_;
    erase();
    EXPECT_FALSE(backend_->exists(path()));
    EXPECT_EQ(backend_->open(path(), Access::write).status(), errSecNoSuchKeychain);
    Database& fresh = create();
    EXPECT_THAT(labels(fresh), IsEmpty());
    EXPECT_THAT(labels(*old), ElementsAre("Ada"));
    EXPECT_EQ(old->trust(ada().leaf)->server, TrustLevel::trustedPeer);
}

TEST_P(BackendContract, ASecondTurnWaitsForTheFirst)
{
    Database& database = create();
    auto first = database.beginWriting();
    ASSERT_TRUE(first) << first.status();
    std::atomic<bool> firstEnded = false;
    std::thread second([&] {
        const auto turn = database.beginWriting();
        EXPECT_TRUE(turn) << turn.status();
        EXPECT_TRUE(firstEnded);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    firstEnded = true;
    first->reset();
    second.join();
}

TEST_P(BackendContract, AFinishedTurnLeavesNothingToSettle)
{
    Database& database = create();
    const auto object = nameOf(ObjectClass::certificate, ada().leaf);
    {
        const auto turn = database.beginWriting();
        ASSERT_TRUE(turn) << turn.status();
        EXPECT_TRUE((*turn)->abandoned().empty());
        EXPECT_EQ((*turn)->declare(Intent::Purpose::make, {object}).status(), errSecSuccess);
        EXPECT_EQ((*turn)->note(object, Intent::Progress::made).status(), errSecSuccess);
        EXPECT_EQ((*turn)->withdraw().status(), errSecSuccess);
        EXPECT_EQ((*turn)->finish().status(), errSecSuccess);
        EXPECT_EQ((*turn)->finish().status(), errSecSuccess);
    }
    EXPECT_TRUE((*database.beginWriting())->abandoned().empty());
}

TEST_P(BackendContract, AnAbandonedTurnIsToldToTheNext)
{
    Database& database = create();
    const std::vector<ObjectName> objects = {nameOf(ObjectClass::certificate, ada().leaf),
        nameOf(ObjectClass::privateKey, {1, 2}), nameOf(ObjectClass::trust, ada().leaf)};
    {
        const auto turn = database.beginWriting();
        EXPECT_EQ((*turn)->declare(Intent::Purpose::make, objects).status(), errSecSuccess);
        EXPECT_EQ((*turn)->note(objects[0], Intent::Progress::found).status(), errSecSuccess);
        EXPECT_EQ((*turn)->note(objects[1], Intent::Progress::made).status(), errSecSuccess);
    }
    Intent expected{Intent::Purpose::make,
        {{objects[0], Intent::Progress::found}, {objects[1], Intent::Progress::made}, {objects[2]}}, false};
    // Looking at it changes nothing.
    for (int look = 0; look < 2; ++look)
        EXPECT_EQ((*database.beginWriting())->abandoned(), expected);
    {
        const auto turn = database.beginWriting();
        EXPECT_EQ((*turn)->finish().status(), errSecSuccess);
        EXPECT_EQ((*turn)->declare(Intent::Purpose::make, {objects[0]}).status(), errSecSuccess);
        EXPECT_EQ((*turn)->withdraw().status(), errSecSuccess);
    }
    expected = {Intent::Purpose::make, {{objects[0]}}, true};
    EXPECT_EQ((*database.beginWriting())->abandoned(), expected);
    {
        const auto turn = database.beginWriting();
        EXPECT_EQ((*turn)->finish().status(), errSecSuccess);
        EXPECT_EQ((*turn)->declare(Intent::Purpose::remove, {objects[0]}).status(), errSecSuccess);
    }
    expected = {Intent::Purpose::remove, {{objects[0]}}, false};
    EXPECT_EQ((*database.beginWriting())->abandoned(), expected);
}

TEST_P(BackendContract, MoreObjectsThanARecordHoldsAreRefused)
{
    Database& database = create();
    const auto turn = database.beginWriting();
    const std::vector<ObjectName> objects(mostIntendedObjects + 1, nameOf(ObjectClass::trust, {1}));
    EXPECT_EQ((*turn)->declare(Intent::Purpose::make, objects).status(), errSecDataTooLarge);
}

TEST_P(BackendContract, AKeyGoesOutAsItsInfoOrNeverDoes)
{
    Database& database = create();
    const auto turn = database.beginWriting();
    const auto key = kf::test::parsed(ada()).key;
    ASSERT_EQ(database.addPrivateKey(key).status(), errSecSuccess);
    const auto info = database.privateKeyInfo(key.id);
    if (GetParam() != Kind::nss) {
        EXPECT_EQ(info.status(), errSecUnimplemented);
        return;
    }
    ASSERT_TRUE(info) << info.status();
    EXPECT_NE(std::search(info->begin(), info->end(), key.privateValue.begin(), key.privateValue.end()), info->end());
    EXPECT_EQ(database.privateKeyInfo(Bytes{1, 2}).status(), errSecInvalidItemRef);
    auto staying = kf::test::parsed(grace()).key;
    staying.extractable = false;
    ASSERT_EQ(database.addPrivateKey(staying).status(), errSecSuccess);
    EXPECT_EQ(database.privateKeyInfo(staying.id).status(), errSecKeyIsSensitive);
}

TEST_P(BackendContract, WhatWasStoredIsThereAfterClosing)
{
    {
        Database& database = create();
        const auto turn = database.beginWriting();
        add(database, ada().leaf, "Ada");
        ASSERT_EQ(database.setTrust(ada().leaf, Trust{.server = TrustLevel::trustedPeer}).status(), errSecSuccess);
    }
    database_.reset();
    backend_->closeAll();
    const auto again = backend_->open(path(), Access::read);
    ASSERT_TRUE(again) << again.status();
    EXPECT_THAT(labels(**again), ElementsAre("Ada"));
    EXPECT_EQ((*again)->trust(ada().leaf)->server, TrustLevel::trustedPeer);
}

std::string nameOfKind(const testing::TestParamInfo<Kind>& parameter)
{
    switch (parameter.param) {
    case Kind::nss:
        return "NSS";
    case Kind::memory:
        return "Memory";
    case Kind::fault:
        break;
    }
    return "Fault";
}

INSTANTIATE_TEST_SUITE_P(Every, BackendContract, testing::Values(Kind::nss, Kind::memory, Kind::fault), nameOfKind);

} // namespace
