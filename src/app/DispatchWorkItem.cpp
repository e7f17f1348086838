#include "app/DispatchWorkItem.h"

#include <QTimer>

void DispatchWorkItem::schedule(QObject *context, std::chrono::milliseconds delay)
{
    QTimer::singleShot(delay, Qt::PreciseTimer, context, [item = shared_from_this()] { item->perform(); });
}

void DispatchWorkItem::perform()
{
    if (cancelled_ || hasRun_)
        return;
    hasRun_ = true;
    block_();
}
