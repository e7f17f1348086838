// Writes the bash, zsh and fish completions from the very list of options the program parses,
// so that a new option or page cannot be left out of them.
//   quillmere-write-completions <output folder>
#include "control/CommandLine.h"

#include <QDir>
#include <QFile>
#include <QStringList>
#include <cstdio>

namespace {

const QString program = QStringLiteral("quillmere-menu");
const QString header = QStringLiteral("completion for quillmere-menu, generated from the options it parses\n");

QString dashed(const QString &name)
{
    return (name.size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + name;
}

// Inside single quotes of a POSIX shell.
QString quoted(QString text)
{
    return u'\'' + text.replace(u'\'', QStringLiteral("'\\''")) + u'\'';
}

QString bash()
{
    QStringList words;
    for (const CommandLineOption &option : commandLineOptions())
        for (const QString &name : option.names)
            words.append(dashed(name));
    return QStringLiteral("# bash ") + header +
           QStringLiteral("_quillmere_menu()\n"
                          "{\n"
                          "    local cur=${COMP_WORDS[COMP_CWORD]}\n"
                          "    if [[ ${COMP_WORDS[COMP_CWORD-1]} == --open ]]; then\n"
                          "        mapfile -t COMPREPLY < <(compgen -W %1 -- \"$cur\")\n"
                          "    else\n"
                          "        mapfile -t COMPREPLY < <(compgen -W %2 -- \"$cur\")\n"
                          "    fi\n"
                          "}\n"
                          "complete -F _quillmere_menu %3\n")
               .arg(quoted(pageNames().join(u' ')), quoted(words.join(u' ')), program);
}

QString zsh()
{
    QString arguments;
    for (const CommandLineOption &option : commandLineOptions()) {
        QString description = option.description;
        description.replace(u'[', QStringLiteral("\\[")).replace(u']', QStringLiteral("\\]"));
        description.replace(u':', QStringLiteral("\\:"));
        QStringList names;
        for (const QString &name : option.names)
            names.append(dashed(name));
        QString argument = u'[' + description + u']';
        if (!option.valueName.isEmpty())
            argument += u':' + option.valueName.toLower() + QStringLiteral(":(") + pageNames().join(u' ') + u')';
        // Either spelling of an option excludes the other: '(-h --help)'{-h,--help}'[...]'.
        arguments += QStringLiteral(" \\\n  ") + (names.size() > 1 ? quoted(u'(' + names.join(u' ') + u')') + u'{' +
                                                                         names.join(u',') + u'}' + quoted(argument)
                                                                   : quoted(names.constFirst() + argument));
    }
    return QStringLiteral("#compdef %1\n# zsh ").arg(program) + header + QStringLiteral("_arguments") + arguments +
           u'\n';
}

QString fish()
{
    QString lines = QStringLiteral("# fish ") + header + QStringLiteral("complete -c %1 -f\n").arg(program);
    for (const CommandLineOption &option : commandLineOptions()) {
        QString line = QStringLiteral("complete -c ") + program;
        for (const QString &name : option.names)
            line += (name.size() == 1 ? QStringLiteral(" -s ") : QStringLiteral(" -l ")) + name;
        if (!option.valueName.isEmpty())
            line += QStringLiteral(" -x -a ") + quoted(pageNames().join(u' '));
        QString description = option.description;
        lines +=
            line + QStringLiteral(" -d '") + description.replace(u'\'', QStringLiteral("\\'")) + QStringLiteral("'\n");
    }
    return lines;
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc != 2) {
        std::fputs("usage: quillmere-write-completions <output folder>\n", stderr);
        return 2;
    }
    const QString folder = QString::fromLocal8Bit(argv[1]);
    for (const auto &[name, text] :
         {std::pair{QStringLiteral("quillmere-menu.bash"), bash()}, std::pair{QStringLiteral("_quillmere-menu"), zsh()},
          std::pair{QStringLiteral("quillmere-menu.fish"), fish()}}) {
        QFile file(folder + u'/' + name);
        if (!QDir().mkpath(folder) || !file.open(QIODevice::WriteOnly) || file.write(text.toUtf8()) < 0) {
            std::fprintf(stderr, "quillmere-write-completions: cannot write %s\n", qPrintable(file.fileName()));
            return 1;
        }
    }
    return 0;
}
