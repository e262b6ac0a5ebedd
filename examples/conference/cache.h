// The file manager inside an asio loop: everything that an application with its own loop has to write.
#pragma once

#include <IFileManager.h>
#include <RtRuntime.h>

#include <asio.hpp>
#include <atomic>
#include <stdexcept>
#include <string>

#include "turns.h"

/// Makes the thread that runs the loop the caller thread: every handler of the loop may call the file
/// manager, and every completion arrives as a handler of the loop. Create and destroy it on that thread;
/// the destructor stores what is still open.
class Cache {
public:
    /// `clearDays` and `isServer` are those of IFileManager::Initialize.
    Cache(asio::io_context& loop, const std::string& dir, uint16_t clearDays, bool isServer)
        : m_loop(loop), m_timer(loop), m_callerThread([this] { WakeUp(); }),
          m_manager(IFileManager::Instance()) {
        if (!m_callerThread.IsValid() || !m_manager)
            throw std::runtime_error("the file manager cannot be created in this process");
        m_manager->Initialize(CRtString(dir), clearDays, isServer ? 1 : 0);
        Pump(); // schedules the first timer
    }

    ~Cache() { m_manager->UnInitialize(); }
    IFileManager& Manager() { return *m_manager; }

private:
    // Runs on any thread, with a lock of the library held: post and return, never call the library.
    void WakeUp() {
        if (!m_woken.exchange(true))
            asio::post(m_loop, [this] { Pump(); });
    }

    void Pump() {
        Turns::Begin();
        m_woken = false; // before RunDue: an event that is queued while it runs posts another Pump
        m_callerThread.RunDue();
        const int64_t ms = m_callerThread.GetNextDueMs();
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
    CRtCallerThread m_callerThread; // its callback uses the members above
    IFileManager* m_manager;
};
