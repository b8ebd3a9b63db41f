// For tests of threads: a journal of events, a door, and work items.
#pragma once

#include <condition_variable>

#include "TestSupport.h"
#include "WorkerThread.h"

namespace testsupport {

// Records events in order, from any thread.
class Journal {
public:
    void add(std::string entry) {
        std::lock_guard lock(m_mutex);
        m_entries.push_back(std::move(entry));
        m_changed.notify_all();
    }
    std::vector<std::string> entries() const {
        std::lock_guard lock(m_mutex);
        return m_entries;
    }
    // Waits up to 20 s for `count` entries; returns whether they came.
    bool waitFor(std::size_t count) const {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(20),
                                  [&] { return m_entries.size() >= count; });
    }

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<std::string> m_entries;
};

// A door at which threads wait until it is opened, for at most 20 s.
class Door {
public:
    void open() { m_open = true; }
    bool pass() const {
        return eventually([&] { return m_open.load(); });
    }

private:
    std::atomic<bool> m_open{false};
};

class FunctionWork : public NorvoVirtualChannel::tc::WorkObject {
public:
    explicit FunctionWork(std::function<void()> run) : m_run(std::move(run)) {}
    int DoWork() override {
        m_run();
        return 0;
    }

private:
    std::function<void()> m_run;
};

inline NorvoVirtualChannel::tc::WorkItem work(std::function<void()> run) {
    return std::make_unique<FunctionWork>(std::move(run));
}

inline NorvoVirtualChannel::tc::WorkItem note(Journal& journal, std::string entry) {
    return work([&journal, entry = std::move(entry)] { journal.add(entry); });
}

}  // namespace testsupport
