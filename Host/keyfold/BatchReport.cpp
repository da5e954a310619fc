#include "keyfold/BatchReport.h"

#include "keyfold/ExitStatus.h"

#include <QJsonDocument>

#include <cstdio>

namespace kf {

namespace {

void print(const QString& text)
{
    std::printf("%s\n", text.toUtf8().constData());
    std::fflush(stdout);
}

} // namespace

// With mutex_ held.
void BatchReport::line(const QString& text)
{
    if (output_ == CommandLine::Output::quiet)
        held_ += text;
    else if (output_ != CommandLine::Output::json)
        print(text);
}

void BatchReport::title(const QString& text)
{
    const std::lock_guard lock(mutex_);
    line(text);
}

void BatchReport::message(const QString& about, const QString& text)
{
    const std::lock_guard lock(mutex_);
    if (!order_.contains(about))
        order_ += about;
    messages_[about].append(text);
    line(about.isEmpty() ? text : about + QStringLiteral(": ") + text);
}

void BatchReport::question(const QString& question, const QString& answer)
{
    const std::lock_guard lock(mutex_);
    questions_.append(QJsonObject{{QStringLiteral("question"), question}, {QStringLiteral("answer"), answer}});
    line(question);
    line(QStringLiteral("Answer: ") + answer);
}

void BatchReport::jobEnded(const QString& job, const QString& state, bool succeeded)
{
    const std::lock_guard lock(mutex_);
    jobFailed_ = jobFailed_ || !succeeded;
    jobs_.append(QJsonObject{{QStringLiteral("name"), job}, {QStringLiteral("state"), state},
        {QStringLiteral("messages"), messages_.value(job)}});
    line(job + QStringLiteral(": ") + state);
}

void BatchReport::warning(const QString& text)
{
    const std::lock_guard lock(mutex_);
    warnings_.append(text);
    std::fprintf(stderr, "keyfold: warning: %s\n", text.toUtf8().constData());
}

void BatchReport::error(const QString& text)
{
    const std::lock_guard lock(mutex_);
    errors_.append(text);
    std::fprintf(stderr, "keyfold: %s\n", text.toUtf8().constData());
}

void BatchReport::logged(const std::string& text)
{
    const std::lock_guard lock(mutex_);
    log_.append(QString::fromStdString(text));
    if (output_ == CommandLine::Output::verbose)
        line(QStringLiteral("Log: ") + QString::fromStdString(text));
}

QJsonObject BatchReport::object(int status, bool installed, bool dryRun) const
{
    QJsonArray others;
    for (const QString& about : order_) {
        const bool isJob = std::any_of(jobs_.begin(), jobs_.end(),
            [&](const QJsonValue& job) { return job.toObject()[QStringLiteral("name")] == about; });
        for (const auto& text : isJob ? QJsonArray() : messages_[about])
            others.append(QJsonObject{{QStringLiteral("about"), about}, {QStringLiteral("text"), text}});
    }
    return {{QStringLiteral("version"), QStringLiteral(KEYFOLD_VERSION)}, {QStringLiteral("exitStatus"), status},
        {QStringLiteral("dryRun"), dryRun}, {QStringLiteral("installed"), installed}, {QStringLiteral("jobs"), jobs_},
        {QStringLiteral("messages"), others}, {QStringLiteral("questions"), questions_},
        {QStringLiteral("warnings"), warnings_}, {QStringLiteral("errors"), errors_}, {QStringLiteral("log"), log_}};
}

int BatchReport::finish(int status, bool installed, bool dryRun)
{
    const std::lock_guard lock(mutex_);
    if (output_ == CommandLine::Output::json)
        print(QString::fromUtf8(QJsonDocument(object(status, installed, dryRun)).toJson()).trimmed());
    if (output_ == CommandLine::Output::quiet && (status != exitInstalled || jobFailed_)) {
        for (const QString& text : std::as_const(held_))
            print(text);
    }
    if (!std::ferror(stdout))
        return status;
    std::fputs("keyfold: the output cannot be written\n", stderr);
    return status == exitInstalled ? exitIncomplete : status;
}

} // namespace kf
