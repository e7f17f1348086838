// Whole-file reads and writes for tests that lay out files by hand.
#pragma once

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

// Writes contents to path, creating the folders on the way; a failure fails the calling test.
inline void writeFile(const QString &path, const QByteArray &contents)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    QVERIFY2(file.open(QIODevice::WriteOnly | QIODevice::Truncate), qPrintable(path));
    QCOMPARE(file.write(contents), contents.size());
}

// The file's bytes, or nothing when it cannot be read.
inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The lines of the block of a file (blocks are parted by a blank line) that a line holding only name (by default
// the test row's) heads; "(no block) name" when none does, which no expectation matches.
inline QStringList blockOf(const QString &path, const QString &name = QString::fromLatin1(QTest::currentDataTag()))
{
    for (const QString &block : QString::fromUtf8(readFile(path)).split(QStringLiteral("\n\n")))
        if (block.section(u'\n', 0, 0) == name)
            return block.section(u'\n', 1).split(u'\n', Qt::SkipEmptyParts);
    return {QStringLiteral("(no block) ") + name};
}
