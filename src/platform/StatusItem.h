// The status item in the system tray / menu bar, and the button that shows its badge.
#pragma once

#include <QIcon>
#include <QList>
#include <QObject>
#include <QString>
#include <functional>

class QMenu;

// A button on a notification: its key is what the desktop reports back when it is chosen.
struct NotificationAction {
    QString key;
    QString label;
    std::function<void()> invoke;
};

// The clickable face of a status item. It keeps what the controller set, so that platform
// implementations and tests read the same values.
class StatusButton : public QObject {
    Q_OBJECT
public:
    enum class ImagePosition { NoImage = 0, ImageOnly = 1 };

    using QObject::QObject;

    void setImage(const QIcon &image);
    void setImagePosition(ImagePosition position);
    void setTitle(const QString &title);
    void setAppearsDisabled(bool appearsDisabled);
    void setToolTip(const QString &toolTip);

    QIcon image() const { return image_; }
    ImagePosition imagePosition() const { return imagePosition_; }
    QString title() const { return title_; }
    bool appearsDisabled() const { return appearsDisabled_; }
    QString toolTip() const { return toolTip_; }
    // Counts setImage calls; every state update hands over a fresh image.
    int imageGeneration() const { return imageGeneration_; }

signals:
    void changed();

private:
    QIcon image_;
    ImagePosition imagePosition_ = ImagePosition::NoImage;
    QString title_;
    bool appearsDisabled_ = false;
    QString toolTip_;
    int imageGeneration_ = 0;
};

class StatusItem {
public:
    virtual ~StatusItem() = default;
    // The button, or null where the platform gives none.
    virtual StatusButton *button() = 0;
    virtual void setMenu(QMenu *menu) = 0;
    virtual QMenu *menu() const = 0;
    // Tells the user something worth a look outside the menu, with buttons where the platform can
    // show them; a platform without a way to do so drops it.
    virtual void notify(const QString &title, const QString &body, const QList<NotificationAction> &actions = {})
    {
        Q_UNUSED(title);
        Q_UNUSED(body);
        Q_UNUSED(actions);
    }
};
