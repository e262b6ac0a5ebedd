// The file manager inside an asio loop: all that an application with a loop of its own has to write.
#pragma once

#include <IFileManager.h>
#include <RtRuntime.h>

#include <asio.hpp>
#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>

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

    ~Cache() { m_manager->UnInitialize(); }
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

    asio::io_context& m_loop;
    asio::steady_timer m_timer;
    std::atomic<bool> m_woken{false};
    CRtCallerThread m_three; // calls back into what stands above
    IFileManager* m_manager;
};
