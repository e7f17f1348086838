// Platform services for tests: a status item, an opener that records, a scriptable login-item
// service and this copy as the only one running.
#pragma once

#include "platform/PlatformServices.h"

#include <QMenu>
#include <QPointer>
#include <QStringList>

class FakeStatusItem : public StatusItem {
public:
    StatusButton *button() override { return &button_; }
    void setMenu(QMenu *menu) override { menu_ = menu; }
    QMenu *menu() const override { return menu_; }
    void notify(const QString &title, const QString &body) override { notifications.append(title + u'\n' + body); }

    QStringList notifications; // title, a line feed, body

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
    bool isAvailable() const override { return available; }
    int status() const override { return currentStatus; }
    std::optional<LoginItemError> registerApp() override
    {
        calls.append(QStringLiteral("register"));
        if (registerResult)
            return registerResult;
        currentStatus = statusAfterRegister;
        return std::nullopt;
    }
    std::optional<LoginItemError> unregisterApp() override
    {
        calls.append(QStringLiteral("unregister"));
        if (unregisterResult)
            return unregisterResult;
        currentStatus = statusNotRegistered;
        return std::nullopt;
    }
    void openSystemSettingsLoginItems() override { calls.append(QStringLiteral("openSettings")); }

    bool available = true;
    int currentStatus = statusNotRegistered;
    int statusAfterRegister = statusEnabled;
    std::optional<LoginItemError> registerResult;
    std::optional<LoginItemError> unregisterResult;
    QStringList calls;
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

    PlatformServices services();
};
