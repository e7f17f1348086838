// Finds the tray a desktop offers: a StatusNotifierItem host on the session bus, or on X11 an
// XEmbed system tray. Without either it waits for the first to appear, as the bus and the X server
// announce it, with no timer of its own; a slow check runs only where an announcement cannot be
// listened for.
#pragma once

#include <QAbstractNativeEventFilter>
#include <QDBusServiceWatcher>
#include <QObject>
#include <QTimer>

class TrayHostWatcher : public QObject, private QAbstractNativeEventFilter {
    Q_OBJECT
public:
    explicit TrayHostWatcher(QObject *parent = nullptr);
    ~TrayHostWatcher() override;

    // Reports the tray there is, or else the first to appear, with hostAppeared, once. Qt itself
    // then prefers a StatusNotifierItem host to an XEmbed tray.
    void watch();

signals:
    void hostAppeared();

private:
    bool nativeEventFilter(const QByteArray &eventType, void *message, qintptr *result) override;
    bool hostPresent() const;
    bool statusNotifierHostRegistered() const;
    bool xembedTrayOwned() const;

private slots:
    void check();

private:
    QDBusServiceWatcher busWatcher_;
    QTimer fallbackCheck_;
    quint32 traySelection_ = 0; // the _NET_SYSTEM_TRAY_S<screen> atom, 0 without X11
    quint32 managerAtom_ = 0;
    bool watching_ = false;
};
