// One GET of the agent's /healthz, as the menu asks it: what came back, what Qt said went wrong
// and how long it took, so that the menu, a watch and a diagnosis judge the same exchange.
#pragma once

#include "agent/HealthJudgement.h"

#include <QString>
#include <QUrl>
#include <chrono>
#include <functional>

class QNetworkAccessManager;
class QObject;

struct HealthProbeOutcome {
    HealthExchange exchange;
    QString errorText; // empty when the agent answered 2xx
    qint64 elapsedMs = 0;
};

// Only loopback is ever asked: a proxy from the environment must not reroute it, nor may an
// answer redirect it elsewhere.
void keepToLoopback(QNetworkAccessManager &network);
// done runs once, on context's thread, unless context is gone by then.
void probeHealth(QNetworkAccessManager &network, const QUrl &url, std::chrono::milliseconds timeout, QObject *context,
                 std::function<void(const HealthProbeOutcome &)> done);
