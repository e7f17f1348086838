// Building the volume snapshot from a listing of the mount folder, and writing it as JSON.
#include "volumes/VolumeSnapshot.h"

#include <QFile>
#include <QSet>

#include <dirent.h>

#include <algorithm>
#include <vector>

namespace {

const QString mountPrefix = QStringLiteral("/Volumes/");
const QString sourceValue = QStringLiteral("menu-app");

// The form two names are compared and de-duplicated in: lower-cased, then canonically composed,
// so that a decomposed "é" and a composed one are the same text.
QString comparisonForm(const QString &text)
{
    // Most volume names are ASCII, which is its own composed form; lower-case it in place.
    const bool ascii = std::all_of(text.cbegin(), text.cend(), [](QChar c) { return c.unicode() < 0x80; });
    if (!ascii)
        return text.toLower().normalized(QString::NormalizationForm_C);
    QString lowered = text;
    for (QChar &c : lowered) {
        if (c.unicode() >= 'A' && c.unicode() <= 'Z')
            c = QChar(c.unicode() + ('a' - 'A'));
    }
    return lowered;
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

// Below U+D800 a UTF-16 unit is its own code point, and Qt's fast comparison is already in
// code point order.
bool onlyBelowSurrogates(const QString &text)
{
    return std::all_of(text.cbegin(), text.cend(), [](QChar c) { return c.unicode() < 0xD800; });
}

struct SortKey {
    explicit SortKey(QString form) : text(std::move(form)), simple(onlyBelowSurrogates(text)) {}
    QString text;
    bool simple;
};

int compareSortKeys(const SortKey &left, const SortKey &right)
{
    if (left.simple && right.simple)
        return QString::compare(left.text, right.text, Qt::CaseSensitive);
    return compareByScalarValues(left.text, right.text);
}

QString withoutTrailingSlashes(QString path)
{
    while (path.size() >= 2 && path.endsWith(QLatin1Char('/')))
        path.chop(1);
    return path;
}

// JSON is written by hand: the snapshot is taken on the main thread for every sync, and for a
// crowded mount folder building QJsonObjects costs several times the listing itself. The output
// is byte for byte what QJsonDocument writes in compact form (keys sorted, UTF-8 unescaped,
// control characters escaped), but for U+FEFF, which goes escaped: a reader that decodes a string
// as UTF-8 text of its own (Qt's does) takes one at the start for a byte order mark and drops it.
void appendJsonString(QByteArray &out, const QString &text)
{
    static constexpr char hex[] = "0123456789abcdef";
    out += '"';
    // UTF-8 bytes of non-ASCII characters are all 0x80 or above and pass through unchanged.
    const bool ascii = std::all_of(text.cbegin(), text.cend(), [](QChar c) { return c.unicode() < 0x80; });
    const auto escape = [&out](unsigned char c) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\b':
            out += "\\b";
            break;
        case '\f':
            out += "\\f";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (c < 0x20) {
                out += "\\u00";
                out += hex[c >> 4];
                out += hex[c & 0xf];
            } else {
                out += char(c);
            }
        }
    };
    if (ascii) {
        for (const QChar c : text)
            escape(static_cast<unsigned char>(c.unicode()));
    } else {
        const QStringList parts = text.split(QChar(0xFEFF));
        for (qsizetype i = 0; i < parts.size(); ++i) {
            if (i > 0)
                out += "\\ufeff";
            for (const char byte : parts[i].toUtf8())
                escape(static_cast<unsigned char>(byte));
        }
    }
    out += '"';
}

void appendSnapshotArray(QByteArray &out, const QList<VolumeEntry> &snapshot)
{
    out += '[';
    for (qsizetype i = 0; i < snapshot.size(); ++i) {
        const VolumeEntry &entry = snapshot[i];
        if (i > 0)
            out += ',';
        out += entry.isMounted ? "{\"isMounted\":true,\"name\":" : "{\"isMounted\":false,\"name\":";
        appendJsonString(out, entry.name);
        out += ",\"path\":";
        appendJsonString(out, entry.path);
        out += '}';
    }
    out += ']';
}

qsizetype estimatedJsonSize(const QList<VolumeEntry> &snapshot)
{
    qsizetype size = 64;
    for (const VolumeEntry &entry : snapshot)
        size += 48 + 2 * (entry.name.size() + entry.path.size());
    return size;
}

// JSON text is Unicode; a lone surrogate has no UTF-8 form and would be written as a
// replacement character, so two different snapshots could look alike.
bool representableInJson(const QList<VolumeEntry> &snapshot)
{
    return std::all_of(snapshot.cbegin(), snapshot.cend(),
                       [](const VolumeEntry &entry) { return entry.name.isValidUtf16() && entry.path.isValidUtf16(); });
}

} // namespace

QList<VolumeEntry> volumeSnapshotFromListing(const QStringList &entryNamesInListingOrder)
{
    struct Keyed {
        VolumeEntry entry;
        SortKey nameKey;
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
        seenPaths.insert(std::move(pathKey));
        keyed.push_back(Keyed{VolumeEntry{name, path, true}, SortKey(comparisonForm(name))});
    }

    // Two names alike in their compared form have alike paths, so no two entries left tie.
    std::sort(keyed.begin(), keyed.end(),
              [](const Keyed &left, const Keyed &right) { return compareSortKeys(left.nameKey, right.nameKey) < 0; });

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
    QByteArray signature;
    signature.reserve(estimatedJsonSize(snapshot));
    appendSnapshotArray(signature, snapshot);
    return signature;
}

QByteArray volumeSyncBody(const QList<VolumeEntry> &snapshot, const QString &event)
{
    if (!representableInJson(snapshot) || !event.isValidUtf16())
        return {};
    QByteArray body;
    body.reserve(estimatedJsonSize(snapshot) + event.size());
    body += "{\"event\":";
    appendJsonString(body, event);
    body += ",\"source\":";
    appendJsonString(body, sourceValue);
    body += ",\"volumes\":";
    appendSnapshotArray(body, snapshot);
    body += '}';
    return body;
}

QStringList listVolumeFolder(const QString &folder)
{
    QStringList names;
    // An empty path would make the iterator list the working folder.
    if (folder.isEmpty())
        return names;
    // Names only, straight from the directory stream: QDirIterator builds a file information
    // record with the full path for every entry, which doubles the cost for a crowded folder.
    DIR *directory = ::opendir(QFile::encodeName(folder).constData());
    if (!directory)
        return names;
    while (const dirent *entry = ::readdir(directory)) {
        const char *name = entry->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')))
            continue;
        names.append(QFile::decodeName(name));
    }
    ::closedir(directory);
    return names;
}
