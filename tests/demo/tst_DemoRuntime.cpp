// The bundled demo runtime: agentctl.sh starts the demo agent on a loopback port, the agent answers
// the endpoints the controller uses, and stop ends it; a start that cannot succeed soon says why.
#include "support/TestEnvironment.h"

#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTest>
#include <QTimer>

class DemoRuntimeTest : public QObject {
    Q_OBJECT
    TestEnvironment env;
    QNetworkAccessManager network;
    const QString runtime = QStringLiteral(QUILLMERE_BUILD_RESOURCES "/runtime/");
    const quint16 port = [] {
        QTcpServer server;
        return server.listen(QHostAddress::LocalHost) ? server.serverPort() : quint16(0);
    }();

    // With its standard streams on pipes, as the controller's runner starts it; exit code (-1: not
    // ended within the 10 s a start may take) and standard output. Events run meanwhile.
    QPair<int, QByteArray> runScript(const QString &argument)
    {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("QUILLMERE_AGENT_PORT"), QString::number(port));
        process.setProcessEnvironment(environment);
        process.start(runtime + QStringLiteral("agentctl.sh"), {argument});
        const bool ended = QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 10000);
        return {ended ? process.exitCode() : -1, process.readAllStandardOutput()};
    }
    QPair<int, QByteArray> request(const QByteArray &method, const QString &path, const QByteArray &body = {})
    {
        QNetworkRequest request(QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(port).arg(path)));
        request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
        std::unique_ptr<QNetworkReply> reply(network.sendCustomRequest(request, method, body));
        [&] { QTRY_VERIFY_WITH_TIMEOUT(reply->isFinished(), 5000); }();
        return {reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), reply->readAll()};
    }

private slots:
    void cleanup() { runScript(QStringLiteral("stop")); } // never leave an agent behind
    void startServesAndStopEnds()
    {
        network.setProxy(QNetworkProxy::NoProxy);
        { // The port taken by a peer that answers a byte at a time: the start gives up and says why.
            QTcpServer taken;
            QTimer trickle;
            connect(&trickle, &QTimer::timeout, [&] {
                for (QTcpSocket *peer : taken.findChildren<QTcpSocket *>())
                    peer->write("H");
            });
            trickle.start(200);
            QVERIFY(taken.listen(QHostAddress::LocalHost, port));
            const auto refused = runScript(QStringLiteral("start"));
            QCOMPARE(refused.first, 1);
            QVERIFY2(refused.second.contains(": cannot listen on 127.0.0.1:" + QByteArray::number(port)),
                     refused.second.constData());
        }
        QCOMPARE(runScript(QStringLiteral("start")).first, 0); // ends once the agent answers, though on pipes
        QTcpSocket silent;                                     // a client that never sends a request is let go in time
        silent.connectToHost(QHostAddress::LocalHost, port);
        const auto health = request("GET", QStringLiteral("/healthz"));
        QCOMPARE(health.first, 200);
        const QRegularExpression healthy(QStringLiteral("^\\{\"status\":\"ok\",\"version\":\"[^\"]+\"\\}$"));
        QVERIFY2(healthy.match(QString::fromUtf8(health.second)).hasMatch(), health.second.constData());
        const QByteArray snapshot = R"({"event":"app-launch","source":"menu-app",)"
                                    R"("volumes":[{"name":"Photos <2024>","path":"/Volumes/Photos <2024>"}]})";
        QCOMPARE(request("POST", QStringLiteral("/api/mounted-volumes/cache-sync"), snapshot),
                 qMakePair(200, QByteArray(R"({"ok":true})")));
        const auto page = request("GET", QStringLiteral("/"));
        QCOMPARE(page.first, 200);
        QVERIFY(page.second.contains("Photos &lt;2024&gt;")); // the last snapshot, escaped
        QTRY_COMPARE_WITH_TIMEOUT(silent.state(), QAbstractSocket::UnconnectedState, 15000);

        QCOMPARE(runScript(QStringLiteral("stop")).first, 0);
        QCOMPARE(request("GET", QStringLiteral("/healthz")).first, 0); // nobody answers any more
    }
};

QTEST_MAIN(DemoRuntimeTest)
#include "tst_DemoRuntime.moc"
