#include "control/CommandLine.h"

#include <QCommandLineParser>
#include <algorithm>
#include <map>

namespace {

const QString launchedAtLoginName = QStringLiteral("launched-at-login");

} // namespace

const QStringList &pageNames()
{
    static const QStringList names = {QStringLiteral("cloud-admin"),    QStringLiteral("updates"),
                                      QStringLiteral("local-admin"),    QStringLiteral("getting-started"),
                                      QStringLiteral("startup-status"), QStringLiteral("logs")};
    return names;
}

const QList<CommandLineOption> &commandLineOptions()
{
    static const QList<CommandLineOption> options = {
        {{launchedAtLoginName}, {}, QStringLiteral("started by the desktop session at login")},
        {{QStringLiteral("status")}, {}, QStringLiteral("print the agent's state and version")},
        {{QStringLiteral("watch")}, {}, QStringLiteral("with --status: then a line on each change, until interrupted")},
        {{QStringLiteral("json")}, {}, QStringLiteral("with --status or --diagnose: as JSON, one object a line")},
        {{QStringLiteral("diagnose")}, {}, QStringLiteral("report on the set-up, for support; changes nothing")},
        {{QStringLiteral("start-agent")},
         {},
         QStringLiteral("start the agent, as the menu's Start Agent does, and wait")},
        {{QStringLiteral("stop-agent")}, {}, QStringLiteral("stop the agent, as the menu's Stop Agent does, and wait")},
        {{QStringLiteral("open")},
         QStringLiteral("PAGE"),
         QStringLiteral("open a page: ") + pageNames().join(QStringLiteral(", "))},
        {{QStringLiteral("quit")}, {}, QStringLiteral("quit the running program (it stops the agent first) and wait")},
        {{QStringLiteral("h"), QStringLiteral("help")}, {}, QStringLiteral("print this help and exit")},
        {{QStringLiteral("v"), QStringLiteral("version")}, {}, QStringLiteral("print the version and exit")},
    };
    return options;
}

