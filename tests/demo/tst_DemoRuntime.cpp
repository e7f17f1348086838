// The bundled demo runtime: agentctl.sh starts the demo agent on a loopback port, the agent answers
// the endpoints the controller uses, and stop ends it.
#include "support/TestEnvironment.h"

#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QProcess>
#include <QTcpServer>
#include <QTest>
#include <unistd.h>

namespace {
const QString runtimeDir = QStringLiteral(QUILLMERE_BUILD_RESOURCES "/runtime");
} // namespace

class DemoRuntimeTest : public QObject {
    Q_OBJECT
private slots:
    void cleanup() { runScript(QStringLiteral("stop")); } // never leave an agent behind
    void startServesAndStopEnds();

private:
    // With its standard streams on pipes, as the controller's runner starts it.
    QPair<int, QString> runScript(const QString &argument)
    {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("QUILLMERE_AGENT_PORT"), QString::number(port));
        process.setProcessEnvironment(environment);
        process.start(runtimeDir + QStringLiteral("/agentctl.sh"), {argument});
        const bool finished = process.waitForFinished(5000);
        return {finished ? process.exitCode() : -1, QString::fromUtf8(process.readAll())};
    }
    QPair<int, QByteArray> request(const QByteArray &method, const QString &path, const QByteArray &body = {})
    {
        QNetworkRequest request(QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(port).arg(path)));
        request.setTransferTimeout(3000);
        request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
        QNetworkReply *reply = network.sendCustomRequest(request, method, body);
        [&] { QTRY_VERIFY_WITH_TIMEOUT(reply->isFinished(), 5000); }();
        reply->deleteLater();
        return {reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), reply->readAll()};
    }

    TestEnvironment env;
    QNetworkAccessManager network;
    quint16 port = [] {
        QTcpServer server;
        return server.listen(QHostAddress::LocalHost) ? server.serverPort() : quint16(0);
    }();
};

void DemoRuntimeTest::startServesAndStopEnds()
{
    network.setProxy(QNetworkProxy::NoProxy);
    QProcess versionRun;
    versionRun.start(runtimeDir + QStringLiteral("/quillmere-demo-agent"), {QStringLiteral("--version")});
    QVERIFY(versionRun.waitForFinished(5000));
    const QByteArray version = versionRun.readAllStandardOutput().trimmed();
    QVERIFY(!version.isEmpty());
    const QString pidFile =
        env.runtimeStateDir() + QStringLiteral("/quillmere-demo-agent-%1-%2.pid").arg(::getuid()).arg(port);

    // Though its output is on pipes, the script ends as soon as the agent answers.
    QCOMPARE(runScript(QStringLiteral("start")).first, 0);
    QVERIFY(QFile::exists(pidFile));
    const auto again = runScript(QStringLiteral("start"));
    QCOMPARE(again.first, 0);
    QVERIFY2(again.second.contains(QStringLiteral("already running")), qPrintable(again.second));

    QCOMPARE(request("GET", QStringLiteral("/healthz")),
             qMakePair(200, R"({"status":"ok","version":")" + version + "\"}"));
    const QByteArray snapshot = R"({"event":"app-launch","source":"menu-app",)"
                                R"("volumes":[{"name":"Photos <2024>","path":"/Volumes/Photos <2024>"}]})";
    QCOMPARE(request("POST", QStringLiteral("/api/mounted-volumes/cache-sync"), snapshot),
             qMakePair(200, QByteArray(R"({"ok":true})")));
    const auto page = request("GET", QStringLiteral("/"));
    QCOMPARE(page.first, 200);
    QVERIFY(page.second.contains("Photos &lt;2024&gt;")); // the last snapshot, escaped

    QCOMPARE(runScript(QStringLiteral("stop")).first, 0);
    QVERIFY(!QFile::exists(pidFile));
    QCOMPARE(request("GET", QStringLiteral("/healthz")).first, 0); // nobody answers any more
}

QTEST_MAIN(DemoRuntimeTest)
#include "tst_DemoRuntime.moc"
