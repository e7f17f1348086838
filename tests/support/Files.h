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

// Every block of a file (blocks are parted by a blank line) as its lines; in a table, the row's name comes first.
inline QList<QStringList> blocksOf(const QString &path)
{
    QList<QStringList> blocks;
    for (const QString &block : QString::fromUtf8(readFile(path)).split(QStringLiteral("\n\n")))
        blocks.append(block.split(u'\n', Qt::SkipEmptyParts));
    return blocks;
}

// The lines of the block that a line holding only name (by default the test row's) heads; "(no block) name" when
// none does, which no expectation matches.
inline QStringList blockOf(const QString &path, const QString &name = QString::fromLatin1(QTest::currentDataTag()))
{
    for (const QStringList &block : blocksOf(path))
        if (block.value(0) == name)
            return block.mid(1);
    return {QStringLiteral("(no block) ") + name};
}
