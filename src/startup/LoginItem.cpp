// Run at startup through the login-item service, falling back to the legacy launch agent; the
// state is worked out afresh from the service and the property list files every time.
#include "app/AppDelegate.h"
#include "app/log/AppLogger.h"
#include "menu/MenuItemCheckState.h"

#include <QAction>

namespace {

const QString runAtStartupTitle = QStringLiteral("Run at Startup");
const QString runAtStartupNeedsApprovalTitle = QStringLiteral("Run at Startup (Needs Approval)");
const QString approvalRequiredMessage =
    QStringLiteral("User approval is required for login-item registration. Opening Login Items settings.");

int checkStateFor(RunAtStartupState state)
{
    switch (state) {
    case RunAtStartupState::enabled:
        return menuItemStateOn;
    case RunAtStartupState::needsApproval:
        return menuItemStateMixed;
    case RunAtStartupState::disabled:
        break;
    }
    return menuItemStateOff;
}

QString serviceErrorLine(const QString &prefix, const LoginItemError &error)
{
    return prefix + error.domain + QStringLiteral(" code=") + QString::number(error.code) +
           QStringLiteral(" message=") + error.message;
}

} // namespace

RunAtStartupState AppDelegate::resolveRunAtStartupState()
{
    // The legacy files are looked at first and every time: they count as on whatever the
    // service says.
    const bool legacyInPlace = legacyRunAtStartupEnabled();
    LoginItemService *service = platform_.loginItems.get();
    if (!service || !service->isAvailable())
        return legacyInPlace ? RunAtStartupState::enabled : RunAtStartupState::disabled;

    const int status = service->status();
    if (status == LoginItemService::statusEnabled || legacyInPlace)
        return RunAtStartupState::enabled;
    if (status == LoginItemService::statusRequiresApproval)
        return RunAtStartupState::needsApproval;
    return RunAtStartupState::disabled;
}

void AppDelegate::refreshRunAtStartupState()
{
    const RunAtStartupState state = resolveRunAtStartupState();
    QAction *item = runAtStartupMenuItem();
    setMenuItemCheckState(item, checkStateFor(state));
    item->setText(state == RunAtStartupState::needsApproval ? runAtStartupNeedsApprovalTitle : runAtStartupTitle);
}

void AppDelegate::toggleRunAtStartup()
{
    // The item's check mark may be stale (changes made in the system settings show only after a
    // switch), so the decision is made on the state as it is now.
    if (resolveRunAtStartupState() == RunAtStartupState::disabled)
        enableRunAtStartup();
    else
        disableRunAtStartup();
    refreshRunAtStartupState();
}

void AppDelegate::enableRunAtStartup()
{
    LoginItemService *service = platform_.loginItems.get();
    if (!service || !service->isAvailable()) {
        installLegacyRunAtStartup();
        return;
    }

    AppLogger &logger = AppLogger::shared();
    const std::optional<LoginItemError> error = service->registerApp();
    if (!error) {
        logger.log(QStringLiteral("Enabled run-at-startup with SMAppService."));
        // Unloading a legacy job that started this very copy makes the system ask it to quit;
        // that quit must leave the agent running.
        stopAgentOnTerminate = false;
        removeLegacyRunAtStartup();
        stopAgentOnTerminate = true;
        if (service->status() == LoginItemService::statusRequiresApproval) {
            logger.log(QStringLiteral("SMAppService registration requires approval. Opening Login Items settings."));
            service->openSystemSettingsLoginItems();
        }
        return;
    }

    logger.log(serviceErrorLine(QStringLiteral("SMAppService registration failed: domain="), *error));
    switch (error->code) {
    case LoginItemService::errorAlreadyRegistered:
        // The login item already does the job; a legacy agent would start a second copy.
        removeLegacyRunAtStartup();
        return;
    case LoginItemService::errorLaunchDeniedByUser:
        break;
    default:
        if (service->status() != LoginItemService::statusRequiresApproval) {
            installLegacyRunAtStartup();
            return;
        }
    }
    logger.log(approvalRequiredMessage);
    service->openSystemSettingsLoginItems();
}

void AppDelegate::disableRunAtStartup()
{
    LoginItemService *service = platform_.loginItems.get();
    if (service && service->isAvailable()) {
        const std::optional<LoginItemError> error = service->unregisterApp();
        if (!error)
            AppLogger::shared().log(QStringLiteral("Disabled run-at-startup with SMAppService."));
        else if (error->code != LoginItemService::errorJobNotFound)
            AppLogger::shared().log(
                serviceErrorLine(QStringLiteral("SMAppService unregister failed: domain="), *error));
    }
    // Whichever way it had been turned on, the legacy agent goes too.
    removeLegacyRunAtStartup();
}
