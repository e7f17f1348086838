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
    QTcpServer taken; // holds a free loopback port, then gives it to the agent
    quint16 port = taken.listen(QHostAddress::LocalHost) ? taken.serverPort() : 0;

    // With its standard streams on pipes, as the controller's runner starts it; exit code (-1: not
    // ended within the 10 s a start may take) and standard output. Events run meanwhile.
    QPair<int, QByteArray> runScript(const QString &argument)
    {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"QUILLMERE_AGENT_PORT"_s, QString::number(port));
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral(QUILLMERE_BUILD_RESOURCES "/runtime/agentctl.sh"), {argument});
        const bool ended = QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 10000);
        return {ended ? process.exitCode() : -1, process.readAllStandardOutput()};
    }
    // The status and body of an answer; status 0 when nobody answers.
    QPair<int, QByteArray> request(const QByteArray &method, const QString &path, const QByteArray &body = {})
    {
        QNetworkRequest request(QUrl(u"http://127.0.0.1:%1%2"_s.arg(port).arg(path)));
        request.setHeader(QNetworkRequest::ContentTypeHeader, u"application/json"_s);
        std::unique_ptr<QNetworkReply> reply(network.sendCustomRequest(request, method, body));
        [&] { QTRY_VERIFY_WITH_TIMEOUT(reply->isFinished(), 5000); }();
        return {reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), reply->readAll()};
    }

private slots:
    void cleanup() { runScript(u"stop"_s); } // never leave an agent behind
    void startServesAndStopEnds()
    {
        network.setProxy(QNetworkProxy::NoProxy);
        // The port held by a peer that answers a byte at a time: the start gives up and says why.
        QTimer trickle;
        connect(&trickle, &QTimer::timeout, [&] {
            for (QTcpSocket *peer : taken.findChildren<QTcpSocket *>())
                peer->write("H");
        });
        trickle.start(200);
        const auto refused = runScript(u"start"_s);
        QVERIFY2(refused.first == 1 &&
                     refused.second.contains(": cannot listen on 127.0.0.1:" + QByteArray::number(port)),
                 refused.second.constData());
        taken.close();
        QCOMPARE(runScript(u"start"_s).first, 0); // ends once the agent answers, though on pipes
        QTcpSocket silent;                        // a client that never sends a request is let go in time
        silent.connectToHost(QHostAddress::LocalHost, port);
        const auto health = request("GET", u"/healthz"_s);
        QVERIFY2(health.first == 200 && QRegularExpression(u"^\\{\"status\":\"ok\",\"version\":\"[^\"]+\"\\}$"_s)
                                            .match(QString::fromUtf8(health.second))
                                            .hasMatch(),
                 health.second.constData());
        const QByteArray snapshot = R"({"event":"app-launch","source":"menu-app",)"
                                    R"("volumes":[{"name":"Photos <2024>","path":"/Volumes/Photos <2024>"}]})";
        QCOMPARE(request("POST", u"/api/mounted-volumes/cache-sync"_s, snapshot),
                 qMakePair(200, QByteArray(R"({"ok":true})")));
        QVERIFY(request("GET", u"/"_s).second.contains("Photos &lt;2024&gt;")); // the last snapshot, escaped
        QTRY_COMPARE_WITH_TIMEOUT(silent.state(), QAbstractSocket::UnconnectedState, 15000);
        QCOMPARE(runScript(u"stop"_s).first, 0);
        QCOMPARE(request("GET", u"/healthz"_s).first, 0); // nobody answers any more
    }
};

QTEST_MAIN(DemoRuntimeTest)
#include "tst_DemoRuntime.moc"
