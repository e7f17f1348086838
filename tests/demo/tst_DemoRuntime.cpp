// The bundled demo runtime: agentctl.sh starts and stops the demo agent on a loopback port,
// idempotently, and the agent answers the endpoints the controller uses.
#include "support/TestEnvironment.h"

#include <QElapsedTimer>
#include <QFile>
#include <QHostAddress>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QProcess>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTest>
#include <unistd.h>

namespace {

const QString runtimeDir = QStringLiteral(QUILLMERE_BUILD_RESOURCES "/runtime");
const QString script = runtimeDir + QStringLiteral("/agentctl.sh");
const QString agentBinary = runtimeDir + QStringLiteral("/quillmere-demo-agent");

struct ScriptRun {
    int exitCode = -1;
    QString out;
    QString err;
    qint64 elapsedMs = 0;
};

quint16 freePort()
{
    QTcpServer server;
    if (!server.listen(QHostAddress::LocalHost, 0))
        qFatal("no free loopback port");
    return server.serverPort();
}

// Gone, or a zombie that only waits for whoever adopted it to collect it.
bool processGone(int pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return true;
    const QByteArray text = stat.readAll();
    return text.mid(text.lastIndexOf(')') + 2, 1) == "Z";
}

struct HttpAnswer {
    int status = 0;
    QByteArray body;
    QNetworkReply::NetworkError error = QNetworkReply::NoError;
};

} // namespace

class DemoRuntimeTest : public QObject {
    Q_OBJECT
private slots:
    void init();
    void cleanup();

    void startServesAndStopEnds();
    void startAndStopAreIdempotent();
    void startFailsWhenThePortIsTaken();

private:
    // Runs agentctl.sh with its standard streams on pipes, as the controller's runner does.
    ScriptRun runScript(const QString &argument);
    HttpAnswer request(const QByteArray &method, const QString &path, const QByteArray &body = {});
    QString pidFile() const;
    QString agentLog() const { return env.logsDir() + QStringLiteral("/agent.log"); }

    TestEnvironment env;
    QNetworkAccessManager network;
    quint16 port = 0;
};

void DemoRuntimeTest::init()
{
    network.setProxy(QNetworkProxy::NoProxy);
    port = freePort();
}

void DemoRuntimeTest::cleanup()
{
    // Never leave an agent behind, whatever the test did.
    runScript(QStringLiteral("stop"));
}

ScriptRun DemoRuntimeTest::runScript(const QString &argument)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("QUILLMERE_AGENT_PORT"), QString::number(port));
    process.setProcessEnvironment(environment);
    QElapsedTimer clock;
    clock.start();
    process.start(script, {argument});
    ScriptRun run;
    if (!process.waitForFinished(20000)) {
        process.kill();
        process.waitForFinished();
        return run;
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    run.elapsedMs = clock.elapsed();
    return run;
}

HttpAnswer DemoRuntimeTest::request(const QByteArray &method, const QString &path, const QByteArray &body)
{
    QNetworkRequest request(QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(port).arg(path)));
    request.setTransferTimeout(3000);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    QNetworkReply *reply = network.sendCustomRequest(request, method, body);
    QSignalSpy finished(reply, &QNetworkReply::finished);
    if (!reply->isFinished())
        finished.wait(5000);
    HttpAnswer answer{reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), reply->readAll(),
                      reply->error()};
    reply->deleteLater();
    return answer;
}

QString DemoRuntimeTest::pidFile() const
{
    return env.runtimeStateDir() + QStringLiteral("/quillmere-demo-agent-%1-%2.pid").arg(::getuid()).arg(port);
}

