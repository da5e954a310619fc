// How a bundle offers its page to the wizard.
#pragma once

#include "KFWizard/KFWizardPane.h"

#include <cstdint>

/// Grows with every change of KFWizardPane's shape; a bundle built for another
/// one is refused.
inline constexpr std::uint32_t KFWizardCurrentInterfaceVersion = 1;

/// The symbols that a bundle's code exports.
inline constexpr const char* KFWizardInterfaceVersionSymbol = "KFWizardInterfaceVersion";
inline constexpr const char* KFWizardCreatePaneSymbol = "KFWizardCreatePane";
using KFWizardCreatePaneFunction = KFWizardPane* (*)();

/// Offers the page class `Pane`; once in a bundle's sources.
#define KFWIZARD_PANE(Pane)                                                                                            \
    extern "C" {                                                                                                       \
    extern const std::uint32_t KFWizardInterfaceVersion;                                                               \
    const std::uint32_t KFWizardInterfaceVersion = KFWizardCurrentInterfaceVersion;                                    \
    KFWizardPane* KFWizardCreatePane();                                                                                \
    KFWizardPane* KFWizardCreatePane() { return new Pane; }                                                            \
    }
