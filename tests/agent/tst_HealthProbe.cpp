// The health probe over a real loopback connection: how HTTP answers and failures reach the
// judgement, how long failures take, and that every probe reaches the agent.
#include "app/AppDelegate.h"
#include "support/FakeAgent.h"
#include "support/FakePlatform.h"
#include "support/TestEnvironment.h"

#include <QElapsedTimer>
#include <QHostAddress>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <memory>

namespace {

struct ProbeResult {
    int calls = 0;
    bool running = false;
    QString version;
    qint64 elapsedMs = -1;
};

// A peer that writes fixed bytes on every connection and then keeps it open, for answers that no
// well-behaved server gives (a cut-off body, no HTTP at all).
class RawPeer : public QObject {
public:
    explicit RawPeer(QByteArray bytes, bool closeAfterWrite) : bytes_(std::move(bytes)), close_(closeAfterWrite)
    {
        connect(&server_, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = server_.nextPendingConnection()) {
                socket->setParent(this);
                connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
                    socket->readAll();
                    socket->write(bytes_);
                    if (close_)
                        socket->disconnectFromHost();
                });
            }
        });
        if (!server_.listen(QHostAddress::LocalHost, 0))
            qFatal("RawPeer cannot listen");
    }
    QUrl baseURL() const { return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(server_.serverPort())); }

private:
    QTcpServer server_;
    QByteArray bytes_;
    bool close_;
};

} // namespace

class HealthProbeTest : public QObject {
    Q_OBJECT
private slots:
    void judgesAnswersFromTheWire_data();
    void judgesAnswersFromTheWire();
    void brokenAnswersAreFailures_data();
    void brokenAnswersAreFailures();
    void refusedConnectionAnswersAtOnce();
    void silentPeerFailsAfterTheTimeout();
    void everyProbeReachesTheAgent();
    void fallbackIsTheVersionStandingWhenJudged();

private:
    std::unique_ptr<AppDelegate> makeDelegate(const QUrl &agent, std::chrono::milliseconds timeout = {});
    // Calls queryHealth once and waits for its completion.
    ProbeResult probe(AppDelegate &delegate, int timeoutMs = 8000);

    TestEnvironment env;
    ApplicationHost host;
    FakePlatform fakes;
};

std::unique_ptr<AppDelegate> HealthProbeTest::makeDelegate(const QUrl &agent, std::chrono::milliseconds timeout)
{
    Configuration config = env.configuration(agent);
    if (timeout.count() > 0)
        config.healthTimeout = timeout;
    auto delegate = std::make_unique<AppDelegate>(config, fakes.services(), &host);
    delegate->lastKnownVersion = QStringLiteral("1.3.0");
    return delegate;
}

ProbeResult HealthProbeTest::probe(AppDelegate &delegate, int timeoutMs)
{
    auto result = std::make_shared<ProbeResult>();
    QElapsedTimer clock;
    clock.start();
    delegate.queryHealth([result, clock](bool running, const QString &version) {
        ++result->calls;
        result->running = running;
        result->version = version;
        result->elapsedMs = clock.elapsed();
    });
    [&] { QTRY_VERIFY_WITH_TIMEOUT(result->calls > 0, timeoutMs); }();
    QTest::qWait(0); // a second completion call would come on the same turn
    return *result;
}

void HealthProbeTest::judgesAnswersFromTheWire_data()
{
    QTest::addColumn<CannedResponse>("response");
    QTest::addColumn<bool>("running");
    QTest::addColumn<QString>("version");

    QTest::newRow("200 ok") << CannedResponse{200, R"({"status":"ok","version":"1.4.2"})"} << true
                            << QStringLiteral("1.4.2");
    QTest::newRow("200 degraded") << CannedResponse{200, R"({"status":"degraded","version":"1.4.2"})"} << false
                                  << QStringLiteral("1.4.2");
    QTest::newRow("200 ok, no version") << CannedResponse{200, R"({"status":"ok"})"} << true << QStringLiteral("1.3.0");
    QTest::newRow("200 empty body") << CannedResponse{200, ""} << false << QStringLiteral("1.3.0");
    QTest::newRow("200 plain text") << CannedResponse{200, "ok", "text/plain"} << false << QStringLiteral("1.3.0");
    QTest::newRow("204") << CannedResponse{204, ""} << false << QStringLiteral("1.3.0");
    QTest::newRow("404 with ok body") << CannedResponse{404, R"({"status":"ok","version":"1.4.2"})"} << false
                                      << QStringLiteral("1.3.0");
    QTest::newRow("503 with ok body") << CannedResponse{503, R"({"status":"ok","version":"1.4.2"})"} << false
                                      << QStringLiteral("1.3.0");
    QTest::newRow("418 with ok body") << CannedResponse{418, R"({"status":"ok","version":"1.4.2"})"} << false
                                      << QStringLiteral("1.3.0");
}

