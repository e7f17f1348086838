// Platform services for tests: a status item, an opener that records, a scriptable login-item
// service and this copy as the only one running.
#pragma once

#include "platform/PlatformServices.h"

#include <QMenu>
#include <QPointer>
#include <QStringList>

using namespace Qt::StringLiterals;

class FakeStatusItem : public StatusItem {
public:
    StatusButton *button() override { return hasButton ? &button_ : nullptr; }
    void setMenu(QMenu *menu) override { menu_ = menu; }
    QMenu *menu() const override { return menu_; }
    void notify(const QString &title, const QString &body, const QList<NotificationAction> &actions = {}) override
    {
        notifications.append(title + u'\n' + body);
        for (const NotificationAction &action : actions)
            notifications.last() += u'\n' + action.key + u' ' + action.label;
    }

    QStringList notifications; // title, a line feed, body, and a line per button: its key, a space, its label
    bool hasButton = true;

private:
    StatusButton button_;
    QPointer<QMenu> menu_;
};

class RecordingOpener : public LocationOpener {
public:
    void open(const QUrl &location) override { opened.append(location); }
    QList<QUrl> opened;
};

class FakeLoginItemService : public LoginItemService {
public:
    using Outcome = std::optional<LoginItemError>; // none: done

    bool isAvailable() const override { return available; }
    int status() const override { return currentStatus; }
    Outcome registerApp() override { return call(u"register"_s, registerResult, statusAfterRegister); }
    Outcome unregisterApp() override { return call(u"unregister"_s, unregisterResult, statusNotRegistered); }
    void openSystemSettingsLoginItems() override { calls.append(u"openSettings"_s); }

    bool available = true;
    int currentStatus = statusNotRegistered;
    int statusAfterRegister = statusEnabled;
    Outcome registerResult, unregisterResult;
    QStringList calls;

private:
    Outcome call(const QString &name, Outcome result, int statusAfter)
    {
        calls.append(name);
        if (!result)
            currentStatus = statusAfter;
        return result;
    }
};

class OneRunningApplication : public RunningApplications {
    int runningApplicationCount(const QString &) override { return 1; }
};

// Builds fake services and keeps plain pointers to them; the controller owns the services.
struct FakePlatform {
    FakeStatusItem *statusItem = nullptr;
    RecordingOpener *opener = nullptr;
    FakeLoginItemService *loginItems = nullptr;
    WorkspaceNotificationCenter *notifications = nullptr;

    PlatformServices services()
    {
        PlatformServices services;
        services.makeStatusItem = [this] { return std::unique_ptr<StatusItem>(statusItem = new FakeStatusItem); };
        services.opener.reset(opener = new RecordingOpener);
        services.loginItems.reset(loginItems = new FakeLoginItemService);
        services.workspaceNotifications.reset(notifications = new WorkspaceNotificationCenter);
        services.runningApplications = std::make_unique<OneRunningApplication>();
        return services;
    }
};
