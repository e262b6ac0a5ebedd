// The file manager inside an asio loop: all that an application with a loop of its own has to write.
#pragma once

#include <IFileManager.h>
#include <RtRuntime.h>

#include <asio.hpp>
#include <atomic>
#include <iostream>
#include <string>
#include <string_view>

/// While it lives, the thread that runs the loop is number 3: every handler of the loop may call the
/// file manager, and every completion comes as a handler of the loop. To be made and destroyed on that
/// thread; its end stores what is still open.
class Cache {
public:
    Cache(asio::io_context& loop, const std::string& dir, uint16_t clearDays, bool isServer)
        : m_loop(loop), m_timer(loop), m_three([this] { WakeUp(); }),
          m_manager(IFileManager::Instance()) {
        if (!m_three.IsValid() || !m_manager)
            throw std::runtime_error("this process cannot have a file manager");
        m_manager->Initialize(CRtString(dir), clearDays, isServer ? 1 : 0);
        Pump(); // learns when the first timer is due
    }

    ~Cache() {
        RtSetLogSink(&ShowStatistics, nullptr, RT_LOG_TRACE);
        m_manager->UnInitialize();
        RtSetLogSink(nullptr, nullptr, RT_LOG_WARNING);
    }

    Cache(const Cache&) = delete;
    Cache& operator=(const Cache&) = delete;

    IFileManager& Manager() { return *m_manager; }

private:
    // From any thread, and from under a lock of the library: it posts and does nothing else.
    void WakeUp() {
        if (!m_woken.exchange(true))
            asio::post(m_loop, [this] { Pump(); });
    }

    void Pump() {
        m_woken = false; // first: what is queued from now on wakes the loop again
        m_three.RunDue();
        const int64_t ms = m_three.GetNextDueMs();
        if (ms < 0)
            return;
        m_timer.expires_after(std::chrono::milliseconds(ms));
        m_timer.async_wait([this](std::error_code cancelled) {
            if (!cancelled)
                Pump();
        });
    }

    // The library says how it went when it stops; the demonstration shows that line.
    static void ShowStatistics(void*, int level, const char* text) {
        constexpr std::string_view wanted = "CFileManager::UnInitialize, statistics ";
        if (const std::string_view line(text); line.starts_with(wanted))
            std::cout << "statistics" << line.substr(wanted.size()) << std::endl;
        else if (level <= RT_LOG_WARNING)
            std::cerr << line << std::endl;
    }

    asio::io_context& m_loop;
    asio::steady_timer m_timer;
    std::atomic<bool> m_woken{false};
    CRtCallerThread m_three; // calls back into what stands above
    IFileManager* m_manager;
};
