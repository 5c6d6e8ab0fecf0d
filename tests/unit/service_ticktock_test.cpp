#include "service/ticktock.h"
#include "tests/support/process.h"

#include <Poco/Notification.h>

#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

using Orvex::TicktockQueue;
using Orvex::Test::waitFor;
constexpr auto TICK = TicktockQueue::TICK;
constexpr auto TOCK = TicktockQueue::TOCK;

namespace {

class Named : public Poco::Notification {
public:
    explicit Named(std::string text) : text(std::move(text)) {}
    std::string text;
};

Poco::Notification::Ptr item(const std::string& text) { return new Named(text); }

std::string textOf(const Poco::Notification::Ptr& n)
{
    return n.isNull() ? "<null>" : n.cast<Named>()->text;
}

std::vector<std::string> take(TicktockQueue& queue, int count)
{
    std::vector<std::string> out;
    while (count-- > 0)
        out.push_back(textOf(queue.dequeueNotification()));
    return out;
}

using Texts = std::vector<std::string>;

}  // namespace

TEST(TicktockOrder, ClassesAlternateWhileBothHaveWork)
{
    TicktockQueue queue;
    for (const char* a : {"a1", "a2", "a3"})
        queue.enqueueNotification(item(a), TICK);
    queue.enqueueNotification(item("b1"), TOCK);
    EXPECT_EQ(queue.size(), 4u);
    EXPECT_EQ(take(queue, 5), (Texts{"a1", "b1", "a2", "a3", "<null>"}));

    queue.enqueueNotification(item("x1"), TICK);
    queue.enqueueUrgentNotification(item("x0"), TICK);
    queue.enqueueNotification(item("y1"), TOCK);
    queue.enqueueUrgentNotification(item("y0"), TOCK);
    // a3 was a fallback take (turn then TOCK); the empty take switched back to TICK.
    EXPECT_EQ(take(queue, 4), (Texts{"x0", "y0", "x1", "y1"}));
}

TEST(TicktockOrder, OneClassDrainsInOrderAndLeavesTheTurnOnTick)
{
    TicktockQueue queue;
    queue.enqueueNotification(item("t1"), TOCK);
    queue.enqueueNotification(item("t2"), TOCK);
    EXPECT_EQ(take(queue, 2), (Texts{"t1", "t2"}));
    queue.enqueueNotification(item("tock"), TOCK);
    queue.enqueueNotification(item("tick"), TICK);
    EXPECT_EQ(take(queue, 2), (Texts{"tick", "tock"}));
}

TEST(TicktockWaiting, BlockedTakersAreHandedWorkInArrivalOrder)
{
    TicktockQueue queue;
    std::string got[3];
    std::vector<std::thread> takers;
    for (int i = 0; i < 3; ++i) {
        takers.emplace_back([&, i] { got[i] = textOf(i == 2 ? queue.waitDequeueNotification(60000) : queue.waitDequeueNotification()); });
        // A blocked taker is a state of the queue: wait for it, not for a time.
        EXPECT_TRUE(waitFor([&] { return queue.waiters() == i + 1u; }));
    }
    queue.enqueueNotification(item("first"), TICK);
    queue.enqueueUrgentNotification(item("second"), TOCK);
    EXPECT_EQ(queue.size(), 0u);  // handed over, never queued
    queue.enqueueNotification(item("third"), TOCK);
    for (auto& t : takers)
        t.join();
    EXPECT_EQ((Texts{got[0], got[1], got[2]}), (Texts{"first", "second", "third"}));
    EXPECT_EQ(queue.waiters(), 0u);
}

// A stale waiter record would swallow the next hand-over.
TEST(TicktockWaiting, TakersReleasedByWakeUpAllOrTheirTimeOutLeaveNoWaiterBehind)
{
    TicktockQueue queue;
    std::string got[2];
    std::thread a([&] { got[0] = textOf(queue.waitDequeueNotification()); });
    std::thread b([&] { got[1] = textOf(queue.waitDequeueNotification(60000)); });
    EXPECT_TRUE(waitFor([&] { return queue.waiters() == 2; }));
    queue.wakeUpAll();
    a.join();
    b.join();
    EXPECT_EQ(got[0] + got[1], "<null><null>");
    EXPECT_TRUE(queue.waitDequeueNotification(20).isNull());
    EXPECT_EQ(queue.waiters(), 0u);
    queue.enqueueNotification(item("kept"), TICK);
    EXPECT_EQ(queue.size(), 1u);
    EXPECT_EQ(textOf(queue.waitDequeueNotification(20)), "kept");
}

TEST(TicktockWaiting, ManyProducersAndTakersLoseNothing)
{
    TicktockQueue queue;
    constexpr int kProducers = 4, kEach = 500, kTakers = 3;
    std::mutex mutex;
    std::multiset<std::string> received;
    std::vector<std::thread> threads;
    for (int t = 0; t < kTakers; ++t)
        threads.emplace_back([&, t] {
            // Odd takers use short timed waits, so expiry races with hand-over.
            while (auto n = t % 2 ? queue.waitDequeueNotification(1) : queue.waitDequeueNotification()) {
                if (textOf(n) == "stop")
                    return;
                std::lock_guard<std::mutex> lock(mutex);
                received.insert(textOf(n));
            }
        });
    for (int p = 0; p < kProducers; ++p)
        threads.emplace_back([&, p] {
            for (int i = 0; i < kEach; ++i)
                queue.enqueueNotification(item(std::to_string(p) + ":" + std::to_string(i)), i % 2 ? TOCK : TICK);
        });
    for (size_t i = kTakers; i < threads.size(); ++i)
        threads[i].join();
    for (int t = 0; t < kTakers; ++t)
        queue.enqueueNotification(item("stop"), TICK);
    for (int t = 0; t < kTakers; ++t)
        threads[t].join();
    while (auto n = queue.dequeueNotification())
        if (textOf(n) != "stop")
            received.insert(textOf(n));
    EXPECT_EQ(received.size(), static_cast<size_t>(kProducers * kEach));
    EXPECT_EQ(std::set<std::string>(received.begin(), received.end()).size(), received.size());
}
