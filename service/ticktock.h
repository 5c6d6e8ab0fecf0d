// A notification queue with two classes of work (TICK, TOCK) served in strict alternation
// while both have work, so a burst of one class cannot starve the other. A taker that
// blocks is handed the next notification directly, longest-waiting first.
// Thread-safe: any number of producers and takers; one mutex guards everything. Takers
// must have returned (wakeUpAll) before the queue is destroyed.
#pragma once

#include <Poco/Event.h>
#include <Poco/Mutex.h>
#include <Poco/Notification.h>
#include <Poco/NotificationCenter.h>

#include <cstddef>
#include <deque>
#include <functional>
#include <vector>

namespace Orvex {

class TicktockQueue {
public:
    enum TickTock { TICK = 0, TOCK = 1 };

    TicktockQueue() = default;
    ~TicktockQueue() = default;
    TicktockQueue(const TicktockQueue&) = delete;
    TicktockQueue& operator=(const TicktockQueue&) = delete;

    // The process-wide instance (the workers own their own queues).
    static TicktockQueue& getInstance();

    // Hands the notification to the longest-waiting taker, else appends it to its class
    // (urgent: puts it in front). A null notification fails the "pNotification" check.
    void enqueueNotification(Poco::Notification::Ptr notification, TickTock tick);
    void enqueueUrgentNotification(Poco::Notification::Ptr notification, TickTock tick);

    // Next notification by the alternation rule, or null when both classes are empty.
    Poco::Notification::Ptr dequeueNotification();
    // Blocks until a notification arrives; null after wakeUpAll.
    Poco::Notification::Ptr waitDequeueNotification();
    // Same, but null once the time-out (milliseconds) has passed.
    Poco::Notification::Ptr waitDequeueNotification(long milliseconds);

    // Posts every queued notification to the centre in alternation order (under the lock).
    void dispatch(Poco::NotificationCenter& center);
    // Takes out every queued notification for which drop is true (drop runs under the
    // lock and must not call back into the queue); the others keep their order.
    std::vector<Poco::Notification::Ptr> removeIf(const std::function<bool(Poco::Notification*)>& drop);
    // Releases every blocked taker with no notification; queued work stays queued.
    void wakeUpAll();
    // Queued notifications of both classes together.
    std::size_t size() const;
    // Takers currently blocked in waitDequeueNotification (for diagnostics and tests).
    std::size_t waiters() const;

private:
    struct WaitInfo {
        Poco::Notification::Ptr notification;
        Poco::Event available{Poco::Event::EVENT_AUTORESET};
    };

    void enqueue(Poco::Notification::Ptr notification, TickTock tick, bool urgent);
    bool handOver(Poco::Notification::Ptr& notification);
    Poco::Notification::Ptr takeLocked();
    Poco::Notification::Ptr takeOrWait(WaitInfo& waiter);

    int turn_ = TICK;
    std::deque<Poco::Notification::Ptr> queues_[2];
    std::deque<WaitInfo*> waiters_;
    mutable Poco::FastMutex mutex_;
};

}  // namespace Orvex
