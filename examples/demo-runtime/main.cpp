// The demo agent's process entry: serve on the loopback port, or with --probe ask a running
// agent for its health and answer through the exit code (used by agentctl.sh).
#include "DemoAgent.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSocketNotifier>
#include <QTcpSocket>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr quint16 defaultPort = 8787;
// For the whole probe, not each read: a peer that trickles bytes must not hold it up.
constexpr int probeTimeoutMs = 1000;

quint16 agentPort()
{
    bool ok = false;
    const int port = qEnvironmentVariableIntValue("QUILLMERE_AGENT_PORT", &ok);
    return ok && port > 0 && port <= 65535 ? quint16(port) : defaultPort;
}

// Exit code 0 exactly when /healthz answers 200 with status "ok" within the timeout.
int probe(quint16 port)
{
    const QDeadlineTimer deadline(probeTimeoutMs);
    QTcpSocket socket;
    socket.connectToHost(QStringLiteral("127.0.0.1"), port);
    if (!socket.waitForConnected(int(deadline.remainingTime())))
        return 1;
    socket.write("GET /healthz HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    QByteArray answer;
    while (!deadline.hasExpired() && socket.waitForReadyRead(int(deadline.remainingTime())))
        answer += socket.readAll();
    answer += socket.readAll();
    const qsizetype headerEnd = answer.indexOf("\r\n\r\n");
    if (headerEnd < 0 || !answer.startsWith("HTTP/1.1 200"))
        return 1;
    const QJsonObject body = QJsonDocument::fromJson(answer.mid(headerEnd + 4)).object();
    return body.value(QStringLiteral("status")).toString() == QStringLiteral("ok") ? 0 : 1;
}

int signalPipe[2] = {-1, -1};

void onTerminationSignal(int signalNumber)
{
    const char byte = char(signalNumber);
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
}

// SIGTERM and SIGINT end the event loop in order, so the log says why the agent stopped.
void quitOnTerminationSignals(QCoreApplication &application)
{
    if (::pipe(signalPipe) != 0)
        return;
    ::fcntl(signalPipe[0], F_SETFD, FD_CLOEXEC);
    ::fcntl(signalPipe[1], F_SETFD, FD_CLOEXEC);
    auto *notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, &application);
    QObject::connect(notifier, &QSocketNotifier::activated, &application, [&application] {
        char byte = 0;
        [[maybe_unused]] const ssize_t got = ::read(signalPipe[0], &byte, 1);
        logLine(QStringLiteral("Stopping on signal %1.").arg(int(byte)));
        application.quit();
    });
    struct sigaction action = {};
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments().mid(1);
    const quint16 port = agentPort();

    if (arguments == QStringList{QStringLiteral("--version")}) {
        std::printf("%s\n", QUILLMERE_DEMO_AGENT_VERSION);
        return 0;
    }
    if (arguments == QStringList{QStringLiteral("--probe")})
        return probe(port);
    if (!arguments.isEmpty()) {
        std::fprintf(stderr, "usage: quillmere-demo-agent [--probe | --version]\n");
        return 2;
    }

    DemoAgent agent(QStringLiteral(QUILLMERE_DEMO_AGENT_VERSION));
    if (!agent.listen(port)) {
        std::fprintf(stderr, "quillmere-demo-agent: cannot listen on 127.0.0.1:%u: %s\n", unsigned(port),
                     qPrintable(agent.errorString()));
        return 1;
    }
    quitOnTerminationSignals(application);
    return application.exec();
}
