#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/TestSupport.h"
#include <quillcore/platform/RunLoop.h>

namespace {

using quill::platform::CFileDescriptorSource;
using quill::platform::CRunLoop;
using quill::platform::CRunLoopTimer;

// Upper bound for waits that normally end at once; reached only when the
// behaviour under test is broken.
constexpr double kPatience = 10.0;

struct CPipe {
    CPipe() {
        if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) throw std::runtime_error("pipe2");
    }
    ~CPipe() {
        closeEnd(0);
        closeEnd(1);
    }
    void put() const { EXPECT_EQ(write(fds[1], "x", 1), 1); }
    void closeEnd(int end) {
        if (fds[end] >= 0) close(std::exchange(fds[end], -1));
    }
    int fds[2] = {-1, -1};
};

TEST(RunLoop, OneLoopPerThreadRunByItsThreadUntilTimeOrStop) {
    CRunLoop& loop = CRunLoop::current();
    EXPECT_EQ(&loop, &CRunLoop::current());
    std::thread([&] {
        EXPECT_NE(&CRunLoop::current(), &loop);
        EXPECT_THROW(loop.runFor(0.0), std::logic_error);
    }).join();

    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(loop.runFor(0.05), CRunLoop::Result::TimedOut);  // waits even without sources
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));

    // stop() ends the run in progress only.
    loop.stop();  // not running: dropped
    EXPECT_EQ(loop.runFor(0.0), CRunLoop::Result::TimedOut);
    bool second = false;
    loop.post([&] { loop.stop(); });
    loop.post([&] { second = true; });
    EXPECT_EQ(loop.runFor(kPatience), CRunLoop::Result::Stopped);
    EXPECT_FALSE(second);  // waits for the next run
    EXPECT_EQ(loop.runOnce(), CRunLoop::Result::Handled);
    EXPECT_TRUE(second);
}

TEST(RunLoop, PostedTasksRunOnTheLoopThreadInOrder) {
    CRunLoop& loop = CRunLoop::current();
    std::vector<int> order;
    std::thread poster([&] {
        for (int i = 0; i < 100; ++i) {
            loop.post([&, i, poster = std::this_thread::get_id()] {
                EXPECT_NE(std::this_thread::get_id(), poster);
                order.push_back(i);
            });
        }
    });
    poster.join();
    ASSERT_TRUE(loop.runUntil([&] { return order.size() == 100; }, kPatience));
    for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
}

TEST(RunLoop, TimersFireInOrderOnceOrUntilCancelled) {
    CRunLoop& loop = CRunLoop::current();
    std::string order;
    int repeats = 0;
    CRunLoopTimer c = loop.addTimer(0.003, 0.0, [&] { order += 'c'; });
    CRunLoopTimer a = loop.addTimer(0.001, 0.0, [&] { order += 'a'; });
    CRunLoopTimer b = loop.addTimer(0.002, 0.0, [&] { order += 'b'; });
    CRunLoopTimer repeating;
    repeating = loop.addTimer(0.0, 0.001, [&] {
        if (++repeats == 3) repeating.cancel();
    });
    // Cancelled, dropped and replaced timers never fire.
    CRunLoopTimer cancelled = loop.addTimer(0.0, 0.0, [&] { order += 'x'; });
    cancelled.cancel();
    {
        CRunLoopTimer dropped = loop.addTimer(0.0, 0.0, [&] { order += 'y'; });
    }
    CRunLoopTimer replaced = loop.addTimer(0.0, 0.0, [&] { order += 'z'; });
    replaced = CRunLoopTimer();

    std::this_thread::sleep_for(std::chrono::milliseconds(5));  // a, b and c are all due at once
    ASSERT_TRUE(loop.runUntil([&] { return order.size() >= 3 && repeats == 3; }, kPatience));
    EXPECT_EQ(order, "abc");
    EXPECT_FALSE(a.isActive());
    EXPECT_FALSE(repeating.isActive());
    loop.runFor(0.01);
    EXPECT_EQ(order, "abc");
    EXPECT_EQ(repeats, 3);
}

