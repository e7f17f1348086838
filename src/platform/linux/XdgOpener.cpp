#include "platform/linux/XdgOpener.h"

#include <QProcess>

void XdgOpener::open(const QUrl &location)
{
    // A missing xdg-open only means nothing opens; the controller's state does not depend on it.
    const QString argument = location.isLocalFile() ? location.toLocalFile() : location.toString();
    QProcess::startDetached(QStringLiteral("xdg-open"), {argument});
}
