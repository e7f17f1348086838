// A copy of the built program in its installed layout inside a temporary folder, with a home of
// its own: bin/quillmere-menu, share/quillmere-menu/{Info.plist,runtime/}, home/, run/.
#pragma once

#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QTemporaryDir>

class ProgramCopy {
public:
    ProgramCopy();

    QString root() const { return dir_.path(); }
    QString binary() const { return root() + QStringLiteral("/bin/quillmere-menu"); }
    QString runtimeDir() const { return root() + QStringLiteral("/share/quillmere-menu/runtime"); }
    QString home() const { return root() + QStringLiteral("/home"); }
    QString logFile() const;

    // HOME, XDG folders and the agent port pointing into this copy; offscreen platform.
    QProcessEnvironment environment(quint16 agentPort) const;
    // Starts the copy; the caller owns the process.
    void start(QProcess &process, quint16 agentPort, const QStringList &arguments = {}) const;
    // The log's messages without timestamps.
    QStringList logMessages() const;

private:
    QTemporaryDir dir_;
};
