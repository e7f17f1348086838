// What a diagnosis reads of the desktop and of the login mechanism, each system in its own way;
// reading only, with short time-outs, so that a report never changes or waits on the session.
#pragma once

#include <QJsonObject>

struct Configuration;

// trayHost ("StatusNotifierItem", "XEmbed", "menu bar" or "none") and what it was judged from,
// notifications (a service present) and notificationCapabilities.
QJsonObject describeDesktop();
// mechanism, file (empty where the system keeps it) and enabled.
QJsonObject describeRunAtStartup(const Configuration &configuration);
