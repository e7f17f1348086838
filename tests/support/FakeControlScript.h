// A stand-in for the agent's control script: it records every run with its arguments and then
// does what the test chose for that command (exit code, extra shell lines, waiting until the
// test releases it). Header-only, so test folders can use it without touching the support library.
#pragma once

#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QList>
#include <QStringList>
#include <QTemporaryDir>

// What one command of the fake script does.
struct ScriptBehaviour {
    int exitCode = 0;
    // Keep running until release() is called for this command (or the recorder goes away).
    bool holdUntilReleased = false;
    // Shell lines run after the hold and before the exit.
    QString extra;
};

class FakeControlScript {
public:
    using Behaviour = ScriptBehaviour;

    // scriptPath is where agentctl.sh is written; the record lives in a folder of its own.
    explicit FakeControlScript(QString scriptPath) : scriptPath_(std::move(scriptPath))
    {
        if (!state_.isValid())
            qFatal("no temporary folder for the control script record");
    }

    ~FakeControlScript()
    {
        // A held script must not outlive the test: release it, and it also gives up once the
        // record folder is gone.
        release(QStringLiteral("start"));
        release(QStringLiteral("stop"));
    }

    FakeControlScript(const FakeControlScript &) = delete;
    FakeControlScript &operator=(const FakeControlScript &) = delete;

    QString path() const { return scriptPath_; }
    QString recordPath() const { return state_.path() + QStringLiteral("/runs"); }

    void write(const Behaviour &start = {}, const Behaviour &stop = {}) const
    {
        const QString state = TestEnvironment::shellQuoted(state_.path());
        QString body;
        body += QStringLiteral("state=%1\n").arg(state);
        // One line per run: "run", then each argument after a tab.
        body += QStringLiteral("{ printf 'run'; for a in \"$@\"; do printf '\\t%s' \"$a\"; done; printf '\\n'; } "
                               ">> \"$state/runs\"\n");
        body += QStringLiteral("case \"$1\" in\n");
        body += branch(QStringLiteral("start"), start);
        body += branch(QStringLiteral("stop"), stop);
        body += QStringLiteral("esac\nexit 0\n");
        TestEnvironment::writeScript(scriptPath_, body);
    }

    // Every run so far, each as its argument list.
    QList<QStringList> runs() const
    {
        QFile file(recordPath());
        QList<QStringList> result;
        if (!file.open(QIODevice::ReadOnly))
            return result;
        const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        for (const QString &line : lines) {
            QStringList fields = line.split(QLatin1Char('\t'));
            fields.removeFirst();
            result.append(fields);
        }
        return result;
    }

    void release(const QString &command) const
    {
        QFile file(state_.path() + QStringLiteral("/release-") + command);
        if (file.open(QIODevice::WriteOnly))
            file.close();
    }

private:
    static QString branch(const QString &command, const Behaviour &behaviour)
    {
        QString text = command + QStringLiteral(")\n");
        if (behaviour.holdUntilReleased) {
            text += QStringLiteral("  while [ ! -e \"$state/release-%1\" ] && [ -d \"$state\" ]; do sleep 0.02; done\n")
                        .arg(command);
        }
        if (!behaviour.extra.isEmpty())
            text += QStringLiteral("  ") + behaviour.extra + QLatin1Char('\n');
        text += QStringLiteral("  exit %1\n  ;;\n").arg(behaviour.exitCode);
        return text;
    }

    QString scriptPath_;
    QTemporaryDir state_;
};