void DemoRuntimeTest::startServesAndStopEnds()
{
    QProcess versionRun;
    versionRun.start(agentBinary, {QStringLiteral("--version")});
    QVERIFY(versionRun.waitForFinished(5000));
    const QString version = QString::fromUtf8(versionRun.readAllStandardOutput()).trimmed();
    QVERIFY(!version.isEmpty());

    // Started with its output on pipes, the script still ends as soon as the agent answers.
    const ScriptRun start = runScript(QStringLiteral("start"));
    QVERIFY2(start.exitCode == 0, qPrintable(start.err));
    QVERIFY2(start.elapsedMs < 5000, qPrintable(QString::number(start.elapsedMs)));
    QVERIFY(QFile::exists(pidFile()));

    const HttpAnswer health = request("GET", QStringLiteral("/healthz"));
    QCOMPARE(health.status, 200);
    QCOMPARE(health.body, QByteArray(R"({"status":"ok","version":")") + version.toUtf8() + "\"}");

    const QByteArray snapshot =
        R"({"event":"app-launch","source":"menu-app","volumes":[{"name":"Photos <2024>","path":"/Volumes/Photos <2024>"}]})";
    const HttpAnswer accepted = request("POST", QStringLiteral("/api/mounted-volumes/cache-sync"), snapshot);
    QCOMPARE(accepted.status, 200);
    QCOMPARE(accepted.body, QByteArray(R"({"ok":true})"));
    QCOMPARE(request("POST", QStringLiteral("/api/mounted-volumes/cache-sync"), "[1,2]").status, 400);

    const HttpAnswer page = request("GET", QStringLiteral("/"));
    QCOMPARE(page.status, 200);
    QVERIFY(page.body.contains("Running"));
    QVERIFY(page.body.contains(version.toUtf8()));
    QVERIFY(page.body.contains("Photos &lt;2024&gt;")); // the last snapshot, escaped
    QCOMPARE(request("GET", QStringLiteral("/nothing-here")).status, 404);

    const ScriptRun stop = runScript(QStringLiteral("stop"));
    QVERIFY2(stop.exitCode == 0, qPrintable(stop.err));
    QVERIFY(!QFile::exists(pidFile()));
    QCOMPARE(request("GET", QStringLiteral("/healthz")).error, QNetworkReply::ConnectionRefusedError);

    QFile log(agentLog());
    QVERIFY(log.open(QIODevice::ReadOnly));
    const QByteArray logText = log.readAll();
    QVERIFY(logText.contains("listening on 127.0.0.1:" + QByteArray::number(port)));
    QVERIFY(logText.contains("Volume snapshot received: event=app-launch volumes=1"));
}

void DemoRuntimeTest::startAndStopAreIdempotent()
{
    QCOMPARE(runScript(QStringLiteral("start")).exitCode, 0);
    QFile first(pidFile());
    QVERIFY(first.open(QIODevice::ReadOnly));
    const QByteArray pid = first.readAll().trimmed();
    first.close();

    const ScriptRun again = runScript(QStringLiteral("start"));
    QVERIFY2(again.exitCode == 0, qPrintable(again.err));
    QVERIFY(again.out.contains(QStringLiteral("already running")));
    QFile second(pidFile());
    QVERIFY(second.open(QIODevice::ReadOnly));
    QCOMPARE(second.readAll().trimmed(), pid);

    QCOMPARE(runScript(QStringLiteral("stop")).exitCode, 0);
    const ScriptRun stopAgain = runScript(QStringLiteral("stop"));
    QVERIFY2(stopAgain.exitCode == 0, qPrintable(stopAgain.err));
    QVERIFY(processGone(pid.toInt()));

    // A pid file left by an agent that died is cleaned up, and its pid (alive, but not an agent)
    // is not signalled.
    QFile stale(pidFile());
    QVERIFY(stale.open(QIODevice::WriteOnly));
    stale.write(QByteArray::number(::getpid()) + '\n');
    stale.close();
    QCOMPARE(runScript(QStringLiteral("stop")).exitCode, 0);
    QVERIFY(!QFile::exists(pidFile()));
}

void DemoRuntimeTest::startFailsWhenThePortIsTaken()
{
    QTcpServer squatter; // listens, never answers
    QVERIFY(squatter.listen(QHostAddress::LocalHost, port));

    const ScriptRun start = runScript(QStringLiteral("start"));
    QVERIFY(start.exitCode != 0);
    QVERIFY2(start.err.contains(QStringLiteral("agentctl.sh:")), qPrintable(start.err));
    QVERIFY(!QFile::exists(pidFile()));
}

QTEST_MAIN(DemoRuntimeTest)
#include "tst_DemoRuntime.moc"
