#include "KFWizard/KFWizardSection.h"

#include "KFWizard/KFWizardPane.h"

KFWizardSection::KFWizardSection() = default;
KFWizardSection::~KFWizardSection() = default;

KFWizardPane* KFWizardSection::addPane(std::unique_ptr<KFWizardPane> pane)
{
    pane->section_ = this;
    panes_.push_back(std::move(pane));
    return panes_.back().get();
}

void KFWizardSection::setCommitSection(bool commitSection)
{
    commitSection_ = commitSection;
    Q_EMIT changed();
}

void KFWizardSection::setFinalSection(bool finalSection)
{
    finalSection_ = finalSection;
    Q_EMIT changed();
}
