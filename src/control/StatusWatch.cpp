#include "control/StatusWatch.h"

#include "agent/HealthProbe.h"
#include "app/Configuration.h"
#include "control/CommandLine.h"
#include "control/ControlProtocol.h"
#include "platform/LocalPeer.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QLocalSocket>
#include <QNetworkAccessManager>
#include <QTimer>
#include <csignal>
#include <cstdio>
#include <unistd.h>

namespace {

// As long as a single command waits for the running program's first answer.
constexpr int firstAnswerTimeoutMs = 2000;

// Every line is flushed as it is printed and nothing else is held, so an interrupt may end the
// process where it stands.
extern "C" void endWatch(int)
{
    ::_exit(ExitCode::done);
}

class StatusWatch : public QObject {
public:
    StatusWatch(Configuration configuration, bool json)
        : configuration_(std::move(configuration)), socketPath_(controlSocketPath(configuration_)), json_(json)
    {
        keepToLoopback(network_);
        probeTimer_.setInterval(configuration_.refreshInterval);
        connect(&probeTimer_, &QTimer::timeout, this, [this] {
            if (!attach())
                probe();
        });
        firstAnswer_.setSingleShot(true);
        connect(&firstAnswer_, &QTimer::timeout, this, [this] {
            fail(QStringLiteral("the running program did not answer within %1 s").arg(firstAnswerTimeoutMs / 1000));
        });
        connect(&socket_, &QLocalSocket::readyRead, this, &StatusWatch::readPushed);
        connect(&socket_, &QLocalSocket::disconnected, this, [this] {
            if (!ending_)
                fail(QStringLiteral("the channel to the running program broke"));
        });
    }

    void start()
    {
        if (!attach()) {
            probe();
            probeTimer_.start();
        }
    }

private:
    // Hands the watching to the running program when there is one; false when none listens.
    bool attach()
    {
        if (const auto owner = fileOwnerId(socketPath_); owner && *owner != ::getuid()) {
            fail(socketPath_ + QStringLiteral(" belongs to another user and is not trusted"));
            return true;
        }
        socket_.connectToServer(socketPath_);
        if (!socket_.waitForConnected(firstAnswerTimeoutMs)) {
            const auto error = socket_.error();
            socket_.abort();
            if (error == QLocalSocket::ServerNotFoundError || error == QLocalSocket::ConnectionRefusedError)
                return false;
            fail(socketPath_ + QStringLiteral(" cannot be reached: ") + socket_.errorString());
            return true;
        }
        probeTimer_.stop();
        socket_.write(encodeControlRequest({ControlCommand::watch, {}}));
        firstAnswer_.start(firstAnswerTimeoutMs);
        return true;
    }

    void readPushed()
    {
        while (socket_.canReadLine()) {
            firstAnswer_.stop();
            QJsonObject reply = decodeControlReply(socket_.readLine().chopped(1));
            const QString kind = reply.take(QStringLiteral("reply")).toString();
            if (kind == QLatin1String("status")) {
                show(reply);
            } else if (kind == QLatin1String("quit")) {
                ending_ = true;
                QCoreApplication::exit(ExitCode::done);
            }
        }
    }

    // The menu's own judgement of the answer; with no start or stop of its own in flight, the
    // command only ever finds the agent running or stopped.
    void probe()
    {
        probeHealth(network_, configuration_.healthURL, configuration_.healthTimeout, this,
                    [this](const HealthProbeOutcome &outcome) {
                        const HealthAnswer answer = judgeHealthAnswer(outcome.exchange, lastKnownVersion_);
                        lastKnownVersion_ = answer.version.isEmpty() ? QStringLiteral("--") : answer.version;
                        show({{QStringLiteral("state"),
                               answer.running ? QStringLiteral("Status: Running") : QStringLiteral("Status: Stopped")},
                              {QStringLiteral("version"), lastKnownVersion_},
                              {QStringLiteral("agentRunning"), answer.running},
                              {QStringLiteral("startInFlight"), false},
                              {QStringLiteral("stopInFlight"), false},
                              {QStringLiteral("programRunning"), false}});
                    });
    }

    void show(const QJsonObject &status)
    {
        if (status == shown_)
            return;
        shown_ = status;
        std::fputs(watchLine(status, json_).toLocal8Bit().constData(), stdout);
        std::fflush(stdout); // a bar reading the pipe must not wait on a buffer
    }

    // Once: the socket closing on the way out is no second failure.
    void fail(const QString &why)
    {
        if (ending_)
            return;
        ending_ = true;
        std::fprintf(stderr, "quillmere-menu: %s.\n", qPrintable(why));
        QCoreApplication::exit(ExitCode::noAnswer);
    }

    Configuration configuration_;
    QString socketPath_;
    bool json_;
    QLocalSocket socket_;
    QNetworkAccessManager network_;
    QTimer probeTimer_, firstAnswer_;
    QJsonObject shown_;
    QString lastKnownVersion_ = QStringLiteral("--");
    bool ending_ = false;
};

} // namespace

QString watchLine(const QJsonObject &status, bool json)
{
    if (json)
        return QString::fromUtf8(QJsonDocument(status).toJson(QJsonDocument::Compact)) + u'\n';
    QString line = status.value(QStringLiteral("state")).toString() + QStringLiteral("; Version: ") +
                   status.value(QStringLiteral("version")).toString();
    if (status.value(QStringLiteral("startInFlight")).toBool())
        line += QStringLiteral("; a start is in progress");
    if (status.value(QStringLiteral("stopInFlight")).toBool())
        line += QStringLiteral("; a stop is in progress");
    return line + (status.value(QStringLiteral("programRunning")).toBool()
                       ? QStringLiteral("; watched by quillmere-menu\n")
                       : QStringLiteral("; watched by this command, quillmere-menu is not running\n"));
}

int runStatusWatch(int argc, char *argv[], bool json)
{
    QCoreApplication application(argc, argv);
    std::signal(SIGINT, endWatch);
    std::signal(SIGTERM, endWatch);
    StatusWatch watch(Configuration::fromEnvironment(), json);
    QTimer::singleShot(0, &watch, [&watch] { watch.start(); });
    return QCoreApplication::exec();
}
