#include "platform/QtPlatformChoice.h"

QString chosenQtPlatform(const QStringList &arguments, const QByteArray &environmentChoice,
                         const QString &builtInDefault)
{
    QString choice = QString::fromLocal8Bit(environmentChoice);
    for (qsizetype i = 1; i + 1 < arguments.size(); ++i) {
        if (arguments[i] == QLatin1String("-platform") || arguments[i] == QLatin1String("--platform"))
            choice = arguments[++i];
    }
    if (choice.isEmpty())
        return builtInDefault;
    return choice.section(QLatin1Char(';'), 0, 0).section(QLatin1Char(':'), 0, 0);
}
