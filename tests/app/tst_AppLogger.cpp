// The application log: line format, ordering across threads, creation and appending, and no
// line lost when the process exits.
#include "app/log/AppLogger.h"
#include "support/FakeAgent.h"
#include "support/InstalledProgram.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <thread>
#include <unistd.h>
#include <vector>

class AppLoggerTest : public QObject {
    Q_OBJECT
private slots:
    void firstLineCreatesFileAndLaterLinesAppend();
    void linesCarryUtcTimestampWithMilliseconds();
    void messagesAreWrittenUnchanged_data();
    void messagesAreWrittenUnchanged();
    void concurrentCallersNeverInterleaveWithinALine();
    void unwritableFolderLosesLinesSilently();
    void fileThatCannotBeAppendedToIsReplaced_data();
    void fileThatCannotBeAppendedToIsReplaced();
    void queuedLinesAreWrittenBeforeNormalExit();

private:
    static QByteArray readAll(const QString &path);
    TestEnvironment env;
};

QByteArray AppLoggerTest::readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void AppLoggerTest::firstLineCreatesFileAndLaterLinesAppend()
{
    QTemporaryDir dir;
    const QString path = dir.path() + QStringLiteral("/nested/logs/menu-app.log");
    AppLogger logger(path);
    logger.log(QStringLiteral("first"));
    logger.flush();
    QVERIFY(QFile::exists(path));

    for (int i = 0; i < 50; ++i)
        logger.log(QString::number(i));
    logger.flush();
    const QList<QByteArray> lines = readAll(path).split('\n');
    QCOMPARE(lines.size(), 52); // 51 lines and the empty tail after the last line feed
    QVERIFY(lines[0].endsWith(" | first"));
    for (int i = 0; i < 50; ++i)
        QVERIFY2(lines[i + 1].endsWith(" | " + QByteArray::number(i)), lines[i + 1].constData());
    QVERIFY(lines.last().isEmpty());
}

void AppLoggerTest::linesCarryUtcTimestampWithMilliseconds()
{
    const QByteArray savedTz = qgetenv("TZ");
    qputenv("TZ", "Asia/Kolkata"); // a zone with a half-hour offset makes a local-time slip obvious
    QTemporaryDir dir;
    AppLogger logger(dir.path() + QStringLiteral("/menu-app.log"));
    const QDateTime before = QDateTime::currentDateTimeUtc();
    logger.log(QStringLiteral("stamp"));
    logger.flush();
    const QDateTime after = QDateTime::currentDateTimeUtc();
    qputenv("TZ", savedTz);

    const QString line = QString::fromUtf8(readAll(dir.path() + QStringLiteral("/menu-app.log")));
    static const QRegularExpression format(
        QStringLiteral(R"(^(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}\.\d{3}Z) \| stamp\n$)"));
    const auto match = format.match(line);
    QVERIFY2(match.hasMatch(), qPrintable(line));
    const QDateTime stamped = QDateTime::fromString(match.captured(1), Qt::ISODateWithMs);
    QVERIFY(stamped >= before.addMSecs(-1) && stamped <= after.addMSecs(1));
}

void AppLoggerTest::messagesAreWrittenUnchanged_data()
{
    QTest::addColumn<QString>("message");
    QTest::newRow("empty") << QString();
    QTest::newRow("multi-line") << QStringLiteral("one\ntwo\n");
    QTest::newRow("non-ASCII") << QStringLiteral("Größe – 卷");
    QTest::newRow("separator inside") << QStringLiteral("a | b");
}

void AppLoggerTest::messagesAreWrittenUnchanged()
{
    QFETCH(QString, message);
    QTemporaryDir dir;
    AppLogger logger(dir.path() + QStringLiteral("/menu-app.log"));
    logger.log(message);
    logger.flush();
    const QByteArray content = readAll(dir.path() + QStringLiteral("/menu-app.log"));
    QCOMPARE(content.mid(24), " | " + message.toUtf8() + "\n");
}

