// Turning the agent's /healthz answer into (running, version), without any I/O.
#pragma once

#include <QByteArray>
#include <QString>
#include <optional>

struct HealthPayload {
    std::optional<QString> status;
    std::optional<QString> version;

    // Strict decoding: the body must be one JSON object; a missing or null key is absent; a
    // present value that is not a string fails the whole decoding; other keys are ignored.
    static std::optional<HealthPayload> decode(const QByteArray &body);
};

struct HealthAnswer {
    bool running = false;
    QString version;

    friend bool operator==(const HealthAnswer &, const HealthAnswer &) = default;
};

// What the HTTP exchange gave. httpStatus is empty when there was no HTTP response; body is
// empty (not an empty array) when there were no body bytes at all.
struct HealthExchange {
    bool transportError = false;
    std::optional<int> httpStatus;
    std::optional<QByteArray> body;
};

HealthAnswer judgeHealthAnswer(const HealthExchange &exchange, const QString &lastKnownVersion);
