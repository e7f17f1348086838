// Talks to a status notifier item and its exported menu over the session bus, as a panel does:
// reads the icon, the tool tip and the menu layout, and clicks menu entries.
#pragma once

#include <QImage>
#include <QList>
#include <QString>

struct TrayMenuEntry {
    int id = 0;
    QString label; // "-" for a separator
    bool enabled = true;
    bool visible = true;
    QString toggleType;   // empty unless the entry can be checked
    int toggleState = -1; // 0 off, 1 on; -1 when the entry carries none
    bool hasIcon = false;
};

class TrayClient {
public:
    TrayClient(QString service, QString itemPath);

    QString service() const { return service_; }
    // The object path of the exported menu, from the item's Menu property.
    QString menuPath() const;
    // Top-level entries in order; empty when the menu cannot be read.
    QList<TrayMenuEntry> layout() const;
    QStringList labels() const;
    TrayMenuEntry entry(const QString &label) const;
    // Sends a "clicked" event to the entry with this label; false when no such entry answers.
    bool click(const QString &label) const;
    // Asks the item to do what a primary click on the icon does.
    bool activate(int x, int y) const;

    // The icon as the item exports it, one image per size, smallest first.
    QList<QImage> iconPixmaps() const;
    // The title of the item's tool tip.
    QString toolTipTitle() const;

private:
    QVariant itemProperty(const QString &name) const;

    QString service_;
    QString itemPath_;
};