TEST(RunLoop, DescriptorsAreServedUntilRemoved) {
    CRunLoop& loop = CRunLoop::current();
    CPipe pipe;
    unsigned seen = 0;
    const int readEnd = pipe.fds[0];
    CFileDescriptorSource reader =
        loop.addFileDescriptorSource(readEnd, CRunLoop::kReadable, [&](int fd, unsigned events) {
            EXPECT_EQ(fd, readEnd);
            seen |= events;
            char c;
            while (read(fd, &c, 1) == 1) {}
        });
    int writable = 0;
    CFileDescriptorSource writer;
    writer = loop.addFileDescriptorSource(pipe.fds[1], CRunLoop::kWritable, [&](int, unsigned events) {
        EXPECT_EQ(events, CRunLoop::kWritable);
        ++writable;
        writer.setEvents(0);
    });
    loop.runFor(0.0);
    loop.runFor(0.0);
    EXPECT_EQ(writable, 1);
    EXPECT_EQ(seen, 0u);
    std::thread([&] { pipe.put(); }).join();
    ASSERT_TRUE(loop.runUntil([&] { return seen == CRunLoop::kReadable; }, kPatience));

    writer.remove();
    pipe.closeEnd(1);
    loop.runFor(0.0);
    EXPECT_TRUE(seen & CRunLoop::kHangUp);
    EXPECT_TRUE(reader.isActive());
    pipe.closeEnd(0);  // closed behind the loop's back: reported once, then dropped
    seen = 0;
    loop.runFor(0.0);
    EXPECT_TRUE(seen & CRunLoop::kError);
    EXPECT_FALSE(reader.isActive());
}

TEST(RunLoop, SourceRemovedByAnEarlierCallbackOfTheSamePassIsNotCalled) {
    CRunLoop& loop = CRunLoop::current();
    CPipe first, second;
    first.put();
    second.put();
    int calls = 0;
    CFileDescriptorSource a, b;
    auto removeBoth = [&](int, unsigned) {
        ++calls;
        a.remove();
        b.remove();
    };
    a = loop.addFileDescriptorSource(first.fds[0], CRunLoop::kReadable, removeBoth);
    b = loop.addFileDescriptorSource(second.fds[0], CRunLoop::kReadable, removeBoth);
    loop.runFor(0.0);
    EXPECT_EQ(calls, 1);
}

TEST(RunLoop, NestedRunsServeOtherSourcesButNotTheRunningOne) {
    CRunLoop& loop = CRunLoop::current();
    CPipe pipe;
    pipe.put();
    int calls = 0;
    bool nestedTaskRan = false;
    CFileDescriptorSource source =
        loop.addFileDescriptorSource(pipe.fds[0], CRunLoop::kReadable, [&](int fd, unsigned) {
            ++calls;
            loop.post([&] { nestedTaskRan = true; });
            loop.runFor(0.0);  // the pipe is still readable here
            char c;
            EXPECT_EQ(read(fd, &c, 1), 1);
        });
    loop.runFor(0.0);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(nestedTaskRan);
}

TEST(RunLoop, ExceptionsFromCallbacksAreLoggedAndTheLoopGoesOn) {
    quilltest::TempDir dir;
    quilltest::ScopedEnv console("QUILL_CONSOLE_LOG", (dir / "console.log").string());
    CRunLoop& loop = CRunLoop::current();
    bool ranAfter = false;
    loop.post([] { throw std::runtime_error("boom"); });
    loop.post([] { throw 7; });
    loop.post([&] { ranAfter = true; });
    ASSERT_TRUE(loop.runUntil([&] { return ranAfter; }, kPatience));
    std::string log = quilltest::readFile(dir / "console.log");
    EXPECT_NE(log.find("CRunLoop: a callback threw an exception: boom\n"), std::string::npos) << log;
    EXPECT_NE(log.find("CRunLoop: a callback threw an exception of unknown type\n"), std::string::npos) << log;
}

// Timers added and removed by another thread while the loop runs; meant for
// the thread sanitizer as much as for the count.
TEST(RunLoop, OtherThreadsAddAndRemoveWhileTheLoopRuns) {
    CRunLoop& loop = CRunLoop::current();
    std::atomic<int> fired{0};
    std::atomic<bool> done{false};
    std::thread worker([&] {
        for (int i = 0; i < 200; ++i) {
            CRunLoopTimer keep = loop.addTimer(0.0, 0.0, [&] { ++fired; });
            CRunLoopTimer drop = loop.addTimer(kPatience, 0.0, [&] { fired += 1000; });
            drop.cancel();
            while (keep.isActive()) std::this_thread::yield();
        }
        done = true;
        loop.stop();
    });
    EXPECT_EQ(loop.runFor(60.0), CRunLoop::Result::Stopped);
    worker.join();
    EXPECT_TRUE(done);
    EXPECT_EQ(fired.load(), 200);
}

}  // namespace
