#include "service/ticktock.h"

#include <Poco/NObserver.h>
#include <Poco/Notification.h>
#include <Poco/NotificationCenter.h>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

using Orvex::TicktockQueue;

namespace {

class Named : public Poco::Notification {
public:
    explicit Named(std::string text) : text(std::move(text)) {}
    std::string text;
};

Poco::Notification::Ptr item(const std::string& text)
{
    return new Named(text);
}

std::string textOf(const Poco::Notification::Ptr& notification)
{
    if (notification.isNull())
        return "<null>";
    auto named = notification.cast<Named>();
    return named.isNull() ? "<other>" : named->text;
}

std::vector<std::string> drain(TicktockQueue& queue)
{
    std::vector<std::string> out;
    while (Poco::Notification::Ptr n = queue.dequeueNotification())
        out.push_back(textOf(n));
    return out;
}

// Waiting for a taker to block is a condition on the queue, not a time.
void awaitWaiters(const TicktockQueue& queue, size_t count)
{
    while (queue.waiters() != count)
        std::this_thread::yield();
}

}  // namespace

TEST(TicktockOrder, AlternatesClassesWhileBothHaveWork)
{
    TicktockQueue queue;
    queue.enqueueNotification(item("a1"), TicktockQueue::TICK);
    queue.enqueueNotification(item("a2"), TicktockQueue::TICK);
    queue.enqueueNotification(item("a3"), TicktockQueue::TICK);
    queue.enqueueNotification(item("b1"), TicktockQueue::TOCK);
    EXPECT_EQ(queue.size(), 4u);
    EXPECT_EQ(drain(queue), (std::vector<std::string>{"a1", "b1", "a2", "a3"}));
    EXPECT_EQ(queue.size(), 0u);
    EXPECT_TRUE(queue.dequeueNotification().isNull());
}

TEST(TicktockOrder, OneClassDrainsInOrderAndTheTurnEndsOnTick)
{
    TicktockQueue queue;
    queue.enqueueNotification(item("t1"), TicktockQueue::TOCK);
    queue.enqueueNotification(item("t2"), TicktockQueue::TOCK);
    EXPECT_EQ(textOf(queue.dequeueNotification()), "t1");
    EXPECT_EQ(textOf(queue.dequeueNotification()), "t2");
    // The turn now points at TICK: with both classes filled, TICK is served first.
    queue.enqueueNotification(item("x"), TicktockQueue::TOCK);
    queue.enqueueNotification(item("y"), TicktockQueue::TICK);
    EXPECT_EQ(drain(queue), (std::vector<std::string>{"y", "x"}));
}

TEST(TicktockOrder, EmptyTakeSwitchesTheTurn)
{
    TicktockQueue queue;
    EXPECT_TRUE(queue.dequeueNotification().isNull());  // turn moved to TOCK
    queue.enqueueNotification(item("tick"), TicktockQueue::TICK);
    queue.enqueueNotification(item("tock"), TicktockQueue::TOCK);
    EXPECT_EQ(drain(queue), (std::vector<std::string>{"tock", "tick"}));
}

TEST(TicktockOrder, UrgentGoesToTheFrontOfItsClass)
{
    TicktockQueue queue;
    queue.enqueueNotification(item("a1"), TicktockQueue::TICK);
    queue.enqueueUrgentNotification(item("a0"), TicktockQueue::TICK);
    queue.enqueueNotification(item("b1"), TicktockQueue::TOCK);
    queue.enqueueUrgentNotification(item("b0"), TicktockQueue::TOCK);
    EXPECT_EQ(drain(queue), (std::vector<std::string>{"a0", "b0", "a1", "b1"}));
}

TEST(TicktockOrder, DispatchPostsEverythingInTurnOrder)
{
    TicktockQueue queue;
    queue.enqueueNotification(item("a1"), TicktockQueue::TICK);
    queue.enqueueNotification(item("a2"), TicktockQueue::TICK);
    queue.enqueueNotification(item("b1"), TicktockQueue::TOCK);
    queue.enqueueNotification(item("b2"), TicktockQueue::TOCK);
    queue.enqueueNotification(item("b3"), TicktockQueue::TOCK);

    struct Collector {
        std::vector<std::string> seen;
        void take(const Poco::AutoPtr<Named>& n) { seen.push_back(n->text); }
    } collector;
    Poco::NotificationCenter center;
    Poco::NObserver<Collector, Named> observer(collector, &Collector::take);
    center.addObserver(observer);
    queue.dispatch(center);
    center.removeObserver(observer);

    EXPECT_EQ(collector.seen, (std::vector<std::string>{"a1", "b1", "a2", "b2", "b3"}));
    EXPECT_EQ(queue.size(), 0u);
}

TEST(TicktockOrder, NullNotificationIsRefused)
{
    TicktockQueue queue;
    EXPECT_THROW(queue.enqueueNotification(nullptr, TicktockQueue::TICK), Poco::NullPointerException);
    EXPECT_EQ(queue.size(), 0u);
}

