// What we put into places that are not ours alone.
#pragma once

#include <set>
#include <string>

namespace kf::security {

/// A set of lines in a file of root's. prepare() comes before the change that
/// the lines are about, and save() after it, so that a crash leaves a line too
/// many and never one too few.
class Record {
public:
    static constexpr const char* folder = "/var/lib/keyfold";

    /// Reads it. A record that is not there is empty.
    explicit Record(std::string path);

    /// Why it cannot be read, empty for nothing: then nothing may be changed on its strength.
    const std::string& error() const noexcept { return error_; }

    bool has(const std::string& line) const { return lines_.contains(line); }
    bool hasPrefix(const std::string& prefix) const;
    void add(const std::string& line) { lines_.insert(line); }
    void erase(const std::string& line) { lines_.erase(line); }
    void eraseAll(const std::string& prefix);

    /// Puts the lines on the disk besides those that stand there. Gives what went wrong.
    std::string prepare();
    /// Puts the lines on the disk, and no others; without any it is deleted. Gives what went wrong.
    std::string save();
    bool isChanged() const { return lines_ != saved_; }

    /// Makes a directory with those above it, and remembers which are ours. Prepares. Gives what went wrong.
    std::string makeDirectory(const std::string& directory);
    /// Takes the lines back that came since `before` was copied, but for our directories.
    void takeBack(const Record& before);
    /// Deletes those of our directories that are empty.
    void removeDirectories();

private:
    std::string write(const std::set<std::string>& lines);

    std::string path_;
    std::string error_;
    std::set<std::string> lines_;
    std::set<std::string> saved_;
};

} // namespace kf::security
