// The general pasteboard over the system clipboard, so that clips copied in
// one running editor paste into another (and into a second process).
//
// Contract
// - `declareTypes` starts new contents with the given MIME types (the
//   system clipboard is not touched until data arrives); `setData` of a
//   declared type puts the contents so far on the clipboard. `types` and
//   `dataForType` read what the clipboard holds now, whoever put it there.
// - Main thread only (QClipboard's rule).
#pragma once

#include "model/VTPasteboard.h"

#include <QMap>

class VTClipboardPasteboard final : public VTPasteboard {
public:
    QStringList types() const override;
    void declareTypes(const QStringList& types) override;
    bool setData(const QByteArray& data, const QString& type) override;
    std::optional<QByteArray> dataForType(const QString& type) const override;

private:
    QStringList m_declaredTypes;
    QMap<QString, QByteArray> m_pending;
};
