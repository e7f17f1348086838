// Finds the tray a desktop offers: a StatusNotifierItem host on the session bus, or on X11 an
// XEmbed system tray. Without either it waits, without waking the process, for the first to appear.
#pragma once

#include <QAbstractNativeEventFilter>
#include <QDBusServiceWatcher>
#include <QObject>
#include <QTimer>

class TrayHostWatcher : public QObject, private QAbstractNativeEventFilter {
    Q_OBJECT
public:
    enum class Host { None, StatusNotifier, XEmbed };

    explicit TrayHostWatcher(QObject *parent = nullptr);
    ~TrayHostWatcher() override;

    // The tray there is now; a StatusNotifierItem host wins over an XEmbed tray.
    Host currentHost() const;
    // Reports the first tray to appear from now on with hostAppeared, once.
    void watch();

signals:
    void hostAppeared(TrayHostWatcher::Host host);

private:
    bool nativeEventFilter(const QByteArray &eventType, void *message, qintptr *result) override;
    bool xembedTrayOwned() const;
    void check();

    QDBusServiceWatcher busWatcher_;
    QTimer xembedPoll_;
    quint32 traySelection_ = 0; // the _NET_SYSTEM_TRAY_S<screen> atom, 0 without X11
    quint32 managerAtom_ = 0;
    bool watching_ = false;
};
