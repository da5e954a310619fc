// A run of pages that belong together.
#pragma once

#include "Foundation/NSString.h"

#include <QObject>

#include <memory>
#include <vector>

class KFWizardPane;

/// Main thread.
class KFWizardSection final : public QObject {
    Q_OBJECT
public:
    KFWizardSection();
    ~KFWizardSection() override;

    /// Adds a page at the end; the section owns it.
    KFWizardPane* addPane(std::unique_ptr<KFWizardPane> pane);
    const std::vector<std::unique_ptr<KFWizardPane>>& panes() const noexcept { return panes_; }

    /// The commit point of the wizard: nobody goes back into or past a section
    /// that is one.
    void setCommitSection(bool commitSection);
    bool isCommitSection() const noexcept { return commitSection_; }
    /// The wizard ends after this section, whatever follows it.
    void setFinalSection(bool finalSection);
    bool isFinalSection() const noexcept { return finalSection_; }

Q_SIGNALS:
    void changed();

private:
    std::vector<std::unique_ptr<KFWizardPane>> panes_;
    bool commitSection_ = false;
    bool finalSection_ = false;
};
