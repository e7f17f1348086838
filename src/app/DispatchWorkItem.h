// A block that runs later on the main thread unless it is cancelled first.
#pragma once

#include <QObject>
#include <chrono>
#include <functional>
#include <memory>

class DispatchWorkItem : public std::enable_shared_from_this<DispatchWorkItem> {
public:
    explicit DispatchWorkItem(std::function<void()> block) : block_(std::move(block)) {}

    // Queues the item on context's thread: after the given delay, or on the next turn of the
    // event loop for a zero delay.
    void schedule(QObject *context, std::chrono::milliseconds delay);
    void cancel() { cancelled_ = true; }
    bool isCancelled() const { return cancelled_; }

private:
    void perform();

    std::function<void()> block_;
    bool cancelled_ = false;
    bool hasRun_ = false;
};
