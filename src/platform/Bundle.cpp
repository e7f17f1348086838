#include "platform/Bundle.h"

#include <QFile>
#include <QXmlStreamReader>

namespace {

QVariant readValue(QXmlStreamReader &xml);

QVariantMap readDictionary(QXmlStreamReader &xml)
{
    QVariantMap map;
    QString key;
    while (xml.readNextStartElement()) {
        if (xml.name() == u"key") {
            key = xml.readElementText();
        } else {
            QVariant value = readValue(xml);
            if (!key.isNull())
                map.insert(key, value);
            key = QString();
        }
    }
    return map;
}

QVariant readValue(QXmlStreamReader &xml)
{
    const auto name = xml.name();
    if (name == u"string")
        return xml.readElementText();
    if (name == u"integer")
        return xml.readElementText().trimmed().toLongLong();
    if (name == u"real")
        return xml.readElementText().trimmed().toDouble();
    if (name == u"true" || name == u"false") {
        const bool value = name == u"true";
        xml.skipCurrentElement();
        return value;
    }
    if (name == u"dict")
        return readDictionary(xml);
    if (name == u"array") {
        QVariantList list;
        while (xml.readNextStartElement())
            list.append(readValue(xml));
        return list;
    }
    xml.skipCurrentElement();
    return {};
}

} // namespace

QVariantMap readPropertyListDictionary(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? propertyListDictionary(file.readAll()) : QVariantMap();
}

QVariantMap propertyListDictionary(const QByteArray &text)
{
    QXmlStreamReader xml(text);
    if (!xml.readNextStartElement() || xml.name() != u"plist")
        return {};
    if (!xml.readNextStartElement() || xml.name() != u"dict")
        return {};
    QVariantMap map = readDictionary(xml);
    return xml.hasError() ? QVariantMap() : map;
}

std::optional<QString> bundleIdentifier(const QString &infoPlistPath)
{
    const QVariant value = readPropertyListDictionary(infoPlistPath).value(QStringLiteral("CFBundleIdentifier"));
    if (value.typeId() == QMetaType::QString && !value.toString().isEmpty())
        return value.toString();
    return std::nullopt;
}
