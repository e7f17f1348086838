// Reducing a /healthz exchange to (running, version), and the strict decoding of its body.
#include "agent/HealthJudgement.h"

#include <QTest>

namespace {

const QString lastKnown = QStringLiteral("1.3.0");

HealthExchange answered(int status, const QByteArray &body)
{
    return {false, status, body};
}

} // namespace

class HealthJudgementTest : public QObject {
    Q_OBJECT
private slots:
    void judgesAnswers_data();
    void judgesAnswers();
    void decodesOnlyObjectsWithStringFields_data();
    void decodesOnlyObjectsWithStringFields();
};

void HealthJudgementTest::judgesAnswers_data()
{
    QTest::addColumn<HealthExchange>("exchange");
    QTest::addColumn<bool>("running");
    QTest::addColumn<QString>("version");

    const QString v142 = QStringLiteral("1.4.2");
    QTest::newRow("ok with version") << answered(200, R"({"status":"ok","version":"1.4.2"})") << true << v142;
    QTest::newRow("capitals and white space around both")
        << answered(200, "{\"status\":\" \\n OK \\r\\n\",\"version\":\"   1.4.2\\n\"}") << true << v142;
    QTest::newRow("mixed case oK") << answered(200, R"({"status":"oK","version":"1.4.2"})") << true << v142;
    QTest::newRow("tab and line break around Ok") << answered(200, "{\"status\":\"\\tOk\\n\"}") << true << lastKnown;
    QTest::newRow("any 2xx status") << answered(299, R"({"status":"ok","version":"1.4.2"})") << true << v142;

    // Running without a usable version keeps the last known one.
    QTest::newRow("version key missing") << answered(200, R"({"status":"ok"})") << true << lastKnown;
    QTest::newRow("version null") << answered(200, R"({"status":"ok","version":null})") << true << lastKnown;
    QTest::newRow("version blank") << answered(200, "{\"status\":\"ok\",\"version\":\" \\n\\t \"}") << true
                                   << lastKnown;
    QTest::newRow("extra keys ignored")
        << answered(200, R"({"uptime":12,"status":"ok","checks":{"db":"ok"},"version":"1.4.2","tags":[1]})") << true
        << v142;

    // One value of the wrong type spoils the whole body, also a fine status.
    QTest::newRow("numeric version") << answered(200, R"({"status":"ok","version":142})") << false << lastKnown;
    QTest::newRow("boolean status") << answered(200, R"({"status":true,"version":"1.4.2"})") << false << lastKnown;
    QTest::newRow("object version") << answered(200, R"({"status":"ok","version":{"v":"1"}})") << false << lastKnown;

    // Other words are not running, but the version they carry is delivered.
    for (const char *word : {"degraded", "okay", "ok.", "ok!", "running", "healthy", "o k", ""}) {
        const QByteArray body = QByteArray(R"({"status":")") + word + R"(","version":"1.4.2"})";
        QTest::addRow("status \"%s\"", word) << answered(200, body) << false << v142;
    }
    QTest::newRow("status null") << answered(200, R"({"status":null,"version":"1.4.2"})") << false << v142;
    QTest::newRow("status missing") << answered(200, R"({"version":"1.4.2"})") << false << v142;

    // Bodies that are not one JSON object.
    QTest::newRow("empty body") << answered(200, QByteArray("")) << false << lastKnown;
    QTest::newRow("plain text") << answered(200, "ok") << false << lastKnown;
    QTest::newRow("JSON array") << answered(200, R"([{"status":"ok","version":"1.4.2"}])") << false << lastKnown;
    QTest::newRow("JSON string") << answered(200, R"("ok")") << false << lastKnown;
    QTest::newRow("truncated object") << answered(200, R"({"status":"ok","version":"1.4)") << false << lastKnown;

    // The body of an answer outside 2xx is never looked at.
    QTest::newRow("503 with ok body") << answered(503, R"({"status":"ok","version":"1.4.2"})") << false << lastKnown;
    QTest::newRow("199 with ok body") << answered(199, R"({"status":"ok","version":"1.4.2"})") << false << lastKnown;
    QTest::newRow("300 with ok body") << answered(300, R"({"status":"ok","version":"1.4.2"})") << false << lastKnown;
    QTest::newRow("204 without body") << answered(204, QByteArray("")) << false << lastKnown;

    QTest::newRow("no body bytes at all") << HealthExchange{false, 200, std::nullopt} << false << lastKnown;
    QTest::newRow("no HTTP response") << HealthExchange{false, std::nullopt, std::nullopt} << false << lastKnown;
    QTest::newRow("transport error after an ok status line")
        << HealthExchange{true, 200, QByteArray(R"({"status":"ok","version":"1.4.2"})")} << false << lastKnown;
    QTest::newRow("transport error") << HealthExchange{true, std::nullopt, std::nullopt} << false << lastKnown;
}

void HealthJudgementTest::judgesAnswers()
{
    QFETCH(HealthExchange, exchange);
    QFETCH(bool, running);
    QFETCH(QString, version);

    const HealthAnswer answer = judgeHealthAnswer(exchange, lastKnown);
    QCOMPARE(answer.running, running);
    QCOMPARE(answer.version, version);
}

void HealthJudgementTest::decodesOnlyObjectsWithStringFields_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<bool>("decodes");
    QTest::addColumn<QVariant>("status"); // invalid QVariant: field absent
    QTest::addColumn<QVariant>("version");

    const QVariant absent;
    QTest::newRow("both") << QByteArray(R"({"status":"ok","version":"2"})") << true << QVariant(QStringLiteral("ok"))
                          << QVariant(QStringLiteral("2"));
    QTest::newRow("values kept untrimmed") << QByteArray(R"({"status":" OK ","version":" 2 "})") << true
                                           << QVariant(QStringLiteral(" OK ")) << QVariant(QStringLiteral(" 2 "));
    QTest::newRow("empty object") << QByteArray("{}") << true << absent << absent;
    QTest::newRow("nulls are absent") << QByteArray(R"({"status":null,"version":null})") << true << absent << absent;
    QTest::newRow("keys are case-sensitive")
        << QByteArray(R"({"Status":"ok","VERSION":"2"})") << true << absent << absent;
    QTest::newRow("number") << QByteArray(R"({"status":"ok","version":2})") << false << absent << absent;
    QTest::newRow("array value") << QByteArray(R"({"status":["ok"]})") << false << absent << absent;
    QTest::newRow("false") << QByteArray(R"({"version":false})") << false << absent << absent;
    QTest::newRow("top-level null") << QByteArray("null") << false << absent << absent;
    QTest::newRow("not JSON") << QByteArray("status=ok") << false << absent << absent;
}

void HealthJudgementTest::decodesOnlyObjectsWithStringFields()
{
    QFETCH(QByteArray, body);
    QFETCH(bool, decodes);
    QFETCH(QVariant, status);
    QFETCH(QVariant, version);

    const std::optional<HealthPayload> payload = HealthPayload::decode(body);
    QCOMPARE(payload.has_value(), decodes);
    if (!payload)
        return;
    QCOMPARE(payload->status.has_value(), status.isValid());
    QCOMPARE(payload->status.value_or(QString()), status.toString());
    QCOMPARE(payload->version.has_value(), version.isValid());
    QCOMPARE(payload->version.value_or(QString()), version.toString());
}

QTEST_APPLESS_MAIN(HealthJudgementTest)
#include "tst_HealthJudgement.moc"
