#include "sim/timers.h"

struct Timers::Pending {
    Timers *owner;
    std::function<void()> action;
};

Timers::~Timers()
{
    cancelAll();
}

Timers::Id Timers::after(guint ms, std::function<void()> action)
{
    // Held until the id is kept: the action cannot run, and look for it, before.
    const std::lock_guard<std::mutex> hold(m_lock);
    auto *pending = new Pending {this, std::move(action)};
    const Id id = g_timeout_add_full(G_PRIORITY_DEFAULT, ms, run, pending, forget);
    m_pending.insert(id);
    return id;
}

void Timers::cancel(Id id)
{
    const std::lock_guard<std::mutex> hold(m_lock);
    if (m_pending.erase(id) > 0)
        g_source_remove(id);
}

void Timers::cancelAll()
{
    const std::lock_guard<std::mutex> hold(m_lock);
    for (Id id : m_pending)
        g_source_remove(id);
    m_pending.clear();
}

gboolean Timers::run(gpointer data)
{
    auto *pending = static_cast<Pending *>(data);
    {
        const std::lock_guard<std::mutex> hold(pending->owner->m_lock);
        pending->owner->m_pending.erase(g_source_get_id(g_main_current_source()));
    }
    pending->action();
    return G_SOURCE_REMOVE;
}

void Timers::forget(gpointer pending)
{
    delete static_cast<Pending *>(pending);
}
