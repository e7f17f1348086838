// The launch agent property list text: its exact layout, the escaping of the paths, and that any
// executable path comes back unchanged from an XML reading of it.
#include "startup/LegacyLaunchAgent.h"

#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QTest>
#include <QXmlStreamReader>

class LaunchAgentPlistTest : public QObject {
    Q_OBJECT
private slots:
    void textMatchesTheGoldenFile();
    void fixedPiecesAndLayout();
    void labelIsWrittenUnescaped();
    void escapingReplacesAmpersandFirst_data();
    void escapingReplacesAmpersandFirst();
    void randomExecutablePathsSurviveAnXmlReading();
};

namespace {

// What the text is for a typical installation; every byte counts.
const char goldenText[] = R"plist(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
  <key>Label</key>
  <string>com.tallyhold.agent.app</string>
  <key>ProgramArguments</key>
  <array>
    <string>/Applications/Quillmere &amp; Co.app/Contents/MacOS/Quillmere &lt;Agent&gt;</string>
    <string>--launched-at-login</string>
  </array>
  <key>RunAtLoad</key>
  <true/>
  <key>LimitLoadToSessionType</key>
  <array>
    <string>Aqua</string>
  </array>
  <key>ProcessType</key>
  <string>Interactive</string>
  <key>StandardOutPath</key>
  <string>/Users/zoë/Library/Application Support/TallyholdAgent/runtime/logs/menu-app.out.log</string>
  <key>StandardErrorPath</key>
  <string>/Users/zoë/Library/Application Support/TallyholdAgent/runtime/logs/menu-app.err.log</string>
</dict>
</plist>)plist";

const QString logs = QStringLiteral("/Users/zoë/Library/Application Support/TallyholdAgent/runtime/logs/");

// Reads the first string of ProgramArguments back, failing the test on any XML error.
QString programPathFromXml(const QString &text, QString *error)
{
    QXmlStreamReader reader(text);
    bool afterProgramArgumentsKey = false;
    QString found;
    bool haveFound = false;
    while (!reader.atEnd()) {
        reader.readNext();
        if (!reader.isStartElement())
            continue;
        if (reader.name() == QLatin1String("key")) {
            afterProgramArgumentsKey = reader.readElementText() == QLatin1String("ProgramArguments");
        } else if (afterProgramArgumentsKey && reader.name() == QLatin1String("string") && !haveFound) {
            found = reader.readElementText();
            haveFound = true;
        }
    }
    if (reader.hasError())
        *error = reader.errorString() + QStringLiteral(" at line ") + QString::number(reader.lineNumber());
    else if (!haveFound)
        *error = QStringLiteral("no ProgramArguments string");
    return found;
}

QString randomPath(QRandomGenerator &random)
{
    // Mostly printable ASCII, with letters beyond it including one outside the basic plane.
    static const QStringList nonAscii = {QStringLiteral("é"),    QStringLiteral("ü"), QStringLiteral("ß"),
                                         QStringLiteral("日本"), QStringLiteral("Ω"), QStringLiteral("😀")};
    QString path = QStringLiteral("/");
    const int length = random.bounded(1, 60);
    for (int i = 0; i < length; ++i) {
        if (random.bounded(10) == 0)
            path += nonAscii.at(random.bounded(int(nonAscii.size())));
        else
            path += QChar(char16_t(random.bounded(0x20, 0x7f)));
    }
    return path;
}

} // namespace

void LaunchAgentPlistTest::textMatchesTheGoldenFile()
{
    const QString text = legacyLaunchAgentPlistText(
        QStringLiteral("com.tallyhold.agent.app"),
        QStringLiteral("/Applications/Quillmere & Co.app/Contents/MacOS/Quillmere <Agent>"),
        logs + QStringLiteral("menu-app.out.log"), logs + QStringLiteral("menu-app.err.log"));
    QCOMPARE(text.toUtf8(), QByteArray(goldenText));
}

