#include "KFWizard/PlugInInterface.h"

#ifdef TEST_INTERFACE_VERSION
extern "C" {
extern const std::uint32_t KFWizardInterfaceVersion;
const std::uint32_t KFWizardInterfaceVersion = TEST_INTERFACE_VERSION;
KFWizardPane* KFWizardCreatePane();
KFWizardPane* KFWizardCreatePane() { return nullptr; }
}
#else
namespace {

class TestPage final : public KFWizardPane {
public:
    QString interfaceName() const override { return QStringLiteral("TestPage"); }
    Ref<NSString> title() const override { return "A Test"_ns; }

protected:
    void connectOutlets(kf::Outlets& outlets) override { outlets.find<QLabel>("greeting"); }
};

} // namespace

KFWIZARD_PANE(TestPage)
#endif
