// Process entry: the application object, the one controller, the event loop.
#include "app/AppDelegate.h"
#include "app/ApplicationHost.h"
#include "app/CommandLine.h"
#include "app/log/AppLogger.h"

#include <QApplication>
#ifdef Q_OS_MACOS
#include "platform/macos/AppKitApplicationDelegate.h"
#endif

namespace {

// Without a display the program runs headless: the agent is still supervised and the log written.
// Only a Linux session tells this by its variables; macOS always has its window server.
void chooseHeadlessPlatformWithoutDisplay()
{
#ifdef Q_OS_LINUX
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM") && qEnvironmentVariableIsEmpty("DISPLAY") &&
        qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
#endif
}

} // namespace

int main(int argc, char *argv[])
{
    if (const auto exitCode = answerInformationalOption(argc, argv))
        return *exitCode;
    chooseHeadlessPlatformWithoutDisplay();
#ifdef Q_OS_MACOS
    installAppKitApplicationDelegate(); // before Qt's own, which then forwards to it
#endif
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);

    ApplicationHost host;
    Configuration configuration = Configuration::fromEnvironment();
    PlatformServices platform = PlatformServices::forThisSystem(configuration);
    AppDelegate delegate(std::move(configuration), std::move(platform), &host);
    host.setDelegate(&delegate);
#ifdef Q_OS_MACOS
    connectAppKitApplicationDelegate(&host);
#endif
    QObject::connect(&host, &ApplicationHost::terminated, &application, [] { QCoreApplication::exit(0); });
    host.installQuitSignalHandlers();
    host.finishLaunching();

    application.exec();
    AppLogger::shared().flush();
    return 0;
}