TEST(TicktockWaiting, BlockedTakerGetsTheNotificationDirectly)
{
    TicktockQueue queue;
    std::string got;
    std::thread taker([&] { got = textOf(queue.waitDequeueNotification()); });
    awaitWaiters(queue, 1);
    queue.enqueueNotification(item("direct"), TicktockQueue::TOCK);
    EXPECT_EQ(queue.size(), 0u);
    taker.join();
    EXPECT_EQ(got, "direct");
    EXPECT_EQ(queue.waiters(), 0u);
}

TEST(TicktockWaiting, LongestWaitingTakerIsServedFirst)
{
    TicktockQueue queue;
    std::string got[3];
    std::vector<std::thread> takers;
    for (int i = 0; i < 3; ++i) {
        takers.emplace_back([&, i] { got[i] = textOf(queue.waitDequeueNotification()); });
        awaitWaiters(queue, static_cast<size_t>(i + 1));
    }
    queue.enqueueNotification(item("first"), TicktockQueue::TICK);
    queue.enqueueUrgentNotification(item("second"), TicktockQueue::TOCK);
    queue.enqueueNotification(item("third"), TicktockQueue::TICK);
    for (auto& t : takers)
        t.join();
    EXPECT_EQ(got[0], "first");
    EXPECT_EQ(got[1], "second");
    EXPECT_EQ(got[2], "third");
    EXPECT_EQ(queue.size(), 0u);
}

TEST(TicktockWaiting, WakeUpAllReleasesEveryTakerAndLaterWorkIsQueued)
{
    TicktockQueue queue;
    std::string got[2];
    std::thread a([&] { got[0] = textOf(queue.waitDequeueNotification()); });
    std::thread b([&] { got[1] = textOf(queue.waitDequeueNotification(60000)); });
    awaitWaiters(queue, 2);
    queue.wakeUpAll();
    a.join();
    b.join();
    EXPECT_EQ(got[0], "<null>");
    EXPECT_EQ(got[1], "<null>");
    EXPECT_EQ(queue.waiters(), 0u);

    queue.enqueueNotification(item("kept"), TicktockQueue::TICK);
    EXPECT_EQ(queue.size(), 1u);
    EXPECT_EQ(textOf(queue.dequeueNotification()), "kept");
}

TEST(TicktockWaiting, ExpiredTimedTakeLeavesNoWaiterBehind)
{
    TicktockQueue queue;
    EXPECT_TRUE(queue.waitDequeueNotification(20).isNull());
    EXPECT_EQ(queue.waiters(), 0u);
    // Had the expired record stayed queued, this would be handed to it and lost.
    queue.enqueueNotification(item("after"), TicktockQueue::TICK);
    EXPECT_EQ(queue.size(), 1u);
    EXPECT_EQ(textOf(queue.waitDequeueNotification(20)), "after");
}

TEST(TicktockWaiting, TimedTakeReturnsWorkThatArrivesInTime)
{
    TicktockQueue queue;
    std::string got;
    std::thread taker([&] { got = textOf(queue.waitDequeueNotification(60000)); });
    awaitWaiters(queue, 1);
    queue.enqueueNotification(item("in time"), TicktockQueue::TICK);
    taker.join();
    EXPECT_EQ(got, "in time");
    EXPECT_EQ(queue.waiters(), 0u);
}

TEST(TicktockWaiting, ManyProducersAndTakersLoseNothing)
{
    TicktockQueue queue;
    constexpr int kProducers = 4, kPerProducer = 500, kTakers = 3;
    std::mutex mutex;
    std::multiset<std::string> received;
    std::vector<std::thread> takers;
    for (int t = 0; t < kTakers; ++t)
        takers.emplace_back([&, t] {
            while (Poco::Notification::Ptr n = queue.waitDequeueNotification(t % 2 ? 5 : 100000)) {
                std::string text = textOf(n);
                if (text == "stop")
                    break;
                std::lock_guard<std::mutex> lock(mutex);
                received.insert(text);
            }
        });
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p)
        producers.emplace_back([&, p] {
            for (int i = 0; i < kPerProducer; ++i)
                queue.enqueueNotification(item(std::to_string(p) + ":" + std::to_string(i)),
                    i % 2 ? TicktockQueue::TOCK : TicktockQueue::TICK);
        });
    for (auto& p : producers)
        p.join();
    // Timed takers may have given up on an empty queue; whatever is left is drained here.
    for (int t = 0; t < kTakers; ++t)
        queue.enqueueNotification(item("stop"), TicktockQueue::TICK);
    for (auto& t : takers)
        t.join();
    for (const std::string& text : drain(queue))
        if (text != "stop")
            received.insert(text);
    EXPECT_EQ(received.size(), static_cast<size_t>(kProducers * kPerProducer));
    EXPECT_EQ(std::set<std::string>(received.begin(), received.end()).size(), received.size());
}

TEST(TicktockSingleton, InstanceIsProcessWide)
{
    EXPECT_EQ(&TicktockQueue::getInstance(), &TicktockQueue::getInstance());
}
