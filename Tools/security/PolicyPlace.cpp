#include "security/PolicyPlace.h"

#include "security/CertificateFile.h"
#include "security/FileTools.h"

#include <algorithm>

namespace kf::security {

namespace {

constexpr const char* userWord = "for ";

std::string userLine(const Bytes& certificate) { return userWord + digestText(certificate); }

/// The record's last word, whatever came of the change.
Outcome finish(const Outcome& outcome, Record& record)
{
    if (!record.hasPrefix(userWord))
        record.removeDirectories();
    const std::string error = record.save();
    return error.empty() || !outcome.succeeded() ? outcome : failed(error);
}

} // namespace

Outcome PolicyPlace::add(const Bytes& certificate)
{
    if (!isPresent())
        return notPresent();
    const FileLock lock(files_.lock, files_.patience);
    if (!lock.isHeld())
        return failed("another program keeps it locked (" + files_.lock + ")");
    Record record(files_.record);
    const Record before = record;
    PolicyFile file(files_.policies, record);
    const std::vector<PolicyEntry> entries = entriesFor(certificate, file);
    for (const PolicyEntry& entry : entries)
        file.put(entry);
    if (!file.error().empty())
        return failed(file.error());
    record.add(userLine(certificate));
    const bool isChanged = file.isChanged();
    std::string error = prepare(certificate, record);
    if (error.empty())
        error = file.save();
    if (!error.empty()) {
        // A file may be in its place although the disk does not confirm it.
        const PolicyFile now(files_.policies, record);
        if (std::ranges::none_of(entries, [&](const PolicyEntry& entry) { return now.holds(entry); }))
            record.takeBack(before);
        return finish(failed(error), record);
    }
    const std::string where = " (" + files_.policies + ")";
    return finish(afterAdding(isChanged ? done("installed" + where) : unchanged("was there already" + where)), record);
}

Outcome PolicyPlace::remove(const Bytes& certificate)
{
    const FileLock lock(files_.lock, files_.patience);
    if (!lock.isHeld())
        return failed("another program keeps it locked (" + files_.lock + ")");
    Record record(files_.record);
    PolicyFile file(files_.policies, record);
    const std::vector<PolicyEntry> entries = everyEntryFor(certificate);
    const bool isThere = record.has(userLine(certificate))
        || std::ranges::any_of(entries, [&](const PolicyEntry& entry) { return file.holds(entry); });
    if (!isThere && file.error().empty())
        return finish(isPresent() ? unchanged("was not there") : notPresent(), record);
    record.erase(userLine(certificate));
    return takeOut(entries, file, record);
}

Outcome PolicyPlace::removeAll()
{
    const FileLock lock(files_.lock, files_.patience);
    if (!lock.isHeld())
        return failed("another program keeps it locked (" + files_.lock + ")");
    Record record(files_.record);
    PolicyFile file(files_.policies, record);
    const std::vector<PolicyEntry> entries = entriesOfAll(file);
    if (entries.empty() && !record.hasPrefix(userWord) && file.error().empty())
        return finish(isPresent() ? unchanged("was not there") : notPresent(), record);
    record.eraseAll(userWord);
    return takeOut(entries, file, record);
}

/// The shared entries too, where the record knows of no other certificate.
Outcome PolicyPlace::takeOut(const std::vector<PolicyEntry>& entries, PolicyFile& file, Record& record)
{
    const bool hadEntries = std::ranges::any_of(entries, [&](const PolicyEntry& entry) { return file.holds(entry); });
    const auto take = [&](const PolicyEntry& entry) { file.take(entry); };
    std::ranges::for_each(entries, take);
    if (!record.hasPrefix(userWord))
        std::ranges::for_each(everySharedEntry(), take);
    std::string error = file.save();
    for (const PolicyEntry& entry : entries) {
        if (error.empty())
            error = cleanUp(entry);
    }
    if (!error.empty())
        return failed(error);
    return finish(afterRemoving(done("removed (" + files_.policies + ")"), hadEntries), record);
}

std::string PolicyPlace::prepare(const Bytes&, Record&) const { return {}; }
std::string PolicyPlace::cleanUp(const PolicyEntry&) const { return {}; }
Outcome PolicyPlace::afterAdding(Outcome outcome) const { return outcome; }
Outcome PolicyPlace::afterRemoving(Outcome outcome, bool) const { return outcome; }

} // namespace kf::security
