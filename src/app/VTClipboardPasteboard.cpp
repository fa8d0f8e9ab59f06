#include "app/VTClipboardPasteboard.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>

QStringList VTClipboardPasteboard::types() const
{
    const QMimeData* mime = QGuiApplication::clipboard()->mimeData();
    return mime ? mime->formats() : QStringList();
}

void VTClipboardPasteboard::declareTypes(const QStringList& types)
{
    m_declaredTypes = types;
    m_pending.clear();
}

bool VTClipboardPasteboard::setData(const QByteArray& data, const QString& type)
{
    if (!m_declaredTypes.contains(type))
        return false;
    m_pending.insert(type, data);
    // The clipboard owns what it is given, so it gets a fresh copy of
    // everything set since the types were declared.
    auto* mime = new QMimeData();
    for (auto it = m_pending.cbegin(); it != m_pending.cend(); ++it)
        mime->setData(it.key(), it.value());
    QGuiApplication::clipboard()->setMimeData(mime);
    return true;
}

std::optional<QByteArray> VTClipboardPasteboard::dataForType(const QString& type) const
{
    const QMimeData* mime = QGuiApplication::clipboard()->mimeData();
    if (!mime || !mime->hasFormat(type))
        return std::nullopt;
    return mime->data(type);
}