void AppLoggerTest::concurrentCallersNeverInterleaveWithinALine()
{
    QTemporaryDir dir;
    const QString path = dir.path() + QStringLiteral("/menu-app.log");
    constexpr int threads = 4;
    constexpr int perThread = 5000;
    {
        AppLogger logger(path);
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back([&logger, t] {
                for (int i = 0; i < perThread; ++i)
                    logger.log(QStringLiteral("thread %1 line %2 %3").arg(t).arg(i).arg(QString(40, QLatin1Char('x'))));
            });
        }
        for (auto &worker : workers)
            worker.join();
        // Destruction drains the queue as well.
    }

    const QList<QByteArray> lines = readAll(path).split('\n');
    QCOMPARE(lines.size(), threads * perThread + 1);
    std::vector<int> next(threads, 0);
    static const QRegularExpression shape(QStringLiteral(R"(^\S{24} \| thread (\d) line (\d+) x{40}$)"));
    for (qsizetype i = 0; i + 1 < lines.size(); ++i) {
        const auto match = shape.match(QString::fromUtf8(lines[i]));
        QVERIFY2(match.hasMatch(), lines[i].constData());
        const int thread = match.captured(1).toInt();
        // Each thread's lines keep their call order.
        QCOMPARE(match.captured(2).toInt(), next[thread]++);
    }
}

void AppLoggerTest::unwritableFolderLosesLinesSilently()
{
    QTemporaryDir dir;
    QFile blocker(dir.path() + QStringLiteral("/not-a-folder"));
    QVERIFY(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    AppLogger logger(dir.path() + QStringLiteral("/not-a-folder/logs/menu-app.log"));
    logger.log(QStringLiteral("lost"));
    logger.flush(); // returns: the failed write still counts as handled
    QVERIFY(!QFile::exists(dir.path() + QStringLiteral("/not-a-folder/logs/menu-app.log")));
}

void AppLoggerTest::fileThatCannotBeAppendedToIsReplaced_data()
{
    QTest::addColumn<bool>("readOnlyFile"); // otherwise a link to a folder stands at the log's name
    QTest::newRow("read-only file") << true;
    QTest::newRow("link to a folder") << false;
}

void AppLoggerTest::fileThatCannotBeAppendedToIsReplaced()
{
    QFETCH(bool, readOnlyFile);
    QTemporaryDir dir;
    const QString path = dir.path() + QStringLiteral("/menu-app.log");
    if (readOnlyFile) {
        if (::geteuid() == 0)
            QSKIP("root may write any file");
        QFile old(path);
        QVERIFY(old.open(QIODevice::WriteOnly));
        old.write("old line\n");
        old.close();
        QVERIFY(old.setPermissions(QFileDevice::ReadOwner | QFileDevice::ReadGroup | QFileDevice::ReadOther));
    } else {
        QVERIFY(QDir(dir.path()).mkdir(QStringLiteral("elsewhere")));
        QVERIFY(QFile::link(dir.path() + QStringLiteral("/elsewhere"), path));
    }

    AppLogger logger(path);
    logger.log(QStringLiteral("replaces"));
    logger.flush();
    QVERIFY(QFileInfo(path).isFile());
    QVERIFY(!QFileInfo(path).isSymLink());
    const QList<QByteArray> first = readAll(path).split('\n');
    QCOMPARE(first.size(), 2);
    QVERIFY2(first[0].endsWith(" | replaces"), first[0].constData());

    // The new file is an ordinary one again: later lines are appended to it.
    logger.log(QStringLiteral("appended"));
    logger.flush();
    const QList<QByteArray> both = readAll(path).split('\n');
    QCOMPARE(both.size(), 3);
    QVERIFY(both[1].endsWith(" | appended"));
    QCOMPARE(QDir(dir.path()).entryList(QDir::Files | QDir::NoDotAndDotDot),
             QStringList{QStringLiteral("menu-app.log")});
}

void AppLoggerTest::queuedLinesAreWrittenBeforeNormalExit()
{
    // The real program logs its last line and returns from main at once; every line must land.
    FakeAgent agent;
    InstalledProgram copy;
    QProcess *program = copy.start(agent.port());
    QVERIFY(copy.waitForLogMessage(QStringLiteral("Launch flow starting. launchedAtLogin=false")));
    program->terminate();
    QVERIFY(InstalledProgram::waitForExit(program));
    QCOMPARE(program->exitStatus(), QProcess::NormalExit);
    QCOMPARE(program->exitCode(), 0);
    QCOMPARE(copy.logMessages().last(), QStringLiteral("Application will terminate."));
}

QTEST_GUILESS_MAIN(AppLoggerTest)
#include "tst_AppLogger.moc"
