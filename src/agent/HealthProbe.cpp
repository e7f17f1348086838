// Asking the agent's /healthz whether it runs and which version it is.
#include "app/AppDelegate.h"

#include "agent/HealthJudgement.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>

namespace {

// The errors Qt derives from an HTTP status code (4xx and 5xx answers).
bool isHttpStatusError(QNetworkReply::NetworkError error)
{
    return (error >= QNetworkReply::ContentAccessDenied && error <= QNetworkReply::UnknownContentError) ||
           error == QNetworkReply::ProtocolInvalidOperationError ||
           (error >= QNetworkReply::InternalServerError && error <= QNetworkReply::UnknownServerError);
}

} // namespace

void AppDelegate::queryHealth(HealthCompletion completion)
{
    QNetworkRequest request(healthURL);
    // The manager has no cache, so every request reaches the agent; AlwaysNetwork would only add
    // no-cache headers nobody asked for. Saving stays off should a cache ever be installed.
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    request.setTransferTimeout(int(configuration_.healthTimeout.count()));

    QNetworkReply *reply = network().get(request);
    connect(reply, &QNetworkReply::finished, this, [this, reply, completion = std::move(completion)] {
        reply->deleteLater();
        HealthExchange exchange;
        const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        if (status.isValid())
            exchange.httpStatus = status.toInt();
        // Qt reports a status outside 2xx as an error too; only the other errors (refused, timed
        // out, closed or broken mid-answer) are transport failures, also after a status line.
        exchange.transportError =
            reply->error() != QNetworkReply::NoError && !(exchange.httpStatus && isHttpStatusError(reply->error()));
        // An answer with a status line always has body bytes, possibly none; only a
        // missing HTTP response has no body at all.
        if (exchange.httpStatus)
            exchange.body = reply->readAll();
        // The fallback is the version that stands now, when the answer is judged.
        const HealthAnswer answer = judgeHealthAnswer(exchange, lastKnownVersion);
        completion(answer.running, answer.version);
    });
}
