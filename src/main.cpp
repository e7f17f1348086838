// Process entry: the application object, the one controller, the event loop.
#include "app/AppDelegate.h"
#include "app/ApplicationHost.h"
#include "app/log/AppLogger.h"
#include "control/AgentNotifications.h"
#include "control/CommandClient.h"
#include "control/CommandLine.h"
#include "control/ControlProtocol.h"
#include "control/ControlServer.h"

#include <QApplication>
#include <cstdio>
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

QStringList argumentList(int argc, char *argv[])
{
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    return arguments;
}

} // namespace

int main(int argc, char *argv[])
{
    const CommandLine commandLine = parseCommandLine(argumentList(argc, argv));
    switch (commandLine.kind) {
    case CommandLine::Kind::help:
        std::fputs(qPrintable(usageText()), stdout);
        return ExitCode::done;
    case CommandLine::Kind::version:
        std::fputs(qPrintable(versionText()), stdout);
        return ExitCode::done;
    case CommandLine::Kind::badUsage:
        std::fprintf(stderr, "quillmere-menu: %s; --help lists the options.\n", qPrintable(commandLine.problem));
        return ExitCode::badUsage;
    case CommandLine::Kind::launch:
        break;
    default:
        return runControlCommand(argc, argv, commandLine);
    }
    chooseHeadlessPlatformWithoutDisplay();
#ifdef Q_OS_MACOS
    installAppKitApplicationDelegate(); // before Qt's own, which then forwards to it
#endif
    // What panels list and screen readers announce for the program, as its desktop entry names it. The
    // tray item's title is read from the application name, and the display name follows it when not set
    // apart; the item's id and the X11 class follow too, the X11 instance stays the executable's name.
    QCoreApplication::setApplicationName(QStringLiteral(QUILLMERE_DISPLAY_NAME));
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    // Read again without the options Qt took for itself (-platform and the like), which it understood.
    if (const QString problem = parseCommandLine(QCoreApplication::arguments()).problem; !problem.isEmpty())
        std::fprintf(stderr, "quillmere-menu: %s, ignored; --help lists the options.\n", qPrintable(problem));

    ApplicationHost host;
    Configuration configuration = Configuration::fromEnvironment();
    PlatformServices platform = PlatformServices::forThisSystem(configuration);
    AppDelegate delegate(std::move(configuration), std::move(platform), &host);
    host.setDelegate(&delegate);
    // Commands from outside the menu, and notifications of what the menu alone would not tell.
    ControlServer control(delegate, controlSocketPath(delegate.configuration()));
    AgentNotifications notifications(delegate);
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
