// Asking the agent's /healthz whether it runs and which version it is.
#include "agent/HealthProbe.h"

#include "app/AppDelegate.h"

#include "agent/HealthJudgement.h"
#include "app/log/AppLogger.h"
#include "platform/ListenerOwner.h"
#include "platform/LocalPeer.h"

#include <QElapsedTimer>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <unistd.h>

void keepToLoopback(QNetworkAccessManager &network)
{
    network.setProxy(QNetworkProxy::NoProxy);
    network.setRedirectPolicy(QNetworkRequest::SameOriginRedirectPolicy);
}

void probeHealth(QNetworkAccessManager &network, const QUrl &url, std::chrono::milliseconds timeout, QObject *context,
                 std::function<void(const HealthProbeOutcome &)> done)
{
    QNetworkRequest request(url);
    // The manager has no cache, so every request reaches the agent; AlwaysNetwork would only add
    // no-cache headers nobody asked for. Saving stays off should a cache ever be installed.
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    request.setTransferTimeout(int(timeout.count()));

    QElapsedTimer clock;
    clock.start();
    QNetworkReply *reply = network.get(request);
    QObject::connect(reply, &QNetworkReply::finished, context, [reply, clock, done = std::move(done)] {
        reply->deleteLater();
        HealthProbeOutcome outcome;
        outcome.elapsedMs = clock.elapsed();
        const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        if (status.isValid())
            outcome.exchange.httpStatus = status.toInt();
        // Qt reports a status of 400 or more as an error of its own too. Counting it as a transport
        // failure judges the same as its status would, so every reply error can stand for one.
        outcome.exchange.transportError = reply->error() != QNetworkReply::NoError;
        if (outcome.exchange.transportError)
            outcome.errorText = reply->errorString();
        // An answer with a status line always has body bytes, possibly none; only a
        // missing HTTP response has no body at all.
        if (outcome.exchange.httpStatus)
            outcome.exchange.body = reply->readAll();
        done(outcome);
    });
}

void AppDelegate::queryHealth(HealthCompletion completion)
{
    probeHealth(network(), healthURL, configuration_.healthTimeout, this,
                [this, completion = std::move(completion)](const HealthProbeOutcome &outcome) {
                    // The fallback is the version that stands now, when the answer is judged. An answer
                    // at all means that a connection was made, and only then is the listener's owner
                    // worth asking.
                    const HealthAnswer answer =
                        outcome.exchange.httpStatus && agentPortHeldByAnotherUser(healthURL)
                            ? HealthAnswer{false, lastKnownVersion}
                            : judgeHealthAnswer(outcome.exchange, lastKnownVersion);
                    completion(answer.running, answer.version);
                });
}

bool AppDelegate::agentPortHeldByAnotherUser(const QUrl &endpoint)
{
    const quint16 port = quint16(endpoint.port(80));
    const std::optional<uint> owner = listenerOwner(QHostAddress(endpoint.host()), port);
    // Root stands for an agent run as a system service.
    if (!owner || *owner == ::getuid() || *owner == 0) {
        if (owner)
            loggedPortOwner_.reset();
        return false;
    }
    if (owner != loggedPortOwner_) {
        loggedPortOwner_ = owner;
        const QString name = userName(*owner), uid = QStringLiteral("uid ") + QString::number(*owner);
        AppLogger::shared().log(QStringLiteral("Agent port %1 is held by another user: %2.")
                                    .arg(QString::number(port), name.isEmpty() ? uid : name + " (" + uid + ')'));
    }
    return true;
}
