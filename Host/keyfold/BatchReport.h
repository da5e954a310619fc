// What batch mode prints.
#pragma once

#include "keyfold/CommandLine.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QStringList>

#include <mutex>

namespace kf {

/// Collects what happens and prints it as the command line asks: line by line as it happens, at the end and only where
/// something failed, or as one JSON object at the end. Any thread.
class BatchReport {
public:
    explicit BatchReport(CommandLine::Output output) : output_(output) { }

    void title(const QString& text);
    /// What is said about something: a job, the summary, a finding of a dry run. Empty: about nothing in particular.
    void message(const QString& about, const QString& text);
    void question(const QString& question, const QString& answer);
    void jobEnded(const QString& job, const QString& state, bool succeeded);
    /// For standard error, and the JSON object.
    void warning(const QString& text);
    void error(const QString& text);
    void logged(const std::string& line);

    /// Prints what is left to print, and gives the exit status back: another one where the output could not be written.
    int finish(int status, bool installed, bool dryRun);

private:
    void line(const QString& text);
    QJsonObject object(int status, bool installed, bool dryRun) const;

    const CommandLine::Output output_;
    std::mutex mutex_;
    QStringList held_; ///< lines that are printed where something failed
    bool jobFailed_ = false;
    QStringList order_; ///< whom messages are about, as they come
    QMap<QString, QJsonArray> messages_;
    QJsonArray jobs_;
    QJsonArray questions_;
    QJsonArray warnings_;
    QJsonArray errors_;
    QJsonArray log_;
};

} // namespace kf