QString usageText()
{
    QString options;
    for (const CommandLineOption &option : commandLineOptions()) {
        QStringList names;
        for (const QString &name : option.names)
            names.append((name.size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + name);
        QString left = names.join(QStringLiteral(", "));
        if (!option.valueName.isEmpty())
            left += u' ' + option.valueName;
        options += QStringLiteral("  ") + left.leftJustified(19) + QStringLiteral("  ") + option.description + u'\n';
    }
    return QStringLiteral("Usage: quillmere-menu [--launched-at-login]\n"
                          "       quillmere-menu --status [--watch] [--json] | --diagnose [--json]\n"
                          "       quillmere-menu --start-agent | --stop-agent | --open PAGE | --quit\n"
                          "\n"
                          "Tray controller for the local Quillmere agent: shows whether it runs, starts it\n"
                          "when the program starts and stops it when the program quits.\n"
                          "\n") +
           options +
           QStringLiteral("\n"
                          "A command talks to the program running in this session; with none running it\n"
                          "does the job itself. Exit codes: 0 done (--status: the agent runs), 1 failed,\n"
                          "2 bad usage, 3 not running (--status: the agent; --quit: the program), 4 no\n"
                          "answer from the running program (--watch: its channel broke), 5 not available\n"
                          "now, 6 --diagnose found a problem.\n"
                          "\n"
                          "Examples:\n"
                          "  quillmere-menu --status --json\n"
                          "  quillmere-menu --status --watch --json | jq --unbuffered -r .state\n"
                          "  quillmere-menu --diagnose\n"
                          "  quillmere-menu --open lo<Tab>    (bash, zsh and fish complete options and pages)\n"
                          "\n"
                          "Log: $XDG_DATA_HOME/TallyholdAgent/runtime/logs/menu-app.log\n");
}

QString versionText()
{
    return QStringLiteral("quillmere-menu " QUILLMERE_VERSION "\n");
}

CommandLine parseCommandLine(const QStringList &arguments)
{
    QCommandLineParser parser;
    // "-help" and "--help" alike; no bundling of single letters into words.
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    std::map<QString, QCommandLineOption> byName;
    for (const CommandLineOption &option : commandLineOptions()) {
        const QCommandLineOption parsed(option.names, option.description, option.valueName.toLower());
        parser.addOption(parsed);
        byName.emplace(option.names.constLast(), parsed);
    }
    const QCommandLineOption &help = byName.at(QStringLiteral("help")), &version = byName.at(QStringLiteral("version")),
                             &launchedAtLogin = byName.at(launchedAtLoginName),
                             &status = byName.at(QStringLiteral("status")), &watch = byName.at(QStringLiteral("watch")),
                             &json = byName.at(QStringLiteral("json")),
                             &diagnose = byName.at(QStringLiteral("diagnose")),
                             &startAgent = byName.at(QStringLiteral("start-agent")),
                             &stopAgent = byName.at(QStringLiteral("stop-agent")),
                             &open = byName.at(QStringLiteral("open")), &quit = byName.at(QStringLiteral("quit"));

    CommandLine result;
    const bool parsed = parser.parse(arguments);
    // Help and version win over everything else on the line, as they always have.
    if (parser.isSet(help)) {
        result.kind = CommandLine::Kind::help;
        return result;
    }
    if (parser.isSet(version)) {
        result.kind = CommandLine::Kind::version;
        return result;
    }

    // The first argument not understood, as the user typed it.
    QString notUnderstood;
    if (!parser.unknownOptionNames().isEmpty()) {
        // Qt keeps the dashes past the usual two in the name ("---x" is "-x"): both are matched without any.
        const auto withoutDashes = [](QString text) {
            while (text.startsWith(u'-'))
                text.remove(0, 1);
            return text;
        };
        const QString name = withoutDashes(parser.unknownOptionNames().constFirst());
        notUnderstood = QStringLiteral("-") + name;
        for (const QString &argument : arguments.mid(1)) {
            if (argument.startsWith(u'-') && withoutDashes(argument.section(u'=', 0, 0)) == name) {
                notUnderstood = argument.section(u'=', 0, 0);
                break;
            }
        }
        notUnderstood = QStringLiteral("unknown option '%1'").arg(notUnderstood);
    } else if (!parser.positionalArguments().isEmpty()) {
        notUnderstood = QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().constFirst());
    } else if (!parsed) {
        // A value where none goes, or none where one must; Qt's sentence loses its full stop.
        notUnderstood = parser.errorText();
        if (notUnderstood.endsWith(u'.'))
            notUnderstood.chop(1);
    } else if (parser.isSet(launchedAtLogin) && !arguments.contains(QStringLiteral("--") + launchedAtLoginName)) {
        notUnderstood = QStringLiteral("'-%1' is not the login flag --%1").arg(launchedAtLoginName);
    }

    // --json and --watch only qualify a command; alone they read as the command they go with.
    const QList<std::pair<const QCommandLineOption *, CommandLine::Kind>> commands = {
        {&status, CommandLine::Kind::status},
        {&diagnose, CommandLine::Kind::diagnose},
        {&startAgent, CommandLine::Kind::startAgent},
        {&stopAgent, CommandLine::Kind::stopAgent},
        {&open, CommandLine::Kind::open},
        {&quit, CommandLine::Kind::quit},
        {&json, CommandLine::Kind::status},
        {&watch, CommandLine::Kind::status}};
    QStringList given;
    for (const auto &[option, kind] : commands) {
        const QString name = option->names().constFirst();
        const bool mentioned = std::any_of(arguments.begin() + 1, arguments.end(), [&name](const QString &argument) {
            return argument.startsWith(QStringLiteral("--") + name) || argument.startsWith(QStringLiteral("-") + name);
        });
        if (parser.isSet(*option) || mentioned) {
            if (option != &json && option != &watch)
                given.append(QStringLiteral("--") + name);
            if (result.kind == CommandLine::Kind::launch)
                result.kind = kind;
        }
    }

    if (result.kind == CommandLine::Kind::launch) {
        // Anything else keeps starting the program as it always has; the user is told what was not understood.
        result.problem = notUnderstood;
        return result;
    }
    const auto badUsage = [&result](const QString &problem) {
        result.kind = CommandLine::Kind::badUsage;
        result.problem = problem;
        return result;
    };
    if (given.size() > 1)
        return badUsage(QStringLiteral("one command at a time, not ") + given.join(QStringLiteral(" and ")));
    if (!notUnderstood.isEmpty())
        return badUsage(notUnderstood);
    const bool reported = result.kind == CommandLine::Kind::status || result.kind == CommandLine::Kind::diagnose;
    if (parser.isSet(watch) && (given.isEmpty() || result.kind != CommandLine::Kind::status))
        return badUsage(QStringLiteral("--watch goes with --status"));
    if (given.isEmpty() || (parser.isSet(json) && !reported))
        return badUsage(QStringLiteral("--json goes with --status or --diagnose"));
    if (parser.isSet(launchedAtLogin))
        return badUsage(QStringLiteral("--launched-at-login is for a plain launch, not with ") + given.constFirst());
    result.json = parser.isSet(json);
    result.watch = parser.isSet(watch);
    if (result.kind == CommandLine::Kind::open) {
        result.page = parser.value(open);
        if (!pageNames().contains(result.page))
            return badUsage(QStringLiteral("unknown page '%1' (one of %2)")
                                .arg(result.page, pageNames().join(QStringLiteral(", "))));
    }
    return result;
}