void LaunchAgentPlistTest::fixedPiecesAndLayout()
{
    const QString empty;
    QCOMPARE(legacyLaunchAgentPlistText(empty, empty, empty, empty).size(), 612);

    const QString text = legacyLaunchAgentPlistText(QStringLiteral("label"), QStringLiteral("/x"), QStringLiteral("/o"),
                                                    QStringLiteral("/e"));
    const QStringList lines = text.split(QLatin1Char('\n'));
    QCOMPARE(lines.size(), 25);
    QVERIFY(!text.contains(QLatin1Char('\t')));
    QVERIFY(text.endsWith(QStringLiteral("</plist>")));
    QVERIFY(!text.startsWith(QChar(0xFEFF)));
    const QList<int> indents = {0, 0, 0, 0, 2, 2, 2, 2, 4, 4, 2, 2, 2, 2, 2, 4, 2, 2, 2, 2, 2, 2, 2, 0, 0};
    for (int i = 0; i < lines.size(); ++i) {
        const QString &line = lines.at(i);
        const qsizetype indent = line.size() - QStringView(line).trimmed().size();
        QVERIFY2(indent == indents.at(i) && line.at(indent) == QLatin1Char('<'), qPrintable(line));
    }
}

void LaunchAgentPlistTest::labelIsWrittenUnescaped()
{
    const QString text = legacyLaunchAgentPlistText(QStringLiteral("a&b"), QStringLiteral("/a&b"), QStringLiteral("/o"),
                                                    QStringLiteral("/e"));
    QCOMPARE(text.split(QLatin1Char('\n')).at(5), QStringLiteral("  <string>a&b</string>"));
    QCOMPARE(text.split(QLatin1Char('\n')).at(8), QStringLiteral("    <string>/a&amp;b</string>"));
}

void LaunchAgentPlistTest::escapingReplacesAmpersandFirst_data()
{
    QTest::addColumn<QString>("input");
    QTest::addColumn<QString>("escaped");
    QTest::newRow("plain") << QStringLiteral("/Applications/Agent") << QStringLiteral("/Applications/Agent");
    QTest::newRow("each character") << QStringLiteral("&<>\"'") << QStringLiteral("&amp;&lt;&gt;&quot;&apos;");
    QTest::newRow("reverse order") << QStringLiteral("'\"><&") << QStringLiteral("&apos;&quot;&gt;&lt;&amp;");
    QTest::newRow("entity escaped again") << QStringLiteral("/a&amp;b") << QStringLiteral("/a&amp;amp;b");
    QTest::newRow("escaped lt escaped again") << QStringLiteral("&lt;") << QStringLiteral("&amp;lt;");
    QTest::newRow("repeated") << QStringLiteral("&&<<") << QStringLiteral("&amp;&amp;&lt;&lt;");
    QTest::newRow("non-ASCII untouched") << QStringLiteral("/Users/zoë/日本") << QStringLiteral("/Users/zoë/日本");
    QTest::newRow("empty") << QString() << QString();
}

void LaunchAgentPlistTest::escapingReplacesAmpersandFirst()
{
    QFETCH(QString, input);
    QFETCH(QString, escaped);
    QCOMPARE(xmlEscaped(input), escaped);
}

void LaunchAgentPlistTest::randomExecutablePathsSurviveAnXmlReading()
{
    constexpr int runs = 10'000;
    QRandomGenerator random(20240611);
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < runs; ++i) {
        const QString path = randomPath(random);
        const QString text = legacyLaunchAgentPlistText(QStringLiteral("com.tallyhold.agent.app"), path,
                                                        QStringLiteral("/o.log"), QStringLiteral("/e.log"));
        QString error;
        const QString readBack = programPathFromXml(text, &error);
        QVERIFY2(error.isEmpty(), qPrintable(QStringLiteral("path ") + path + QStringLiteral(": ") + error));
        QVERIFY2(readBack == path, qPrintable(QStringLiteral("path ") + path + QStringLiteral(" read as ") + readBack));
    }
    qInfo("%d random executable paths read back exactly in %lld ms", runs, static_cast<long long>(timer.elapsed()));
}

QTEST_GUILESS_MAIN(LaunchAgentPlistTest)
#include "tst_LaunchAgentPlist.moc"