void HealthProbeTest::judgesAnswersFromTheWire()
{
    QFETCH(CannedResponse, response);
    QFETCH(bool, running);
    QFETCH(QString, version);

    FakeAgent agent;
    agent.setResponse("/healthz", response);
    auto delegate = makeDelegate(agent.baseURL());
    const ProbeResult result = probe(*delegate);
    QCOMPARE(result.calls, 1);
    QCOMPARE(result.running, running);
    QCOMPARE(result.version, version);
}

void HealthProbeTest::brokenAnswersAreFailures_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<bool>("closeAfterWrite");

    const QByteArray okBody = R"({"status":"ok","version":"1.4.2"})";
    const QByteArray header = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: ";
    // The whole ok object arrives, but the announced length never does.
    const QByteArray cutOff = header + QByteArray::number(okBody.size() + 40) + "\r\n\r\n" + okBody;
    QTest::newRow("body cut off by close") << cutOff << true;
    QTest::newRow("body stalls after status line") << cutOff << false;
    QTest::newRow("not HTTP") << QByteArray("{\"status\":\"ok\"}\r\n") << true;
}

void HealthProbeTest::brokenAnswersAreFailures()
{
    QFETCH(QByteArray, bytes);
    QFETCH(bool, closeAfterWrite);

    RawPeer peer(bytes, closeAfterWrite);
    auto delegate = makeDelegate(peer.baseURL(), std::chrono::milliseconds(300));
    const ProbeResult result = probe(*delegate);
    QCOMPARE(result.calls, 1);
    QVERIFY(!result.running);
    QCOMPARE(result.version, QStringLiteral("1.3.0"));
}

void HealthProbeTest::refusedConnectionAnswersAtOnce()
{
    FakeAgent agent;
    const QUrl address = agent.baseURL();
    agent.close();
    auto delegate = makeDelegate(address);

    const ProbeResult result = probe(*delegate);
    QCOMPARE(result.calls, 1);
    QVERIFY(!result.running);
    QCOMPARE(result.version, QStringLiteral("1.3.0"));
    QVERIFY2(result.elapsedMs < 1000, qPrintable(QString::number(result.elapsedMs)));
}

void HealthProbeTest::silentPeerFailsAfterTheTimeout()
{
    FakeAgent agent;
    agent.setResponse("/healthz", {200, {}, {}, true});
    auto delegate = makeDelegate(agent.baseURL()); // the production 2.5 s

    const ProbeResult result = probe(*delegate);
    QCOMPARE(agent.countFor("/healthz"), 1);
    QCOMPARE(result.calls, 1);
    QVERIFY(!result.running);
    QCOMPARE(result.version, QStringLiteral("1.3.0"));
    QVERIFY2(result.elapsedMs >= 2300 && result.elapsedMs <= 4000, qPrintable(QString::number(result.elapsedMs)));
}

void HealthProbeTest::everyProbeReachesTheAgent()
{
    FakeAgent agent;
    agent.setResponse("/healthz", {200, R"({"status":"ok","version":"1.4.2"})"});
    auto delegate = makeDelegate(agent.baseURL());

    QVERIFY(probe(*delegate).running);
    agent.setResponse("/healthz", {200, R"({"status":"ok","version":"1.4.3"})"});
    const ProbeResult second = probe(*delegate);
    QCOMPARE(second.version, QStringLiteral("1.4.3"));

    const QList<RecordedRequest> requests = agent.requestsFor("/healthz");
    QCOMPARE(requests.size(), 2);
    for (const RecordedRequest &request : requests) {
        QCOMPARE(request.method, QByteArray("GET"));
        QVERIFY(request.body.isEmpty());
        // Every probe goes to the agent without asking it for anything beyond the plain GET.
        QVERIFY(request.header("Cache-Control").isEmpty());
        QVERIFY(request.header("Pragma").isEmpty());
    }
}

void HealthProbeTest::fallbackIsTheVersionStandingWhenJudged()
{
    FakeAgent agent;
    agent.setResponse("/healthz", {200, R"({"status":"ok"})", "application/json", false, 150});
    auto delegate = makeDelegate(agent.baseURL());

    auto delivered = std::make_shared<QString>();
    delegate->queryHealth([delivered](bool, const QString &version) { *delivered = version; });
    // The menu stores a new version while the request is under way.
    delegate->lastKnownVersion = QStringLiteral("1.3.7");
    QTRY_COMPARE(*delivered, QStringLiteral("1.3.7"));
}

QTEST_MAIN(HealthProbeTest)
#include "tst_HealthProbe.moc"
