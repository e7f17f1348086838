// The bundled demo runtime: agentctl.sh starts the demo agent on a loopback port, or says on
// standard output why it could not; the agent takes snapshots, shows the last one escaped on its
// admin page, lets a silent client go, and stops.
#include "support/Files.h"
#include "support/TestEnvironment.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>

class DemoRuntimeTest : public QObject {
    Q_OBJECT
    TestEnvironment env;
    QTcpServer taken; // holds a free loopback port, then gives it to the agent
    const quint16 port = taken.listen(QHostAddress::LocalHost) ? taken.serverPort() : 0;

    // On pipes, as the controller runs it: exit code (-1: not ended within the 10 s a start may
    // take) and standard output. Events run meanwhile.
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
    // The whole answer to one request, whose last byte comes apart from the rest as they may on a
    // network; the agent closes each connection once it has answered.
    QByteArray answerTo(const QByteArray &requestLine, const QByteArray &body = {})
    {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, port);
        const QByteArray request =
            requestLine + "\r\nContent-Length:" + QByteArray::number(body.size()) + "\r\n\r\n" + body;
        socket.write(request.chopped(1));
        socket.waitForReadyRead(100); // an answer to a part would have come by now
        socket.write(request.right(1));
        const bool closed = QTest::qWaitFor([&] { return socket.state() == QAbstractSocket::UnconnectedState; });
        return closed ? socket.readAll() : "still open after 5 s";
    }

private slots:
    void cleanup() { runScript(u"stop"_s); } // never leave an agent behind
    void startServesAndStopEnds()
    {
        // The port held by a peer that answers a byte at a time: the start gives up, and says why (its exit code
        // and output come first in answers.http).
        QTimer trickle;
        connect(&trickle, &QTimer::timeout, [&] {
            for (QTcpSocket *peer : taken.findChildren<QTcpSocket *>())
                peer->write("H");
        });
        trickle.start(200);
        const auto [refusedWith, refusal] = runScript(u"start"_s);
        taken.close();
        QCOMPARE(runScript(u"stop"_s), (QPair<int, QByteArray>{0, "Agent not running.\n"}));
        QCOMPARE(runScript(u"start"_s).first, 0); // ends once the agent answers, though on pipes
        QVERIFY(runScript(u"start"_s).second.startsWith("Agent already running (pid "));
        QTcpSocket elsewhere; // loopback's other addresses are not listened on
        elsewhere.connectToHost(QHostAddress(u"127.0.0.2"_s), port);
        QVERIFY(!elsewhere.waitForConnected());
        QTcpSocket silent; // a client that never sends a request is let go in time
        silent.connectToHost(QHostAddress::LocalHost, port);
        QElapsedTimer sinceConnected;
        sinceConnected.start();
        // Every answer, whole: the health, the page before any snapshot, a snapshot taken, the page showing
        // it escaped, one at the size limit; 405 for another method (its header at the limit), 404, a broken or
        // blank request line or body (400), a header (split or whole) or body too large (413).
        const QByteArray post = "POST /api/mounted-volumes/cache-sync HTTP/1.1", json = R"({"volumes":[]})";
        QByteArrayList answers{QByteArray::number(refusedWith) + ": " + refusal, answerTo("GET /healthz HTTP/1.1"),
                               answerTo("GET / HTTP/1.1")};
        answers << answerTo(post, R"({"event":"app-launch","volumes":[{"name":"Photos <2024>"}]})")
                << answerTo("GET /index.html HTTP/1.1")
                << answerTo(post, json + QByteArray(1024 * 1024 - json.size(), ' '));
        for (const QByteArray &request :
             {"PUT / HTTP/1.1\r\nx: "_ba + QByteArray(16384 - 37, 'p'), "GET /api/mounted-volumes/cache-sync"_ba,
              "POST /healthz?x"_ba, "GET /nope HTTP/1.1"_ba, "GARBAGE"_ba, "\r\n"_ba, QByteArray(16 * 1024 + 1, 'x')})
            answers += answerTo(request);
        answers << answerTo(post, "[]") << answerTo(post, QByteArray(1024 * 1024 + 1, ' '))
                << answerTo(post + "\r\nx: " + QByteArray(16384, 'p'), "{}"); // a header too large in one piece
        QTRY_COMPARE_WITH_TIMEOUT(silent.state(), QAbstractSocket::UnconnectedState, 15000);
        QCOMPARE_GE(sinceConnected.elapsed(), 9000); // not before its 10 s
        QCOMPARE(runScript(u"stop"_s).first, 0);
        QCOMPARE(answerTo("GET /healthz HTTP/1.1"), QByteArray()); // nobody answers any more
        // Then what its own command line tells (the version, else how to use it) and its log of each start,
        // snapshot and stop.
        for (const QString &argument : {u"--version"_s, u"--help"_s}) {
            QProcess agent;
            agent.setProcessChannelMode(QProcess::MergedChannels);
            agent.start(QStringLiteral(QUILLMERE_BUILD_RESOURCES "/runtime/quillmere-demo-agent"), {argument});
            QVERIFY(agent.waitForFinished());
            answers += QByteArray::number(agent.exitCode()) + ": " + agent.readAll();
        }
        answers += readFile(env.logsDir() + "/agent.log"_L1);
        QCOMPARE(QString::fromUtf8(answers.join("--\n").replace("\r\n", "\n"))
                     .replace(QRegularExpression(u"\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ"_s), u"$TIME"_s)
                     .replace(u"127.0.0.1:%1"_s.arg(port), u"127.0.0.1:$PORT"_s),
                 QString::fromUtf8(readFile(QFINDTESTDATA("answers.http"))));
    }
};

QTEST_MAIN(DemoRuntimeTest)
#include "tst_DemoRuntime.moc"
