// The runtime layer: queues and threads, timers, the message block and the byte stream, the log.
#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <set>
#include <thread>

#include "RtByteStream.h"
#include "RtSendTicket.h"
#include "testing/kit.h"
#include "util/filemanager/filemanager.h"
#include "util/filemanager/fmfunctor.h"

using namespace std::chrono_literals;

namespace {

class TickSink final : public CRtTimerWrapperSink {
public:
    void OnTimer(CRtTimerWrapper* timer) override {
        if (++ticks == cancelAt)
            timer->Cancel();
    }
    int ticks = 0;
    int cancelAt = 0;
};

// In its first part, each thread waits until the other one has started a part.
class TwoThreadWork final : public IRtParts {
public:
    int RunPart(uint32_t part) noexcept override {
        std::unique_lock lock(m_mutex);
        m_threads.insert(CRtThreadManager::GetThreadSelfId());
        m_changed.notify_all();
        m_changed.wait_for(lock, 60s, [this] { return m_threads.size() == 2; });
        lock.unlock();
        if (!CRtEventQueue::Current())
            std::this_thread::sleep_for(senderTakes); // the sender ends last: the receiver parks
        lock.lock();
        ++runs.at(part);
        return part == failing ? 5 : 0;
    }
    int Run(uint32_t count) { return CRtSendTicket::GetRunning()->RunParts(*this, count); }
    std::vector<int> runs = std::vector<int>(100);
    uint32_t failing = UINT32_MAX;
    std::chrono::microseconds senderTakes{5000};

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::set<uint32_t> m_threads;
};

CRtThread* MakeThread() {
    CRtThread* thread = nullptr;
    EXPECT_EQ(
        CRtThreadManager::Instance()->CreateUserTaskThread(thread, CRtThreadManager::TT_TASK, 0),
        0);
    return thread;
}

} // namespace

TEST(Queue, RunsEventsInOrderAndDisposesOfRefusedEvents) {
    CRtThread* thread = MakeThread();
    IRtEventQueue* queue = thread->GetEventQueue();
    std::vector<int> order;
    for (int i = 0; i < 100; ++i)
        queue->PostEvent(new TestEvent([&order, i] { order.push_back(i); }), 1);
    // SendEvent returns after the event has run, also if the thread sends to itself.
    uint32_t id = 0;
    EXPECT_EQ(queue->SendEvent(new TestEvent([&] {
        queue->SendEvent(new TestEvent([&] { id = CRtThreadManager::GetThreadSelfId(); }));
    })),
              0);
    EXPECT_EQ(order.size(), 100U);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    EXPECT_EQ(id, thread->GetThreadId());

    // Events that are queued at the stop still run. Later events are refused; a sender does not wait.
    std::atomic<bool> go{false};
    std::atomic<int> ran{0};
    queue->PostEvent(new TestEvent([&] {
                         while (!go)
                             std::this_thread::yield();
                     }),
                     1);
    for (int i = 0; i < 10; ++i)
        queue->PostEvent(new TestEvent([&] { ++ran; }), 1);
    thread->Stop();
    EXPECT_EQ(queue->SendEvent(new TestEvent), RT_ERROR_NOT_READY);
    EXPECT_EQ(queue->PostEvent(new TestEvent, 1), RT_ERROR_NOT_READY);
    EXPECT_EQ(queue->PostEvent(nullptr, 1), RT_ERROR_NULL_OBJECT);
    EXPECT_EQ(thread->Join(10), RT_ERROR_NOT_READY);
    go = true;
    EXPECT_EQ(thread->Destory(0), 0);
    EXPECT_EQ(ran, 10);
    EXPECT_EQ(TestEvent::alive, 0);
}

