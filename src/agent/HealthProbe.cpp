// Asking the agent's /healthz whether it runs and which version it is.
#include "app/AppDelegate.h"

#include "agent/HealthJudgement.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>

void AppDelegate::queryHealth(HealthCompletion completion)
{
    QNetworkRequest request(healthURL);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    request.setTransferTimeout(int(configuration_.healthTimeout.count()));

    QNetworkReply *reply = network().get(request);
    connect(reply, &QNetworkReply::finished, this, [this, reply, completion = std::move(completion)] {
        reply->deleteLater();
        HealthExchange exchange;
        exchange.transportError = reply->error() != QNetworkReply::NoError &&
                                  !reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid();
        const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        if (status.isValid())
            exchange.httpStatus = status.toInt();
        const QByteArray body = reply->readAll();
        // An answer with a status line always has body bytes, possibly none; only a
        // missing HTTP response has no body at all.
        if (exchange.httpStatus)
            exchange.body = body;
        // The fallback is the version that stands now, when the answer is judged.
        const HealthAnswer answer = judgeHealthAnswer(exchange, lastKnownVersion);
        completion(answer.running, answer.version);
    });
}
