// A stand-in for the agent's control script: it records every run with its arguments, then does
// what the test chose for that command (exit code, waiting until released, extra shell lines).
#pragma once

#include "support/Files.h"
#include "support/TestEnvironment.h"

struct ScriptBehaviour {
    int exitCode = 0;
    bool holdUntilReleased = false; // until release(), or until the record folder goes with its owner
    QString extra;                  // shell lines run first
};

class FakeControlScript {
public:
    explicit FakeControlScript(QString scriptPath) : scriptPath_(std::move(scriptPath)) {}

    QString path() const { return scriptPath_; }

    void write(const ScriptBehaviour &start = {}, const ScriptBehaviour &stop = {}) const
    {
        // One line per run: "run", then each argument after a tab.
        TestEnvironment::writeScript(
            scriptPath_,
            u"state=%1\n{ printf run; printf '\\t%s' \"$@\"; echo; } >> \"$state/runs\"\ncase \"$1\" in\n%2%3esac\n"_s
                .arg(TestEnvironment::shellQuoted(state_.path()), branch(u"start"_s, start), branch(u"stop"_s, stop)));
    }

    // Every run so far, each as its argument list.
    QList<QStringList> runs() const
    {
        QList<QStringList> result;
        for (const QString &line : QString(readFile(state_.path() + u"/runs"_s)).split(u'\n', Qt::SkipEmptyParts))
            result.append(line.split(u'\t').mid(1));
        return result;
    }

    void release(const QString &command) const { QFile(state_.path() + u"/release-"_s + command).open(QFile::Append); }
    void hold(const QString &command) const { QFile::remove(state_.path() + u"/release-"_s + command); }

private:
    static QString branch(const QString &command, const ScriptBehaviour &behaviour)
    {
        const QString hold = u"  while [ ! -e \"$state/release-$1\" ] && [ -d \"$state\" ]; do sleep 0.02; done\n"_s;
        return u"%1)\n  %2\n%3  exit %4\n  ;;\n"_s.arg(command, behaviour.extra,
                                                       behaviour.holdUntilReleased ? hold : QString(),
                                                       QString::number(behaviour.exitCode));
    }

    QString scriptPath_;
    QTemporaryDir state_;
};
