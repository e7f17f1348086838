// Posting the mounted-volume snapshot to the agent: change detection against the last snapshot
// the agent accepted, and at most one request outstanding with one follow-up for the rest.
#include "app/AppDelegate.h"

#include "app/log/AppLogger.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>

namespace {

const QString coalescedReason = QStringLiteral("coalesced");

// Qt turns an HTTP status of 400 or more into a reply error of its own; those errors are the
// agent's answer, not a failure to reach it. Every other error is a transport failure, even one
// that happens after the status line arrived (a body cut off, the transfer timeout).
bool errorStandsForHttpStatus(QNetworkReply::NetworkError error)
{
    return (error >= QNetworkReply::ContentAccessDenied && error <= QNetworkReply::UnknownContentError) ||
           (error >= QNetworkReply::InternalServerError && error <= QNetworkReply::UnknownServerError) ||
           error == QNetworkReply::ProtocolInvalidOperationError ||
           error == QNetworkReply::ProxyAuthenticationRequiredError;
}

} // namespace

QList<VolumeEntry> AppDelegate::currentMountedVolumesPayload() const
{
    // One listing across the folders, so that the naming, duplicate and order rules see every volume.
    QStringList names;
    for (const QString &folder : configuration_.volumeMountDirectories)
        names += listVolumeFolder(folder);
    return volumeSnapshotFromListing(names);
}

void AppDelegate::syncMountedVolumesCache(const QString &reason, bool force)
{
    const QList<VolumeEntry> snapshot = currentMountedVolumesPayload();
    const QString signature = QString::fromUtf8(volumeSnapshotSignature(snapshot));

    if (mountedVolumeSyncInFlight) {
        mountedVolumeSyncPending = true;
        return;
    }
    if (!force && signature == lastMountedVolumeSyncSignature)
        return;

    const QByteArray body = volumeSyncBody(snapshot, reason);
    if (body.isEmpty()) {
        AppLogger::shared().log(QStringLiteral("Mounted volume sync payload encoding failed."));
        return;
    }

    QNetworkRequest request(mountedVolumeSyncURL);
    request.setRawHeader("Content-Type", "application/json");
    // The manager has no cache, so every request reaches the agent; AlwaysNetwork would only add
    // no-cache headers nobody asked for. Saving stays off should a cache ever be installed.
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    request.setTransferTimeout(int(configuration_.volumeSyncTimeout.count()));

    mountedVolumeSyncInFlight = true;
    QNetworkReply *reply = network().post(request, body);
    // The reply belongs to the controller's network manager: if the controller goes, the reply
    // and this connection go with it, so the handler never runs against a dead controller.
    connect(reply, &QNetworkReply::finished, this, [this, reply, signature] {
        reply->deleteLater();
        mountedVolumeSyncInFlight = false;

        const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        const QNetworkReply::NetworkError error = reply->error();
        AppLogger &logger = AppLogger::shared();
        if (error != QNetworkReply::NoError && !(status.isValid() && errorStandsForHttpStatus(error))) {
            logger.log(QStringLiteral("Mounted volume sync request failed: ") + reply->errorString());
        } else if (status.isValid()) {
            const int code = status.toInt();
            if (code >= 200 && code <= 299)
                lastMountedVolumeSyncSignature = signature;
            else
                logger.log(QStringLiteral("Mounted volume sync request failed with status ") + QString::number(code) +
                           QLatin1Char('.'));
        } else {
            logger.log(QStringLiteral("Mounted volume sync request received no HTTP response."));
        }

        if (mountedVolumeSyncPending) {
            mountedVolumeSyncPending = false;
            syncMountedVolumesCache(coalescedReason, true);
        }
    });
}
