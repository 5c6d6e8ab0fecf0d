#include "service/ticktock.h"

#include "common/trace.h"

#include <Poco/Bugcheck.h>
#include <Poco/SingletonHolder.h>

#include <algorithm>
#include <iterator>

namespace Orvex {

TicktockQueue& TicktockQueue::getInstance()
{
    ORVEX_TRACE();
    static Poco::SingletonHolder<TicktockQueue> holder;
    return *holder.get();
}

void TicktockQueue::enqueueNotification(Poco::Notification::Ptr notification, TickTock tick)
{
    ORVEX_TRACE();
    enqueue(std::move(notification), tick, false);
}

void TicktockQueue::enqueueUrgentNotification(Poco::Notification::Ptr notification, TickTock tick)
{
    ORVEX_TRACE();
    enqueue(std::move(notification), tick, true);
}

void TicktockQueue::enqueue(Poco::Notification::Ptr notification, TickTock tick, bool urgent)
{
    Poco::Notification* pNotification = notification.get();
    poco_check_ptr(pNotification);
    Poco::FastMutex::ScopedLock lock(mutex_);
    if (handOver(notification))
        return;
    std::deque<Poco::Notification::Ptr>& queue = queues_[tick == TOCK ? TOCK : TICK];
    if (urgent)
        queue.push_front(std::move(notification));
    else
        queue.push_back(std::move(notification));
}

// With the lock held: gives the notification to the longest-waiting taker. The event is
// set under the lock so that a taker whose wait has just timed out never frees its record
// while a producer still touches it.
bool TicktockQueue::handOver(Poco::Notification::Ptr& notification)
{
    if (waiters_.empty())
        return false;
    WaitInfo* waiter = waiters_.front();
    waiters_.pop_front();
    waiter->notification = std::move(notification);
    waiter->available.set();
    return true;
}

// With the lock held: the turn's class first, else the other one (which becomes the turn).
Poco::Notification::Ptr TicktockQueue::takeLocked()
{
    int side = turn_;
    if (queues_[side].empty()) {
        side = 1 - side;
        turn_ = side;
        if (queues_[side].empty())
            return nullptr;
    }
    Poco::Notification::Ptr notification = std::move(queues_[side].front());
    queues_[side].pop_front();
    turn_ = 1 - side;
    return notification;
}

// Takes a notification at once if there is one; otherwise queues the waiter record, and
// the caller waits on its event.
Poco::Notification::Ptr TicktockQueue::takeOrWait(WaitInfo& waiter)
{
    Poco::FastMutex::ScopedLock lock(mutex_);
    Poco::Notification::Ptr notification = takeLocked();
    if (!notification)
        waiters_.push_back(&waiter);
    return notification;
}

Poco::Notification::Ptr TicktockQueue::dequeueNotification()
{
    ORVEX_TRACE();
    Poco::FastMutex::ScopedLock lock(mutex_);
    return takeLocked();
}

Poco::Notification::Ptr TicktockQueue::waitDequeueNotification()
{
    ORVEX_TRACE();
    WaitInfo waiter;
    if (Poco::Notification::Ptr notification = takeOrWait(waiter))
        return notification;
    // The producer filled the record before setting the event and removed it from the
    // wait queue; the event orders its write before this read.
    waiter.available.wait();
    return std::move(waiter.notification);
}

Poco::Notification::Ptr TicktockQueue::waitDequeueNotification(long milliseconds)
{
    ORVEX_TRACE();
    WaitInfo waiter;
    if (Poco::Notification::Ptr notification = takeOrWait(waiter))
        return notification;
    waiter.available.tryWait(milliseconds);
    // Timed out or not: a producer may have filled the record meanwhile; either way the
    // record must leave the wait queue before it goes out of scope.
    Poco::FastMutex::ScopedLock lock(mutex_);
    auto it = std::find(waiters_.begin(), waiters_.end(), &waiter);
    if (it != waiters_.end())
        waiters_.erase(it);
    return std::move(waiter.notification);
}

void TicktockQueue::dispatch(Poco::NotificationCenter& center)
{
    ORVEX_TRACE();
    Poco::FastMutex::ScopedLock lock(mutex_);
    while (Poco::Notification::Ptr notification = takeLocked())
        center.postNotification(notification);
}

std::vector<Poco::Notification::Ptr> TicktockQueue::removeIf(const std::function<bool(Poco::Notification*)>& drop)
{
    std::vector<Poco::Notification::Ptr> removed;
    Poco::FastMutex::ScopedLock lock(mutex_);
    for (auto& queue : queues_) {
        auto keep = std::stable_partition(queue.begin(), queue.end(),
            [&](const Poco::Notification::Ptr& n) { return !drop(const_cast<Poco::Notification*>(n.get())); });
        std::move(keep, queue.end(), std::back_inserter(removed));
        queue.erase(keep, queue.end());
    }
    return removed;
}

void TicktockQueue::wakeUpAll()
{
    ORVEX_TRACE();
    Poco::FastMutex::ScopedLock lock(mutex_);
    for (WaitInfo* waiter : waiters_)
        waiter->available.set();
    waiters_.clear();
}

std::size_t TicktockQueue::size() const
{
    ORVEX_TRACE();
    Poco::FastMutex::ScopedLock lock(mutex_);
    return queues_[TICK].size() + queues_[TOCK].size();
}

std::size_t TicktockQueue::waiters() const
{
    Poco::FastMutex::ScopedLock lock(mutex_);
    return waiters_.size();
}

}  // namespace Orvex
