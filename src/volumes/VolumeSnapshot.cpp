#include "volumes/VolumeSnapshot.h"

#include <QDirIterator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>

#include <algorithm>
#include <vector>

namespace {

const QString mountPrefix = QStringLiteral("/Volumes/");
const QString sourceValue = QStringLiteral("menu-app");

// The form two names are compared and de-duplicated in: lower-cased, then canonically composed,
// so that a decomposed "é" and a composed one are the same text.
QString comparisonForm(const QString &text)
{
    return text.toLower().normalized(QString::NormalizationForm_C);
}

// Orders UTF-16 text by Unicode scalar values. UTF-16 units alone would put every character
// above U+FFFF (a surrogate pair) before U+E000..U+FFFF; shifting the units at the first
// difference restores code point order without decoding the whole string.
int compareByScalarValues(const QString &left, const QString &right)
{
    auto rank = [](char16_t unit) -> int {
        if (unit >= 0xE000)
            return unit - 0x800;
        if (unit >= 0xD800)
            return unit + 0x2000;
        return unit;
    };
    const qsizetype common = std::min(left.size(), right.size());
    const char16_t *a = reinterpret_cast<const char16_t *>(left.constData());
    const char16_t *b = reinterpret_cast<const char16_t *>(right.constData());
    for (qsizetype i = 0; i < common; ++i) {
        if (a[i] != b[i])
            return rank(a[i]) < rank(b[i]) ? -1 : 1;
    }
    if (left.size() == right.size())
        return 0;
    return left.size() < right.size() ? -1 : 1;
}

QString withoutTrailingSlashes(QString path)
{
    while (path.size() >= 2 && path.endsWith(QLatin1Char('/')))
        path.chop(1);
    return path;
}

QJsonArray snapshotArray(const QList<VolumeEntry> &snapshot)
{
    QJsonArray volumes;
    for (const VolumeEntry &entry : snapshot) {
        volumes.append(QJsonObject{
            {QStringLiteral("name"), entry.name},
            {QStringLiteral("path"), entry.path},
            {QStringLiteral("isMounted"), entry.isMounted},
        });
    }
    return volumes;
}

// JSON text is Unicode; a lone surrogate has no UTF-8 form and would be written as a
// replacement character, so two different snapshots could look alike.
bool representableInJson(const QList<VolumeEntry> &snapshot)
{
    return std::all_of(snapshot.cbegin(), snapshot.cend(), [](const VolumeEntry &entry) {
        return entry.name.isValidUtf16() && entry.path.isValidUtf16();
    });
}

} // namespace

QList<VolumeEntry> volumeSnapshotFromListing(const QStringList &entryNamesInListingOrder)
{
    struct Keyed {
        VolumeEntry entry;
        QString nameKey;
        QString pathKey;
    };
    std::vector<Keyed> keyed;
    keyed.reserve(size_t(entryNamesInListingOrder.size()));
    QSet<QString> seenPaths;
    seenPaths.reserve(entryNamesInListingOrder.size());

    for (const QString &rawName : entryNamesInListingOrder) {
        const QString name = rawName.trimmed();
        if (name.isEmpty() || name.startsWith(QLatin1Char('.')))
            continue;
        const QString path = withoutTrailingSlashes((mountPrefix + name).trimmed());
        QString pathKey = comparisonForm(path);
        if (seenPaths.contains(pathKey))
            continue;
        seenPaths.insert(pathKey);
        keyed.push_back(Keyed{VolumeEntry{name, path, true}, comparisonForm(name), std::move(pathKey)});
    }

    std::sort(keyed.begin(), keyed.end(), [](const Keyed &left, const Keyed &right) {
        if (const int byName = compareByScalarValues(left.nameKey, right.nameKey))
            return byName < 0;
        return compareByScalarValues(left.pathKey, right.pathKey) < 0;
    });

    QList<VolumeEntry> snapshot;
    snapshot.reserve(qsizetype(keyed.size()));
    for (Keyed &item : keyed)
        snapshot.append(std::move(item.entry));
    return snapshot;
}

QByteArray volumeSnapshotSignature(const QList<VolumeEntry> &snapshot)
{
    if (!representableInJson(snapshot))
        return QByteArray::number(snapshot.size());
    // Qt keeps object keys sorted, so compact output is already the sorted-keys form.
    return QJsonDocument(snapshotArray(snapshot)).toJson(QJsonDocument::Compact);
}

QByteArray volumeSyncBody(const QList<VolumeEntry> &snapshot, const QString &event)
{
    if (!representableInJson(snapshot) || !event.isValidUtf16())
        return {};
    const QJsonObject body{
        {QStringLiteral("volumes"), snapshotArray(snapshot)},
        {QStringLiteral("source"), sourceValue},
        {QStringLiteral("event"), event},
    };
    return QJsonDocument(body).toJson(QJsonDocument::Compact);
}

QStringList listVolumeFolder(const QString &folder)
{
    QStringList names;
    // An empty path would make the iterator list the working folder.
    if (folder.isEmpty())
        return names;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    while (it.hasNext()) {
        it.next();
        names.append(it.fileName());
    }
    return names;
}
