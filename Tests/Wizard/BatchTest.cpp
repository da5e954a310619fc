// Batch mode, as real processes.

#include "Tests/Support/Fixtures.h"
#include "Tests/Support/ScratchHome.h"

#include <gmock/gmock.h>

#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <sys/stat.h>

namespace {

using namespace kf::test;
using testing::HasSubstr;
using testing::Not;

Authority& institution()
{
    static Authority authority;
    return authority;
}

class Batch : public testing::Test {
protected:
    Batch() : bundle_(sharedBundle())
    {
        writeFile(home_.path() / "passphrase", std::string_view(bundle_.passphrase + "\n"));
    }
    static const Bundle& sharedBundle()
    {
        static const Bundle bundle = institution().issue();
        return bundle;
    }
    std::string passphraseFile() const { return (home_.path() / "passphrase").string(); }
    std::string keychain() const { return "sql:" + home_.defaultKeychain().string(); }
    int keys() const
    {
        const std::string listed = run({"certutil", "-K", "-d", keychain()}).output;
        return static_cast<int>(std::count(listed.begin(), listed.end(), '<'));
    }
    Ran keyfold(std::vector<std::string> arguments) const
    {
        std::vector<std::string> command = {"env", "-u", "DISPLAY", "-u", "WAYLAND_DISPLAY", "-u", "QT_QPA_PLATFORM",
            "-u", "XDG_RUNTIME_DIR", "timeout", "60", KEYFOLD_PROGRAM};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return run(command);
    }
    Ran batch(std::vector<std::string> more = {}) const
    {
        std::vector<std::string> arguments = {
            "--batch", "--login", "ada", "--pkcs12", bundle_.file, "--passphrase-file", passphraseFile()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return keyfold(arguments);
    }

    ScratchHome home_;
    const Bundle& bundle_;
};

TEST_F(Batch, InstallsAndPrintsWhatAPersonWouldHaveRead)
{
    const Ran ran = batch();
    EXPECT_EQ(ran.status, 0);
    EXPECT_EQ(ran.output,
        "Install Your Certificates\n"
        "Certificate authority: Certificate authority is valid\n"
        "Personal certificate: Installing your personal certificate\n"
        "Personal certificate: Personal certificate has been successfully installed\n"
        "Summary: Your certificates were successfully installed\n"
        "Certificate authority: succeeded\n"
        "Personal certificate: succeeded\n");
    EXPECT_EQ(keys(), 1);
}

TEST_F(Batch, TheSameAgainChangesNothing)
{
    EXPECT_EQ(batch().status, 0);
    const std::string before = mustRun({"certutil", "-L", "-d", keychain()});
    EXPECT_EQ(batch().status, 0);
    EXPECT_EQ(mustRun({"certutil", "-L", "-d", keychain()}), before);
    EXPECT_EQ(keys(), 1);
}

TEST_F(Batch, TellsAFailureByItsStatusAndItsText)
{
    writeFile(passphraseFile(), std::string_view("wrong\n"));
    const Ran ran = batch();
    EXPECT_EQ(ran.status, 1);
    EXPECT_THAT(ran.output, HasSubstr("Personal certificate: Failed to install your personal certificate:\n"));
    EXPECT_THAT(ran.output, HasSubstr("Summary: There was an error while installing your certificates\n"));
    EXPECT_THAT(ran.output, HasSubstr("Personal certificate: failed\n"));
    EXPECT_EQ(keys(), 0);
}

TEST_F(Batch, ReadsThePassphraseFromStandardInput)
{
    const Ran ran =
        run({"sh", "-c", "printf %s \"$1\" | timeout 60 \"$2\" --batch --login ada --pkcs12 \"$3\" --passphrase-file -",
            "sh", bundle_.passphrase, KEYFOLD_PROGRAM, bundle_.file});
    EXPECT_EQ(ran.status, 0) << ran.output;
    EXPECT_EQ(keys(), 1);
}

TEST_F(Batch, APassphraseOfAllKindsOfCharacters)
{
    const Bundle bundle = institution().issue({.passphrase = "Grüße aus 東京 \t \"'$"});
    writeFile(passphraseFile(), std::string_view(bundle.passphrase + "\r\nsecond line\n"));
    const Ran ran = keyfold(
        {"--batch", "--login=ada", "--pkcs12=" + bundle.file.string(), "--passphrase-file=" + passphraseFile()});
    EXPECT_EQ(ran.status, 0) << ran.output;
}

TEST_F(Batch, DeletesOldCertificatesOnlyWhenTold)
{
    const auto again = [this](std::vector<std::string> more) {
        const Bundle bundle = institution().issue();
        std::vector<std::string> arguments = {
            "--batch", "--login", "ada", "--pkcs12", bundle.file, "--passphrase-file", passphraseFile()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Ran ran = keyfold(arguments);
        EXPECT_EQ(ran.status, 0);
        return ran.output;
    };
    EXPECT_EQ(batch().status, 0);
    const std::string question = "Existing certificates found: You appear to have one or more old certificates";
    EXPECT_THAT(again({}), AllOf(HasSubstr(question), HasSubstr("\nAnswer: No\n")));
    EXPECT_EQ(keys(), 2);
    EXPECT_THAT(again({"--delete-old", "no"}), HasSubstr("\nAnswer: No\n"));
    EXPECT_EQ(keys(), 3);
    EXPECT_THAT(again({"--delete-old", "yes"}), AllOf(HasSubstr(question), HasSubstr("\nAnswer: Yes\n")));
    EXPECT_EQ(keys(), 1);
}

struct BadBundle {
    const char* name;
    BundleOptions options = {};
    bool isWrongPassphrase = false;
    bool isDamaged = false;
    const char* problem;
};

class BatchWithABadBundle : public Batch, public testing::WithParamInterface<BadBundle> { };

TEST_P(BatchWithABadBundle, DeletesNothingOldAndTellsWhy)
{
    ASSERT_EQ(batch().status, 0);
    const std::string before = run({"certutil", "-L", "-d", keychain()}).output;
    const Bundle bundle = institution().issue(GetParam().options);
    if (GetParam().isWrongPassphrase)
        writeFile(passphraseFile(), std::string_view("wrong\n"));
    if (GetParam().isDamaged)
        std::filesystem::resize_file(bundle.file, std::filesystem::file_size(bundle.file) / 2);
    const Ran ran = keyfold({"--batch", "--login", "ada", "--pkcs12", bundle.file, "--passphrase-file",
        passphraseFile(), "--delete-old", "yes"});
    EXPECT_EQ(ran.status, 1);
    EXPECT_THAT(ran.output,
        AllOf(HasSubstr(std::string("keyfold: warning: Nothing old will be deleted: ") + GetParam().problem),
            HasSubstr("\nAnswer: No\n"), HasSubstr("Personal certificate: Failed to install")));
    EXPECT_EQ(keys(), 1);
    EXPECT_EQ(run({"certutil", "-L", "-d", keychain()}).output, before);
}

INSTANTIATE_TEST_SUITE_P(Rows, BatchWithABadBundle,
    testing::Values(BadBundle{.name = "WrongPassphrase",
                        .isWrongPassphrase = true,
                        .problem = "This pass phrase does not open the file."},
        BadBundle{.name = "Damaged", .isDamaged = true, .problem = "The file is damaged."},
        BadBundle{.name = "WithoutKey",
            .options = {.withoutKey = true},
            .problem = "The file holds no private key with a certificate"},
        BadBundle{.name = "WithoutCertificate",
            .options = {.withoutCertificate = true},
            .problem = "The file holds no private key with a certificate"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(Batch, WritesAPictureOfThePage)
{
    const auto picture = home_.path() / "page.png";
    EXPECT_EQ(batch({"--picture", picture}).status, 0);
    const QImage image(QString::fromStdString(picture.string()));
    EXPECT_GE(image.width(), 600);
    EXPECT_GE(image.height(), 400);
}

TEST_F(Batch, TellsThatThePictureCannotBeWritten)
{
    const Ran ran = batch({"--picture", "/nonexistent/page.png"});
    EXPECT_EQ(ran.status, 6);
    EXPECT_THAT(ran.output, HasSubstr("keyfold: /nonexistent/page.png cannot be written\n"));
    EXPECT_EQ(keys(), 1);
}

struct Misuse {
    const char* name;
    std::vector<std::string> arguments;
    const char* message;
};

class BatchMisuse : public Batch, public testing::WithParamInterface<Misuse> { };

TEST_P(BatchMisuse, IsRefusedBeforeAnythingIsDone)
{
    const Ran ran = keyfold(GetParam().arguments);
    EXPECT_EQ(ran.status, 2);
    EXPECT_EQ(ran.output, std::string("keyfold: ") + GetParam().message + "\nkeyfold --help tells more.\n");
    EXPECT_FALSE(std::filesystem::exists(home_.defaultKeychain()));
}

INSTANTIATE_TEST_SUITE_P(Rows, BatchMisuse,
    testing::Values(Misuse{"NoLogin", {"--batch"}, "--batch needs --login with a name"},
        Misuse{"EmptyLogin", {"--batch", "--login", ""}, "--batch needs --login with a name"},
        Misuse{"NoBundle", {"--batch", "--login", "a"}, "--batch needs --pkcs12 with a file"},
        Misuse{"NoPassphrase", {"--batch", "--login", "a", "--pkcs12", "f"},
            "--batch needs --passphrase-file with a file, or - for standard input"},
        Misuse{"NoValue", {"--batch", "--login"}, "a value is missing after: --login"},
        Misuse{"Twice", {"--login", "a", "--login=b"}, "given twice: --login"},
        Misuse{"Unknown", {"--passphrase", "geheim"}, "unknown argument: --passphrase"},
        Misuse{"DeleteWhat", {"--batch", "--delete-old", "maybe"}, "--delete-old takes yes or no, not: maybe"},
        Misuse{"LoginWithBlank", {"--batch", "--login", "ada "},
            "--login takes a name without white space and without the e-mail domain, not: ada "},
        Misuse{"LoginWithDomain", {"--batch", "--login", "ada@orvane.example"},
            "--login takes a name without white space and without the e-mail domain, not: ada@orvane.example"},
        Misuse{"BundleFromStandardInput", {"--batch", "--pkcs12", "-"},
            "standard input is only for the pass phrase, not for: --pkcs12"},
        Misuse{"TwoFromStandardInput", {"--batch", "--passphrase-file", "-", "--keychain-passphrase-file", "-"},
            "standard input can give one pass phrase only"},
        Misuse{"JsonAndQuiet", {"--batch", "--json", "--quiet"}, "--json, --quiet and --verbose exclude each other"},
        Misuse{"PictureOfADryRun",
            {"--batch", "--login", "a", "--pkcs12", "f", "--passphrase-file", "p", "--dry-run", "--picture", "x.png"},
            "--dry-run and --picture exclude each other"},
        Misuse{"WindowWithJson", {"--json"}, "only for --batch: --json"},
        Misuse{"WindowDry", {"--dry-run"}, "only for --batch: --dry-run"},
        Misuse{"WindowWithPassphrase", {"--passphrase-file", "f"}, "only for --batch: --passphrase-file"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(Batch, TellsABundleThatCannotBeRead)
{
    const Ran ran =
        keyfold({"--batch", "--login", "ada", "--pkcs12", "/nonexistent", "--passphrase-file", passphraseFile()});
    EXPECT_EQ(ran.status, 3);
    EXPECT_EQ(ran.output, "keyfold: /nonexistent cannot be read: No such file or directory\n");
}

TEST_F(Batch, DoesNotWaitForAPipeAsABundle)
{
    const std::string pipe = home_.path() / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    const Ran ran = keyfold({"--batch", "--login", "ada", "--pkcs12", pipe, "--passphrase-file", passphraseFile()});
    EXPECT_EQ(ran.status, 3);
    EXPECT_EQ(ran.output, "keyfold: " + pipe + " cannot be read: it is no regular file\n");
}

TEST_F(Batch, ReadsNoMoreThanTheFirstLineOfStandardInput)
{
    const std::string commands = "(printf '%s\\n' \"$1\"; exec sleep 12) 2>/dev/null | "
                                 "timeout 10 \"$2\" --batch --login ada --pkcs12 \"$3\" --passphrase-file - & wait $!";
    const Ran ran = run({"sh", "-c", commands, "sh", bundle_.passphrase, KEYFOLD_PROGRAM, bundle_.file});
    EXPECT_EQ(keys(), 1) << ran.output;
}

TEST_F(Batch, TakesAPassphraseAfterAByteOrderMark)
{
    writeFile(passphraseFile(), std::string_view("\xEF\xBB\xBF" + bundle_.passphrase + "\n"));
    EXPECT_EQ(batch().status, 0);
}

TEST_F(Batch, RefusesAPassphraseWithAZeroByte)
{
    writeFile(passphraseFile(), std::string_view("a\0b\n", 4));
    const Ran ran = batch();
    EXPECT_EQ(ran.status, 3);
    EXPECT_THAT(ran.output, HasSubstr("holds a zero byte"));
}

TEST_F(Batch, FinishesTheWorkThoughNobodyReads)
{
    const Ran ran =
        run({"sh", "-c", "\"$1\" --batch --login ada --pkcs12 \"$2\" --passphrase-file \"$3\" | true; sleep 2; true",
            "sh", KEYFOLD_PROGRAM, bundle_.file, passphraseFile()});
    EXPECT_EQ(keys(), 1) << ran.output;
}

TEST_F(Batch, TellsThatItsOutputCouldNotBeWritten)
{
    const Ran ran =
        run({"sh", "-c", "exec \"$1\" --batch --login ada --pkcs12 \"$2\" --passphrase-file \"$3\" >/dev/full", "sh",
            KEYFOLD_PROGRAM, bundle_.file, passphraseFile()});
    EXPECT_EQ(ran.status, 6);
    EXPECT_EQ(ran.output, "keyfold: the output cannot be written\n");
    EXPECT_EQ(keys(), 1);
}

TEST_F(Batch, InstallsThoughTheSpheresPicturesAreMissing)
{
    const auto copy = home_.path() / "KFInstaller.bundle";
    std::filesystem::copy(KEYFOLD_BUNDLE, copy, std::filesystem::copy_options::recursive);
    int removed = 0;
    for (const auto& file : std::filesystem::directory_iterator(copy / "Contents/Resources")) {
        if (file.path().filename().string().starts_with("sphere_"))
            removed += std::filesystem::remove(file.path());
    }
    EXPECT_GE(removed, 3);
    const Ran ran = batch({"--bundle", copy.string()});
    EXPECT_EQ(ran.status, 0);
    EXPECT_THAT(ran.output, HasSubstr("Personal certificate: succeeded\n"));
    EXPECT_EQ(keys(), 1);
}

TEST_F(Batch, TellsAPassphraseThatCannotBeRead)
{
    const auto withFile = [this](const std::string& file) {
        return keyfold({"--batch", "--login", "ada", "--pkcs12", bundle_.file, "--passphrase-file", file});
    };
    EXPECT_EQ(withFile("/nonexistent").status, 3);
    EXPECT_EQ(withFile("/").status, 3);
    writeFile(passphraseFile(), std::string_view("\xff\xfe\n"));
    EXPECT_THAT(withFile(passphraseFile()).output, HasSubstr("holds no UTF-8 text"));
    writeFile(passphraseFile(), std::string_view(std::string(5000, 'x')));
    EXPECT_THAT(withFile(passphraseFile()).output, HasSubstr("is longer than 4096 bytes"));
    EXPECT_FALSE(std::filesystem::exists(home_.defaultKeychain()));
}

TEST_F(Batch, TellsEmptyAndEndlessBundles)
{
    writeFile(home_.path() / "empty", std::string_view());
    for (const std::string& file : {(home_.path() / "empty").string(), std::string("/dev/zero")})
        EXPECT_EQ(
            keyfold({"--batch", "--login", "ada", "--pkcs12", file, "--passphrase-file", passphraseFile()}).status, 3);
}

TEST_F(Batch, TellsAPageThatCannotBeLoaded)
{
    const Ran ran = batch({"--bundle", "/nonexistent"});
    EXPECT_EQ(ran.status, 4);
    EXPECT_EQ(ran.output, "keyfold: There is no bundle at /nonexistent.\n");
}

TEST_F(Batch, WithoutADisplayTheWindowIsRefusedInWords)
{
    const Ran ran = keyfold({});
    EXPECT_EQ(ran.status, 5);
    EXPECT_EQ(ran.output, "keyfold: there is no display to open a window on; --batch works without one\n");
    const Ran unreachable = run({"env", "DISPLAY=:4711", "QT_QPA_PLATFORM=xcb", "timeout", "60", KEYFOLD_PROGRAM});
    EXPECT_EQ(unreachable.status, 5);
    EXPECT_THAT(unreachable.output, HasSubstr("there is no display"));
}

TEST_F(Batch, HelpAndVersionNeedNoDisplay)
{
    const Ran help = keyfold({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.output, HasSubstr("--passphrase-file"));
    EXPECT_EQ(keyfold({"--version"}).output, "keyfold " KEYFOLD_VERSION "\n");
}

TEST_F(Batch, PrintsNoSecret)
{
    const Ran ran = batch();
    EXPECT_THAT(ran.output, Not(HasSubstr(bundle_.passphrase)));
}

QJsonObject jsonOf(const Ran& ran)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(ran.output), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << ran.output;
    return document.object();
}

TEST_F(Batch, TellsEverythingInOneJsonObject)
{
    const Ran ran = batch({"--json"});
    EXPECT_EQ(ran.status, 0);
    const QJsonObject told = jsonOf(ran);
    EXPECT_EQ(told["version"].toString(), QStringLiteral(KEYFOLD_VERSION));
    EXPECT_EQ(told["exitStatus"].toInt(-1), 0);
    EXPECT_TRUE(told["installed"].toBool());
    EXPECT_FALSE(told["dryRun"].toBool(true));
    const QJsonArray jobs = told["jobs"].toArray();
    ASSERT_EQ(jobs.size(), 2);
    EXPECT_EQ(jobs[0].toObject()["name"].toString(), QStringLiteral("Certificate authority"));
    EXPECT_EQ(jobs[0].toObject()["state"].toString(), QStringLiteral("succeeded"));
    EXPECT_EQ(jobs[0].toObject()["messages"].toArray(), QJsonArray{QStringLiteral("Certificate authority is valid")});
    EXPECT_EQ(jobs[1].toObject()["messages"].toArray().size(), 2);
    EXPECT_EQ(told["messages"].toArray(),
        (QJsonArray{QJsonObject{{QStringLiteral("about"), QStringLiteral("Summary")},
            {QStringLiteral("text"), QStringLiteral("Your certificates were successfully installed")}}}));
    EXPECT_TRUE(told["log"].toArray().contains(QStringLiteral("Found 0 identities for address 'ada@orvane.example'")));
    EXPECT_TRUE(told["errors"].toArray().isEmpty());
    EXPECT_THAT(ran.output, Not(HasSubstr(bundle_.passphrase)));
}

TEST_F(Batch, JsonTellsAFailureAndAnsweredQuestions)
{
    EXPECT_EQ(batch().status, 0);
    const QJsonObject again = jsonOf(batch({"--json"}));
    EXPECT_EQ(again["questions"].toArray()[0].toObject()["answer"].toString(), QStringLiteral("No"));

    writeFile(passphraseFile(), std::string_view("wrong\n"));
    const Ran ran = batch({"--json"});
    EXPECT_EQ(ran.status, 1);
    const QJsonObject told = jsonOf(ran);
    EXPECT_EQ(told["exitStatus"].toInt(-1), 1);
    EXPECT_FALSE(told["installed"].toBool(true));
    EXPECT_EQ(told["jobs"].toArray()[1].toObject()["state"].toString(), QStringLiteral("failed"));
}

TEST_F(Batch, JsonIsPrintedWhereNothingCouldBeDone)
{
    const Ran ran = run({"sh", "-c", "\"$@\" 2>/dev/null", "sh", KEYFOLD_PROGRAM, "--batch", "--json", "--login", "ada",
        "--pkcs12", "/nonexistent", "--passphrase-file", passphraseFile()});
    EXPECT_EQ(ran.status, 3);
    EXPECT_EQ(jsonOf(ran)["errors"].toArray(),
        QJsonArray{QStringLiteral("/nonexistent cannot be read: No such file or directory")});
}

TEST_F(Batch, QuietPrintsNothingUnlessSomethingFailed)
{
    EXPECT_EQ(batch({"--quiet"}).output, "");
    writeFile(passphraseFile(), std::string_view("wrong\n"));
    const Ran ran = batch({"--quiet"});
    EXPECT_EQ(ran.status, 1);
    EXPECT_THAT(ran.output, HasSubstr("Personal certificate: Failed to install your personal certificate:\n"));
}

TEST_F(Batch, VerbosePrintsTheLogToo)
{
    EXPECT_THAT(batch({"--verbose"}).output, HasSubstr("\nLog: Found 0 identities for address 'ada@orvane.example'\n"));
    EXPECT_THAT(batch().output, Not(HasSubstr("Log: ")));
}

/// Every file below a directory, with its content.
std::map<std::string, Bytes> snapshot(const std::filesystem::path& directory)
{
    std::map<std::string, Bytes> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory))
        files[entry.path().string()] = entry.is_regular_file() ? readFile(entry.path()) : Bytes();
    return files;
}

TEST_F(Batch, ADryRunTellsWhatWouldBeDoneAndChangesNothing)
{
    const auto before = snapshot(home_.path());
    const Ran ran = batch({"--dry-run"});
    EXPECT_EQ(ran.status, 0);
    EXPECT_EQ(ran.output,
        "Dry run: nothing is changed\n"
        "Certificate authority: Would be installed: for everybody with administrator rights, else for this user alone\n"
        "Old certificates: None for ada@orvane.example\n"
        "Personal certificate: Ada Example\n"
        "Personal certificate: For ada@orvane.example\n"
        "Personal certificate: Issued by Orvane Certification Authority 2\n"
        "Personal certificate: Valid from 1 January 2020 until 1 January 2049\n"
        "Personal certificate: Would be installed into "
            + home_.defaultKeychain().string() + "\n");
    EXPECT_EQ(snapshot(home_.path()), before);
}

TEST_F(Batch, ADryRunAfterARunChangesNothing)
{
    EXPECT_EQ(batch().status, 0);
    const auto before = snapshot(home_.path());
    const Ran ran = batch({"--dry-run", "--delete-old", "yes"});
    EXPECT_EQ(ran.status, 0);
    EXPECT_THAT(ran.output,
        AllOf(HasSubstr("Certificate authority: Is trusted for this user already\n"),
            HasSubstr("Old certificates: 1 for ada@orvane.example; the institution’s would be deleted"),
            HasSubstr("Personal certificate: Is in " + home_.defaultKeychain().string() + " already;")));
    EXPECT_THAT(batch({"--dry-run"}).output, HasSubstr("Old certificates: 1 for ada@orvane.example; would be kept\n"));
    EXPECT_EQ(snapshot(home_.path()), before);
    EXPECT_EQ(keys(), 1);
}

TEST_F(Batch, ADryRunTellsABundleThatCannotBeInstalled)
{
    writeFile(passphraseFile(), std::string_view("wrong\n"));
    const Ran ran = batch({"--dry-run"});
    EXPECT_EQ(ran.status, 1);
    EXPECT_THAT(ran.output, HasSubstr("keyfold: This pass phrase does not open the file."));
}

TEST_F(Batch, ADryRunTellsAKeychainThatCannotBeUsed)
{
    std::filesystem::create_directories(home_.defaultKeychain());
    writeFile(home_.defaultKeychain() / "cert9.db", std::string_view());
    writeFile(home_.defaultKeychain() / "key4.db", std::string_view());
    const Ran ran = batch({"--dry-run"});
    EXPECT_EQ(ran.status, 1);
    EXPECT_THAT(ran.output, HasSubstr("A file of the keychain is empty."));
}

TEST_F(Batch, ADryRunWarnsAsTheSignInPageDoes)
{
    const Ran ran = keyfold({"--batch", "--dry-run", "--json", "--login", "grace", "--pkcs12", bundle_.file,
        "--passphrase-file", passphraseFile()});
    EXPECT_EQ(ran.status, 0);
    EXPECT_THAT(
        ran.output, HasSubstr("The certificate is issued for ada@orvane.example, not for grace@orvane.example."));
}

TEST_F(Batch, WarnsAsTheSignInPageDoes)
{
    const Bundle bundle = institution().issue({.notAfter = "20210101000000Z"});
    const Ran ran =
        keyfold({"--batch", "--login", "grace", "--pkcs12", bundle.file, "--passphrase-file", passphraseFile()});
    EXPECT_EQ(ran.status, 0);
    EXPECT_THAT(ran.output,
        AllOf(HasSubstr("keyfold: warning: The certificate expired on 1 January 2021."),
            HasSubstr("keyfold: warning: The certificate is issued for ada@orvane.example, not for "
                      "grace@orvane.example.")));
    EXPECT_EQ(keys(), 1);
}

TEST_F(Batch, ADryRunTellsWhatWouldBeDeletedAndInstalledAgain)
{
    EXPECT_EQ(batch().status, 0);
    const std::string place = home_.defaultKeychain().string();
    EXPECT_THAT(batch({"--dry-run", "--delete-old", "yes"}).output,
        HasSubstr("Personal certificate: Is in " + place + " already; would be deleted and installed again\n"));
    EXPECT_THAT(batch({"--dry-run"}).output, HasSubstr("Personal certificate: Is in " + place + " already\n"));
}

TEST_F(Batch, WarnsOfAnImpostorInAKeychain)
{
    std::filesystem::create_directories(home_.defaultKeychain());
    mustRun({"certutil", "-N", "--empty-password", "-d", keychain()});
    mustRun({"certutil", "-A", "-n", "impostor", "-t", ",,", "-i", institution().rootFile(), "-d", keychain()});
    EXPECT_THAT(batch().output, HasSubstr("keyfold: warning: A keychain holds an authority that calls itself"));
    const auto wrong = home_.path() / "wrong";
    kf::test::writeFile(wrong, std::string_view("wrong\n"));
    EXPECT_THAT(keyfold({"--batch", "--login", "ada", "--pkcs12", bundle_.file, "--passphrase-file", wrong}).output,
        HasSubstr("keyfold: warning: A keychain holds an authority that calls itself"));
}

/// The examples of docs/batch.md, run as they stand there.
class BatchDocument : public Batch {
protected:
    BatchDocument()
    {
        std::filesystem::create_directory(drop_);
        std::filesystem::copy_file(bundle_.file, drop_ / "member.p12");
        std::filesystem::copy_file(passphraseFile(), drop_ / "passphrase");
    }
    static std::vector<std::string> linesOfTheDocument()
    {
        std::vector<std::string> lines;
        std::ifstream document(KEYFOLD_DOCUMENTS "/batch.md");
        for (std::string line; std::getline(document, line);)
            lines.push_back(line);
        return lines;
    }
    static std::string replaced(std::string text, const std::string& what, const std::string& with)
    {
        for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size())
            text.replace(at, what.size(), with);
        return text;
    }
    std::filesystem::path drop_ = home_.path() / ".keyfold";
};

TEST_F(BatchDocument, ItsUnitAsksNobodyAndDoesNotWaitForever)
{
    EXPECT_THAT(linesOfTheDocument(),
        testing::IsSupersetOf({"Environment=KEYFOLD_AUTHORIZATION=none", "TimeoutStartSec=5min"}));
}

TEST_F(BatchDocument, ItsUnitInstallsAndRemovesWhatWasLeft)
{
    int commands = 0;
    for (const std::string& line : linesOfTheDocument()) {
        if (!line.starts_with("Exec"))
            continue;
        std::string command = line.substr(line.find('=') + 1);
        command = replaced(replaced(command, "%h", home_.path().string()), "%u", "ada");
        const Ran ran = run({"sh", "-c", replaced(command, "/usr/bin/keyfold", KEYFOLD_PROGRAM)});
        EXPECT_EQ(ran.status, 0) << ran.output;
        EXPECT_EQ(ran.output, "");
        ++commands;
    }
    EXPECT_EQ(commands, 2);
    EXPECT_EQ(keys(), 1);
    EXPECT_TRUE(std::filesystem::is_empty(drop_));
}

TEST_F(BatchDocument, ItsTaskInstallsAndTellsThat)
{
    std::vector<std::string> arguments;
    const std::string item = "      - ";
    for (const std::string& line : linesOfTheDocument()) {
        if (line.starts_with(item))
            arguments.push_back(
                replaced(replaced(line.substr(item.size()), "{{ member }}", "ada"), "{{ drop }}", drop_.string()));
    }
    ASSERT_GT(arguments.size(), 3U);
    EXPECT_EQ(arguments[0], "keyfold");
    arguments[0] = KEYFOLD_PROGRAM;
    const Ran ran = run(arguments);
    EXPECT_EQ(ran.status, 0) << ran.output;
    EXPECT_TRUE(jsonOf(ran)["installed"].toBool());
    EXPECT_EQ(keys(), 1);
}

TEST_F(BatchDocument, ItsTaskReadsTheOutputOnlyWhereThereIsSome)
{
    const Ran wrong = keyfold({"--batch", "--json"});
    EXPECT_EQ(wrong.status, 2);
    EXPECT_THAT(wrong.output, testing::StartsWith("keyfold: ")); // the reason, and no JSON
    EXPECT_THAT(linesOfTheDocument(),
        testing::Contains("  changed_when: keyfold.rc == 0 and (keyfold.stdout | from_json).installed"));
}

class BatchWithKeychainPassphrase : public Batch {
protected:
    BatchWithKeychainPassphrase()
    {
        writeFile(secret_, "open sesame\n");
        std::filesystem::create_directories(home_.defaultKeychain());
        mustRun({"certutil", "-N", "-d", keychain(), "-f", secret_});
    }
    std::filesystem::path secret_ = home_.path() / "keychain-passphrase";
};

TEST_F(BatchWithKeychainPassphrase, TheRightOneUnlocksIt)
{
    const Ran ran = batch({"--keychain-passphrase-file", secret_});
    EXPECT_EQ(ran.status, 0) << ran.output;
    EXPECT_THAT(mustRun({"certutil", "-K", "-d", keychain(), "-f", secret_}), HasSubstr("Ada Example"));
    EXPECT_THAT(ran.output, Not(HasSubstr("open sesame")));
}

TEST_F(BatchWithKeychainPassphrase, AWrongOneIsToldAsSuch)
{
    const auto wrong = home_.path() / "wrong";
    writeFile(wrong, "close sesame\n");
    const Ran ran = batch({"--keychain-passphrase-file", wrong});
    EXPECT_EQ(ran.status, 1);
    EXPECT_THAT(ran.output, HasSubstr("The pass phrase of the keychain is wrong."));
}

TEST_F(BatchWithKeychainPassphrase, WithoutOneItIsACleanFailure)
{
    const Ran ran = batch();
    EXPECT_EQ(ran.status, 1);
    EXPECT_THAT(ran.output, HasSubstr("The operation was canceled."));
}

TEST_F(BatchWithKeychainPassphrase, ItMayComeFromADescriptor)
{
    const std::string command = "exec \"$1\" --batch --login ada --pkcs12 \"$2\" --passphrase-file \"$3\" "
                                "--keychain-passphrase-file /dev/fd/3 3<\"$4\"";
    const Ran ran = run({"sh", "-c", command, "sh", KEYFOLD_PROGRAM, bundle_.file, passphraseFile(), secret_});
    EXPECT_EQ(ran.status, 0) << ran.output;
}

} // namespace
