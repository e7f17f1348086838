#include "platform/WorkspaceNotificationCenter.h"

WorkspaceNotificationCenter::Token WorkspaceNotificationCenter::addObserver(const QString &name, QObject *context,
                                                                            Handler handler)
{
    const Token token = nextToken_++;
    observers_.append(Observer{token, name, context, std::move(handler)});
    return token;
}

void WorkspaceNotificationCenter::removeObserver(Token token)
{
    observers_.removeIf([token](const Observer &observer) { return observer.token == token; });
}

void WorkspaceNotificationCenter::post(const QString &name)
{
    // Copy first: an observer may add or remove registrations while it runs.
    const QList<Observer> snapshot = observers_;
    for (const Observer &observer : snapshot) {
        if (observer.name == name && observer.context)
            observer.handler(name);
    }
}
