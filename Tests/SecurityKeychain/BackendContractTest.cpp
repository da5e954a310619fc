// What every back end promises (Backend.h), on each of them.
#include "KeychainFixture.h"
#include "Security/Keychain/FaultBackend.h"
#include "Security/Keychain/MemoryBackend.h"
#include "Security/Keychain/NSSBackend.h"

#include <gmock/gmock.h>

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

std::shared_ptr<Backend> makeBackend(Kind kind)
{
    switch (kind) {
    case Kind::nss:
        return std::make_shared<NSSBackend>();
    case Kind::memory:
        return std::make_shared<MemoryBackend>();
    case Kind::fault:
        break;
    }
    return std::make_shared<FaultBackend>(std::make_shared<MemoryBackend>());
}

ObjectName nameOf(ObjectClass objectClass, const Bytes& bytes) { return {objectClass, kf::sha256(bytes)}; }

class BackendContract : public testing::TestWithParam<Kind> {
protected:
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

    kf::test::ScratchHome home_;
    std::shared_ptr<Backend> backend_ = makeBackend(GetParam());
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
    EXPECT_THAT(labels(database), testing::UnorderedElementsAre("Certificate", "Certificate #2", "Certificate #3"));
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

TEST_P(BackendContract, ADatabaseOpenedForReadingIsNotWritten)
{
    create();
    const auto reader = backend_->open(path(), Access::read);
    ASSERT_TRUE(reader) << reader.status();
    EXPECT_EQ((*reader)->beginWriting().status(), errSecReadOnly);
    EXPECT_EQ((*reader)->addCertificate(ada().leaf, "Ada").status(), errSecReadOnly);
    EXPECT_THAT(*(*reader)->certificates(), IsEmpty());
}

TEST_P(BackendContract, AFinishedTurnLeavesNothingToUndo)
{
    Database& database = create();
    const std::vector<ObjectName> objects = {nameOf(ObjectClass::certificate, ada().leaf)};
    {
        const auto turn = database.beginWriting();
        ASSERT_TRUE(turn) << turn.status();
        EXPECT_THAT((*turn)->abandoned(), IsEmpty());
        EXPECT_EQ((*turn)->declare(objects).status(), errSecSuccess);
        EXPECT_EQ((*turn)->finish().status(), errSecSuccess);
    }
    EXPECT_THAT((*database.beginWriting())->abandoned(), IsEmpty());
}

TEST_P(BackendContract, AnAbandonedTurnIsToldToTheNext)
{
    Database& database = create();
    const std::vector<ObjectName> objects = {nameOf(ObjectClass::certificate, ada().leaf),
        nameOf(ObjectClass::privateKey, {1, 2}), nameOf(ObjectClass::trust, ada().leaf)};
    EXPECT_EQ((*database.beginWriting())->declare(objects).status(), errSecSuccess);
    {
        const auto turn = database.beginWriting();
        EXPECT_EQ((*turn)->abandoned(), objects);
        EXPECT_EQ((*turn)->finish().status(), errSecSuccess);
    }
    EXPECT_THAT((*database.beginWriting())->abandoned(), IsEmpty());
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
