// A page that greets whoever signed in: about the least that a page can be.
#include <Foundation/NSFormat.h>
#include <KFWizard/PlugInInterface.h>

class WelcomePage final : public KFWizardPane {
    Ref<NSString> title() const override { return "Welcome"_ns; }
    QString interfaceName() const override { return QStringLiteral("WelcomePage"); }
    void didEnterPane(NSInteger) override
    {
        setActiveMessageField(messageField());
        showMessage(NSStringWithFormat("Nice to see you, %@.", valueForField("login"_ns)));
    }
};

KFWIZARD_PANE(WelcomePage)
