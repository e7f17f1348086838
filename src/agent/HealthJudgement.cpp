#include "agent/HealthJudgement.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace {

// A key is absent when missing or null; any other non-string value is a decoding failure.
bool readOptionalString(const QJsonObject &object, const QString &key, std::optional<QString> &out)
{
    const QJsonValue value = object.value(key);
    if (value.isUndefined() || value.isNull())
        return true;
    if (!value.isString())
        return false;
    out = value.toString();
    return true;
}

} // namespace

std::optional<HealthPayload> HealthPayload::decode(const QByteArray &body)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    const QJsonObject object = document.object();
    HealthPayload payload;
    if (!readOptionalString(object, QStringLiteral("status"), payload.status) ||
        !readOptionalString(object, QStringLiteral("version"), payload.version))
        return std::nullopt;
    return payload;
}

HealthAnswer judgeHealthAnswer(const HealthExchange &exchange, const QString &lastKnownVersion)
{
    const bool failed = exchange.transportError || !exchange.httpStatus || *exchange.httpStatus < 200 ||
                        *exchange.httpStatus > 299 || !exchange.body;
    if (failed)
        return {false, lastKnownVersion};

    const HealthPayload payload = HealthPayload::decode(*exchange.body).value_or(HealthPayload{});
    QString version = payload.version.value_or(QString()).trimmed();
    const bool running = payload.status.value_or(QString()).trimmed().toLower() == QStringLiteral("ok");
    if (version.isEmpty())
        version = lastKnownVersion;
    return {running, version};
}
