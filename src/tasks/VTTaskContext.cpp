#include "tasks/VTTaskContext.h"

QStringList VTTaskContext::keys() const
{
    QStringList keys;
    for (const auto& [key, value] : m_values)
        keys.append(key);
    return keys;
}

const VTTaskContext::Value* VTTaskContext::find(const QString& key) const
{
    const auto found = m_values.find(key);
    return found == m_values.end() ? nullptr : &found->second;
}

int32_t VTTaskContext::intForKey(const QString& key, int32_t fallback) const
{
    const Value* value = find(key);
    const int32_t* number = value ? std::get_if<int32_t>(value) : nullptr;
    return number ? *number : fallback;
}

QString VTTaskContext::stringForKey(const QString& key) const
{
    const Value* value = find(key);
    const QString* string = value ? std::get_if<QString>(value) : nullptr;
    return string ? *string : QString();
}

QList<QUrl> VTTaskContext::urlsForKey(const QString& key) const
{
    const Value* value = find(key);
    const QList<QUrl>* urls = value ? std::get_if<QList<QUrl>>(value) : nullptr;
    return urls ? *urls : QList<QUrl>();
}

VTTaskContext::ObjectList VTTaskContext::objectsForKey(const QString& key) const
{
    const Value* value = find(key);
    const ObjectList* objects = value ? std::get_if<ObjectList>(value) : nullptr;
    return objects ? *objects : ObjectList();
}

VTTaskContext VTTaskContext::mergedWith(const VTTaskContext& result) const
{
    VTTaskContext merged = *this;
    for (const auto& [key, value] : result.m_values)
        merged.m_values[key] = value;
    return merged;
}
