// A capture of the root logger's messages, for tests of what is logged (header-only).
#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace Orvex::Test {

// Collects the text and priority of what reaches it; with failing set it throws instead,
// as a broken log channel would.
class LogCapture : public Poco::Channel {
public:
    void log(const Poco::Message& message) override
    {
        if (failing)
            throw std::runtime_error("channel down");
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(message.getText());
        priorities_.push_back(message.getPriority());
    }
    std::vector<std::string> lines() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    std::vector<int> priorities() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return priorities_;
    }
    std::atomic<bool> failing{false};

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    std::vector<int> priorities_;
};

// Makes a new capture the root logger's channel and raises its level so trace lines come too.
inline Poco::AutoPtr<LogCapture> captureLog()
{
    Poco::AutoPtr<LogCapture> capture(new LogCapture);
    Poco::Logger::root().setChannel(capture);
    Poco::Logger::root().setLevel(Poco::Message::PRIO_TRACE);
    return capture;
}

}  // namespace Orvex::Test
