// A libFuzzer harness for every parser of outside input, one per executable: the build defines
// QUILLMERE_FUZZ_<harness>. Beyond not crashing, each checks what must hold for any input, and a
// failed check aborts, so that libFuzzer keeps the input.
#include "agent/HealthJudgement.h"
#include "control/ControlProtocol.h"
#include "platform/Bundle.h"
#include "platform/linux/AutostartLoginItemService.h"
#include "platform/linux/ListeningSockets.h"
#include "platform/linux/MountInfoWatcher.h"
#include "volumes/VolumeSnapshot.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <cstdlib>

using namespace Qt::StringLiterals;

#define REQUIRE(property) ((property) ? void() : std::abort())

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray input(reinterpret_cast<const char *>(data), qsizetype(size));
#if defined(QUILLMERE_FUZZ_AutostartEntry) // the entry read back; the input as the program's path in an entry
    AutostartLoginItemService::entryTextIsHidden(input);
    // Whatever the path holds (a line feed and "Hidden=true"), the entry written is not switched off.
    REQUIRE(!AutostartLoginItemService::entryTextIsHidden(
        AutostartLoginItemService::entryText(QString::fromUtf8(input)).toUtf8()));
#elif defined(QUILLMERE_FUZZ_BundleInfo)     // the information file, an XML property list
    propertyListDictionary(input);
#elif defined(QUILLMERE_FUZZ_ControlRequest) // a request line, as the running program reads it; a reply
    const std::variant<ControlRequest, QString> decoded = decodeControlRequest(input);
    // A request taken is one the command side can write: it comes back the same.
    if (const ControlRequest *request = std::get_if<ControlRequest>(&decoded))
        REQUIRE(decodeControlRequest(encodeControlRequest(*request).chopped(1)) == decoded);
    decodeControlReply(input);
#elif defined(QUILLMERE_FUZZ_HealthAnswer)   // the body of a 200 answer from /healthz
    const HealthAnswer answer = judgeHealthAnswer({false, 200, input}, u"--"_s);
    // There is always a version to show, and running takes a decodable "ok".
    REQUIRE(!answer.version.isEmpty());
    REQUIRE(!answer.running || HealthPayload::decode(input).value().status.value().trimmed().toLower() == "ok"_L1);
#elif defined(QUILLMERE_FUZZ_MountTable)     // two readings of the table, split at the first NUL byte
    const qsizetype split = input.indexOf('\0');
    const QList<MountRecord> before = mountsInFolder(input.left(split), u"/media/al ex"_s),
                             after = mountsInFolder(input.mid(split + 1), u"/media/al ex"_s);
    // A table holds no change from itself, and every mount in it is new against an empty one.
    REQUIRE(mountChangesBetween(before, before).isEmpty() && mountChangesBetween({}, after).size() == after.size());
    mountChangesBetween(before, after);
#elif defined(QUILLMERE_FUZZ_SocketTable)    // /proc/net/tcp or tcp6, searched for a loopback listener
    listenerOwnerInTable(input, QHostAddress(QHostAddress::LocalHost), 8787);
    listenerOwnerInTable(input, QHostAddress(QHostAddress::LocalHostIPv6), 8787);
#elif defined(QUILLMERE_FUZZ_VolumeSnapshot) // as UTF-16, lone surrogates and all: the event, a line feed, names
    const QStringList lines =
        QString(reinterpret_cast<const QChar *>(input.constData()), input.size() / 2).split(u'\n');
    const QList<VolumeEntry> snapshot = volumeSnapshotFromListing(lines.mid(1));
    const QByteArray body = volumeSyncBody(snapshot, lines[0]);
    volumeSnapshotSignature(snapshot);
    // The body reads back as JSON with the same event and the same volumes in the same order.
    const QJsonObject read = QJsonDocument::fromJson(body).object();
    QList<VolumeEntry> volumes;
    for (const QJsonValue volume : read["volumes"_L1].toArray())
        volumes.append({volume["name"_L1].toString(), volume["path"_L1].toString(), volume["isMounted"_L1].toBool()});
    REQUIRE(body.isEmpty() ||
            (read["event"_L1] == lines[0] && read["source"_L1] == "menu-app"_L1 && volumes == snapshot));
#endif
    return 0;
}

#if !defined(QUILLMERE_LIBFUZZER)
// Without libFuzzer (GCC): runs the harness once on each file named on the command line.
int main(int argc, char *argv[])
{
    for (int i = 1; i < argc; ++i) {
        QFile file(QFile::decodeName(argv[i]));
        const QByteArray input = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.constData()), size_t(input.size()));
    }
}
#endif