TEST(Queue, WaitingSenderRunsPartsOfItsEvent) {
    CRtThread* thread = MakeThread();
    IRtEventQueue* queue = thread->GetEventQueue();
    for (const auto sleep : {0ms, 20ms}) { // the sender spins or parks
        TwoThreadWork work;
        queue->SendEvent(new TestEvent([&] {
            std::this_thread::sleep_for(sleep);
            EXPECT_EQ(work.Run(100), 0);
            EXPECT_EQ(std::ranges::count(work.runs, 1), 100);
            work.failing = 10;
            EXPECT_EQ(work.Run(100), 5);
        }));
        EXPECT_LT(std::ranges::count(work.runs, 2), 100); // parts after a failure are skipped
    }
    for (int i = 0; i < 500; ++i) { // both threads park and wake up, in any order
        TwoThreadWork work;
        work.senderTakes = std::chrono::microseconds(i);
        queue->SendEvent(new TestEvent([&] { work.Run(4); }));
        EXPECT_EQ(std::ranges::count(work.runs, 1), 4);
    }
    queue->SendEvent(new TestEvent([&] { // without a waiting sender there is no ticket
        queue->PostEvent(new TestEvent([] { EXPECT_FALSE(CRtSendTicket::GetRunning()); }), 1);
    }));
    EXPECT_EQ(thread->Destory(0), 0);
}

TEST(Queue, PostsToMissingThreadsReleaseTheirReferences) {
    CRtCallerThread callerThread;
    LogCapture log;
    CFileManager* manager = CFileManager::Instance();
    EXPECT_EQ(manager->GetReadwrThreadID(), 0U);
    EXPECT_EQ(manager->PostToReadwrThread(nullptr, 0), RT_ERROR_NULL_OBJECT);
    for (const int sync : {0, 1}) {
        EXPECT_EQ(manager->PostToReadwrThread(new TestEvent, sync), RT_ERROR_NOT_READY);
        EXPECT_EQ(manager->PostToCallerThread(new TestEvent, sync), RT_ERROR_NOT_READY);
    }
    EXPECT_EQ(TestEvent::alive, 0);
    EXPECT_EQ(log.Count(" Assert failed: m_pReadwrTd && m_pReadwrTd->GetEventQueue()"), 2U);

    // A block that completes without a read/write thread keeps its bytes, and no event keeps the block alive.
    FileRef file;
    ASSERT_EQ(manager->CreateFile(file.Receive(), Description()), 0);
    BlockRef block = Cache::Block(*file, 1);
    EXPECT_EQ(Write(*block, "bytes"), 0);
    EXPECT_EQ(Read(*block), "bytes");
    CountingSink sink;
    BlockRef other = Cache::Block(*file, 2);
    EXPECT_EQ(other->ReadData(&sink), RT_ERROR_NOT_READY);
    manager->DetachFile(file->GetFileInfo().fileID);
    other.Reset();
    file.Reset();
    block.Reset();
    EXPECT_TRUE(sink.results.empty());
    EXPECT_EQ(log.Count("CFMBlock::~CFMBlock"), 2U);
    EXPECT_EQ(log.Count("CFMFile::~CFMFile"), 1U);
}

TEST(WaitUntilIdle, ReturnsAfterEventsThatEventsPostToEitherThread) {
    LogCapture quiet(RT_LOG_SILENT);
    EXPECT_EQ(FMWaitUntilIdle(), 0); // before Initialize; starts a caller thread of the runtime
    Cache cache;
    EXPECT_FALSE(cache.thread.IsValid());
    CFileManager& manager = *CFileManager::Instance();
    int hops = 0;
    std::function<void()> hop = [&] {
        auto* next = new TestEvent(hop);
        if (++hops >= 100)
            delete next;
        else
            hops % 3 == 0 ? manager.PostToCallerThread(next, 0)
                          : manager.PostToReadwrThread(next, 0);
    };
    manager.PostToReadwrThread(new TestEvent(hop), 0);
    EXPECT_EQ(FMWaitUntilIdle(), 0); // from a third thread
    EXPECT_EQ(hops, 100);
    hops = 0;
    RtRunOnCallerThread(
        [&] {
            hop();
            EXPECT_EQ(FMWaitUntilIdle(), 0); // from an event
        },
        true);
    EXPECT_EQ(hops, 100);
    int result = 0;
    manager.PostToReadwrThread(new TestEvent([&] { result = FMWaitUntilIdle(); }), 1);
    EXPECT_EQ(result, RT_ERROR_NOT_READY);
    // An event that always posts itself.
    std::atomic<bool> stop{false};
    std::function<void()> again = [&] {
        if (!stop)
            manager.PostToReadwrThread(new TestEvent(again), 0);
    };
    manager.PostToReadwrThread(new TestEvent(again), 0);
    EXPECT_EQ(FMWaitUntilIdle(0), RT_ERROR_NOT_READY);
    EXPECT_EQ(FMWaitUntilIdle(20), RT_ERROR_NOT_READY);
    stop = true;
    EXPECT_EQ(FMWaitUntilIdle(), 0);
    EXPECT_EQ(TestEvent::alive, 0);
}

