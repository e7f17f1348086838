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
