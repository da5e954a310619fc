#include "security/Record.h"

#include "security/FileTools.h"

#include <filesystem>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace kf::security {

namespace {

constexpr std::size_t sizeLimit = 1024UL * 1024;
constexpr const char* directoryWord = "directory ";

std::string parentOf(const std::string& path) { return std::filesystem::path(path).parent_path().string(); }

} // namespace

Record::Record(std::string path) : path_(std::move(path))
{
    const FileContent content = readFile(path_, sizeLimit);
    if (!content.text) {
        if (!content.isMissing)
            error_ = path_ + ": " + content.error;
        return;
    }
    std::istringstream stream(*content.text);
    for (std::string line; std::getline(stream, line);)
        lines_.insert(line);
    saved_ = lines_;
}

bool Record::hasPrefix(const std::string& prefix) const
{
    const auto next = lines_.lower_bound(prefix);
    return next != lines_.end() && next->starts_with(prefix);
}

void Record::eraseAll(const std::string& prefix)
{
    std::erase_if(lines_, [&](const std::string& line) { return line.starts_with(prefix); });
}

std::string Record::prepare()
{
    std::set<std::string> both = lines_;
    both.insert(saved_.begin(), saved_.end());
    return write(both);
}

std::string Record::save() { return write(lines_); }

std::string Record::write(const std::set<std::string>& lines)
{
    if (!error_.empty())
        return error_;
    // There may still be what a run left that did not come to its end.
    if (lines == saved_ && !lines.empty())
        return removeLeftover(path_);
    std::string text;
    for (const std::string& line : lines)
        text += line + '\n';
    if (std::string error = text.empty() ? removeFile(path_) : writeFileAtomically(path_, text, 0644); !error.empty())
        return error;
    saved_ = lines;
    if (text.empty())
        ::rmdir(parentOf(path_).c_str()); // where it was the last record of all
    return {};
}

std::string Record::makeDirectory(const std::string& directory)
{
    const auto missing = missingDirectories(directory);
    for (const std::string& path : missing)
        add(directoryWord + path);
    if (std::string error = prepare(); !error.empty())
        return error;
    for (const std::string& path : missing) {
        if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST)
            return "cannot make " + path + ": " + errorText(errno);
    }
    return {};
}

void Record::takeBack(const Record& before)
{
    std::erase_if(
        lines_, [&](const std::string& line) { return !before.has(line) && !line.starts_with(directoryWord); });
}

void Record::removeDirectories()
{
    // The set is sorted: what lies below comes later.
    for (auto line = lines_.end(); line != lines_.begin();) {
        --line;
        if (!line->starts_with(directoryWord))
            continue;
        ::rmdir(line->substr(std::string_view(directoryWord).size()).c_str());
        line = lines_.erase(line);
    }
}

} // namespace kf::security