TEST(CallerThread, MainLoopIsWokenUpAndRunsDueEvents) {
    std::mutex mutex;
    std::condition_variable woken;
    bool wake = false;
    CRtCallerThread callerThread([&] {
        const std::lock_guard lock(mutex);
        wake = true;
        woken.notify_one();
    });
    ASSERT_TRUE(callerThread.IsValid());
    EXPECT_FALSE(CRtCallerThread().IsValid());
    bool ran = false;
    std::thread poster([&] { EXPECT_EQ(RtRunOnCallerThread([&] { ran = true; }, true), 0); });
    {
        std::unique_lock lock(mutex);
        woken.wait(lock, [&] { return wake; });
    }
    EXPECT_EQ(callerThread.RunDue(), 1U);
    poster.join();
    EXPECT_TRUE(ran);
    RtRunOnCallerThread([&] { callerThread.Quit(); }, false);
    callerThread.Run();
}

TEST(CallerThread, RuntimeStartsOneIfTheProgramHasNone) {
    uint32_t first = 0;
    uint32_t second = 0;
    EXPECT_EQ(RtRunOnCallerThread([&] { first = CRtThreadManager::GetThreadSelfId(); }, true), 0);
    EXPECT_EQ(RtRunOnCallerThread([&] { second = CRtThreadManager::GetThreadSelfId(); }, true), 0);
    EXPECT_NE(first, CRtThreadManager::GetThreadSelfId());
    EXPECT_EQ(first, second);
    EXPECT_FALSE(CRtCallerThread().IsValid());
}

