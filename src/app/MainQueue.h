// Follow-up work for the main queue that belongs to an interface object:
// it runs on the main thread's event loop after what is queued now, and not
// at all once `context` has been destroyed (a window or controller that went
// away while the work waited).
#pragma once

#include <QMetaObject>
#include <QObject>

#include <utility>

namespace brindle::app {

template <class Work>
void asyncOnMainQueue(QObject* context, Work&& work)
{
    QMetaObject::invokeMethod(context, std::forward<Work>(work), Qt::QueuedConnection);
}

}  // namespace brindle::app