TEST(Timer, ClockStepsNeitherRepeatNorStopTicks) {
    TestClock clock;
    CRtCallerThread callerThread;
    TickSink sink;
    CRtTimerWrapper timer;
    EXPECT_EQ(callerThread.GetNextDueMs(), -1);
    EXPECT_EQ(timer.Schedule(nullptr, CRtTimeValue(60, 0), 0), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(timer.Schedule(&sink, CRtTimeValue(59, 1'000'000), 0), 0);
    clock.Advance(59'999);
    EXPECT_EQ(callerThread.RunDue(), 0U);
    EXPECT_EQ(callerThread.GetNextDueMs(), 1);
    clock.Advance(1);
    EXPECT_EQ(callerThread.RunDue(), 1U);
    clock.Advance(600'000); // missed ticks are skipped
    EXPECT_EQ(callerThread.RunDue(), 1U);
    clock.tick -= 900'000; // a clock that is set back does not stop the ticks
    EXPECT_EQ(callerThread.GetNextDueMs(), 60'000);
    clock.Advance(60'000);
    sink.cancelAt = 3;
    EXPECT_EQ(callerThread.RunDue(), 1U);
    clock.Advance(600'000);
    EXPECT_EQ(callerThread.RunDue(), 0U);
    EXPECT_EQ(sink.ticks, 3);
}

TEST(ByteStream, EncodesTheBytesOfTheFormat) {
    FMFileInfo info;
    info.userValue = 258;
    FMFileIDFromString("{01234567-89AB-CDEF-0123-456789abcdef}", info.fileID);
    info.name = "abc";
    info.flag = 4;
    info.blockBeg = 1;
    info.num = 64;
    CRtMessageChain body;
    ASSERT_EQ(FMEncodeFileBody(info, 0x01020304, body), 0);
    const std::string expected("\x02\x01\0\0"
                               "\x67\x45\x23\x01\xAB\x89\xEF\xCD\x01\x23\x45\x67\x89\xAB\xCD\xEF"
                               "\x03\0abc\x04\0\0\0\x01\0\0\0\x40\0\0\0\x04\x03\x02\x01",
                               41);
    EXPECT_EQ(Bytes(body), expected);
    uint32_t left = 1;
    ASSERT_EQ(FMEncodeBlockBody({{1, 5, 1}, {}, {3, 7, int64_t{1} << 33}}, body, left), 0);
    EXPECT_EQ(Bytes(body), std::string("\x03\0\x01\0\0\0\x05\0\0\0\x01\0\0\0\0\0\0\0\0\0\0\0"
                                       "\x03\0\0\0\x07\0\0\0\0\0\0\0\x02\0\0\0",
                                       38));
    EXPECT_EQ(left, 0U);
}

TEST(ByteStream, StringsEndAtTheirLimit) {
    LogCapture log;
    const std::string longest(32766, 'x');
    const CRtMessageChain chain = CRtMessageBlock::Create(70'000);
    CRtByteStreamT out(*chain);
    out << CRtString(longest) << CRtString();
    EXPECT_EQ(chain->GetChainedLength(), 2U + 32766 + 2);
    out << CRtString(longest + "x");
    EXPECT_EQ(out.GetWriteResult(), RT_ERROR_IO);
    EXPECT_EQ(chain->GetChainedLength(), 2U + 32766 + 2);
    EXPECT_EQ(log.Count("util/h/RtByteStream:"), 1U);
}

TEST(MessageBlock, PointersStayInTheBufferAndALockIsReported) {
    LogCapture log;
    const CRtMessageChain chain = CRtMessageBlock::CreateCopy("0123", 4);
    EXPECT_EQ(chain->AdvanceTopLevelReadPtr(5), RT_ERROR_OUT_OF_RANGE);
    EXPECT_EQ(chain->AdvanceTopLevelWritePtr(1), RT_ERROR_OUT_OF_RANGE);
    chain->LockReading();
    EXPECT_EQ(std::string_view(chain->GetTopLevelReadPtr(), 4), "0123");
    EXPECT_EQ(log.Count("util/h/RtMessageBlock:"), 3U);
}

TEST(Log, TruncatesLongLinesAndComposesNoDisabledOnes) {
    int composed = 0;
    const auto text = [&composed] {
        ++composed;
        return CRtString(std::string(5000, 'x'));
    };
    {
        LogCapture log(RT_LOG_WARNING);
        RT_LOG(RT_LOG_TRACE, text());
        EXPECT_EQ(composed, 0);
        RT_LOG(RT_LOG_ERROR, text() << -5);
        EXPECT_EQ(log.Text().size(), RT_LOG_BUFFER_SIZE);
    }
    LogCapture log;
    RT_LOG(RT_LOG_TRACE, INT64_MIN << " " << UINT64_MAX << " " << CTavoSID(0x12345678));
    EXPECT_EQ(log.Text(), "-9223372036854775808 18446744073709551615 18.3.1110.120\n");
}

TEST(FileID, TextAndOrderAgree) {
    FMFileID id{};
    EXPECT_EQ(FMFileIDToString(FMFileID_None), CRtString("{00000000-0000-0000-0000-000000000000}"));
    std::vector<FMFileID> ids;
    for (int i = 0; i < 200; ++i) {
        CoCreateFMFileID(id);
        FMFileID back;
        FMFileIDFromString(FMFileIDToString(id), back);
        EXPECT_TRUE(back == id && !(id == FMFileID_None));
        ids.push_back(id);
        id.Data4[7] = static_cast<uint8_t>(id.Data4[7] ^ 0x80);
        ids.push_back(id);
    }
    std::sort(ids.begin(), ids.end());
    EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end(), [](const auto& a, const auto& b) {
        return FMFileIDToString(a) < FMFileIDToString(b);
    }));
    EXPECT_FALSE(ids[0] < ids[0]);
    for (const char* text :
         {"", "tmp", "{0123456789AB-CDEF-0123-456789ABCDEF00}",
          "{01234567-89AB-CDEF-0123-456789ABCDEG}", "{01234567-89AB-CDEF-0123-456789ABCDEF}x"}) {
        FMFileIDFromString(text, id);
        EXPECT_TRUE(id == FMFileID_None) << text;
    }
}
